#include "library/library.h"

#include <dlfcn.h>

#include <array>
#include <climits>
#include <filesystem>

#include "xbsa_session.h"

namespace library
{
namespace
{
std::string LoaderText()
{
    const char *cpText = dlerror();
    return cpText != nullptr ? cpText : "no reason given";
}
} // namespace

std::string Path(const std::string &I_strPath)
{
    if (!I_strPath.empty()) return I_strPath;
    std::error_code sError;
    const auto sTool = std::filesystem::read_symlink("/proc/self/exe", sError).parent_path();
    for (const char *cpFolder : {"lib", XBSACTL_LIBDIR, XBSACTL_MULTIARCH, "lib64"})
    {
        const auto sPath = sTool / ".." / cpFolder / XBSACTL_LIBRARY;
        if (!sError && std::filesystem::exists(sPath, sError)) return sPath.string();
    }
    return XBSACTL_LIBRARY;
}

std::vector<std::string> ClosedParts(const std::string &I_strPath)
{
    using std::filesystem::perms;
    std::vector<std::string> vecClosed;
    std::filesystem::path sPath;
    for (const auto &sPart : std::filesystem::path(I_strPath))
    {
        sPath /= sPart;
        const perms eNeeded = sPath == I_strPath ? perms::others_read : perms::others_exec;
        std::error_code sError;
        const auto sStatus = std::filesystem::status(sPath, sError);
        if (!sError && (sStatus.permissions() & eNeeded) == perms::none) vecClosed.push_back(sPath);
    }
    return vecClosed;
}

void *Load(const std::string &I_strPath)
{
    void *vpLibrary = dlopen(Path(I_strPath).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (vpLibrary == nullptr) throw base::FileFailure("library cannot be loaded: " + LoaderText());
    for (const char *cpCall : CALLS) Symbol(vpLibrary, cpCall);
    return vpLibrary;
}

void *Symbol(void *vpLibrary, const char *cpName)
{
    void *vpSymbol = dlsym(vpLibrary, cpName);
    if (vpSymbol == nullptr)
        throw base::FileFailure("this is not the Korva XBSA library: " + LoaderText());
    return vpSymbol;
}

std::string UtilityPath(void *vpLibrary)
{
    std::array<char, PATH_MAX> szPath{};
    unsigned uSize = szPath.size();
    const int iRet = LIBRARY_SYMBOL(vpLibrary, find_com_intf)(szPath.data(), &uSize);
    return iRet == 0 ? szPath.data() : "";
}

// The provider's name has three parts: the vendor, the storage manager, and its version.
std::string VersionsRow(void *vpLibrary)
{
    BSA_ApiVersion sApi{};
    std::array<char, 16> szProvider{};
    std::array<char, 2> szDelimiter{};
    BSA_UInt32 uiSize = szProvider.size();
    const int iApi = LIBRARY_SYMBOL(vpLibrary, BSAQueryApiVersion)(&sApi);
    const int iProvider = LIBRARY_SYMBOL(vpLibrary, BSAQueryServiceProvider)(
        &uiSize, szDelimiter.data(), szProvider.data());
    std::string strProvider = szProvider.data();
    const size_t uName = strProvider.find(szDelimiter[0]) + 1;
    const size_t uEnd = strProvider.find(szDelimiter[0], uName);
    if (iApi != BSA_RC_SUCCESS || iProvider != BSA_RC_SUCCESS || uName == 0 ||
        uEnd >= strProvider.size() - 1)
        throw base::FAILURE("the library does not report its provider and version");
    strProvider[uEnd] = '|';
    return base::Text("1|", sApi.issue, '.', sApi.version, '.', sApi.level, '|',
                      strProvider.substr(uName), '|');
}
} // namespace library
