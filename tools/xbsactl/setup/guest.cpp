#include "setup/guest.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "base/base.h"
#include "library/library.h"

namespace setup
{
namespace
{
// The folder's links are resolved, the file's are not: libxbsa.so.1 stays right after an update.
std::string AbsolutePath(const std::string &I_strFile)
{
    const size_t uSlash = I_strFile.rfind('/');
    const std::string strFolder =
        uSlash == std::string::npos ? "." : I_strFile.substr(0, uSlash + 1);
    std::array<char, PATH_MAX> szFolder{};
    if (realpath(strFolder.c_str(), szFolder.data()) == nullptr)
        throw base::SystemFailure(I_strFile);
    std::string strPath = std::string(szFolder.data()) + "/" +
                          I_strFile.substr(uSlash == std::string::npos ? 0 : uSlash + 1);
    if (base::HasControlCharacter(strPath) || strPath.find_first_of(" #") != std::string::npos)
        throw base::FAILURE(strPath + ": an onconfig takes no path with a blank or \"#\"");
    return strPath;
}

template <typename FUNCTION> FUNCTION Find(void *vpLibrary, const char *cpName)
{
    void *vpSymbol = dlsym(vpLibrary, cpName);
    if (vpSymbol == nullptr) throw base::FAILURE(std::string("the library lacks ") + cpName);
    return reinterpret_cast<FUNCTION>(vpSymbol);
}

// The provider's name has three parts: its house, the storage manager, and its version.
std::string VersionsRow(void *vpLibrary)
{
    BSA_ApiVersion sApi{};
    std::array<char, 16> szProvider{};
    std::array<char, 2> szDelimiter{};
    BSA_UInt32 uiSize = szProvider.size();
    const int iApi = Find<decltype(&BSAQueryApiVersion)>(vpLibrary, "BSAQueryApiVersion")(&sApi);
    const int iProvider = Find<decltype(&BSAQueryServiceProvider)>(
        vpLibrary, "BSAQueryServiceProvider")(&uiSize, szDelimiter.data(), szProvider.data());
    std::istringstream sParts(szProvider.data());
    std::string strHouse;
    std::string strName;
    std::string strVersion;
    std::getline(sParts, strHouse, szDelimiter[0]);
    std::getline(sParts, strName, szDelimiter[0]);
    std::getline(sParts, strVersion);
    if (iApi != BSA_RC_SUCCESS || iProvider != BSA_RC_SUCCESS || strVersion.empty())
        throw base::FAILURE("the library does not tell its provider and version");
    std::ostringstream sRow;
    sRow << "1|" << sApi.issue << '.' << sApi.version << '.' << sApi.level << '|' << strName << '|'
         << strVersion << '|';
    return sRow.str();
}
} // namespace

GUEST FindGuest(const std::string &I_strLibrary)
{
    const library::LIBRARY sLibrary = library::Load(I_strLibrary);
    Dl_info sInfo{};
    if (dladdr(reinterpret_cast<void *>(sLibrary.fpInit), &sInfo) == 0 ||
        sInfo.dli_fname == nullptr)
        throw base::FAILURE("the library's path is not known");
    void *vpLibrary = dlopen(sInfo.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    if (vpLibrary == nullptr) throw base::FAILURE("the library's path is not known");
    return {AbsolutePath(sInfo.dli_fname), VersionsRow(vpLibrary)};
}

void WarnOfClosedPath(const std::string &I_strLibrary)
{
    for (size_t uSlash = I_strLibrary.find('/', 1);; uSlash = I_strLibrary.find('/', uSlash + 1))
    {
        const std::string strPath = I_strLibrary.substr(0, uSlash);
        struct stat sStat
        {
        };
        const mode_t uNeeded = uSlash == std::string::npos ? S_IROTH : S_IXOTH;
        if (stat(strPath.c_str(), &sStat) == 0 && (sStat.st_mode & uNeeded) == 0)
            std::cout << "# " << base::Printable(strPath)
                      << " is not open to every account: see that the database's "
                      << "account can read the library\n";
        if (uSlash == std::string::npos) return;
    }
}
} // namespace setup
