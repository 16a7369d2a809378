#include "library/library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <climits>

namespace library
{
namespace
{
std::string OwnFolder()
{
    std::array<char, PATH_MAX> szPath{};
    const ssize_t iLen = readlink("/proc/self/exe", szPath.data(), szPath.size());
    if (iLen <= 0) return "";
    const std::string strPath(szPath.data(), static_cast<size_t>(iLen));
    return strPath.substr(0, strPath.rfind('/'));
}

std::string DefaultLibrary()
{
    const std::string strFolder = OwnFolder();
    for (const char *cpFolder : {"lib", XBSACTL_LIBDIR, XBSACTL_MULTIARCH, "lib64"})
    {
        std::string strPath = strFolder + "/../" + cpFolder + "/" + XBSACTL_LIBRARY;
        if (access(strPath.c_str(), F_OK) == 0) return strPath;
    }
    return XBSACTL_LIBRARY;
}

std::string LoaderText()
{
    const char *cpText = dlerror();
    return cpText != nullptr ? cpText : "no reason given";
}

template <typename FUNCTION> void Find(void *vpLibrary, const char *cpName, FUNCTION &I_fpTarget)
{
    void *vpSymbol = dlsym(vpLibrary, cpName);
    if (vpSymbol == nullptr) throw base::FAILURE("library is not usable: " + LoaderText());
    I_fpTarget = reinterpret_cast<FUNCTION>(vpSymbol);
}
} // namespace

std::string Path(const std::string &I_strPath)
{
    return I_strPath.empty() ? DefaultLibrary() : I_strPath;
}

LIBRARY Load(const std::string &I_strPath)
{
    const std::string strPath = Path(I_strPath);
    void *vpLibrary = dlopen(strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (vpLibrary == nullptr) throw base::FAILURE("library cannot be loaded: " + LoaderText());

    LIBRARY sLibrary;
    Find(vpLibrary, "BSAInit", sLibrary.fpInit);
    Find(vpLibrary, "BSATerminate", sLibrary.fpTerminate);
    Find(vpLibrary, "BSABeginTxn", sLibrary.fpBeginTxn);
    Find(vpLibrary, "BSAEndTxn", sLibrary.fpEndTxn);
    Find(vpLibrary, "BSACreateObject", sLibrary.fpCreateObject);
    Find(vpLibrary, "BSASendData", sLibrary.fpSendData);
    Find(vpLibrary, "BSAEndData", sLibrary.fpEndData);
    Find(vpLibrary, "BSAGetObject", sLibrary.fpGetObject);
    Find(vpLibrary, "BSAGetData", sLibrary.fpGetData);
    Find(vpLibrary, "BSAQueryObject", sLibrary.fpQueryObject);
    Find(vpLibrary, "BSAGetNextQueryObject", sLibrary.fpGetNextQueryObject);
    Find(vpLibrary, "BSAGetLastError", sLibrary.fpGetLastError);
    Find(vpLibrary, "BSASetTrace", sLibrary.fpSetTrace);
    sLibrary.fpTypeErr =
        reinterpret_cast<decltype(sLibrary.fpTypeErr)>(dlsym(vpLibrary, "xbsa_typeerr"));
    return sLibrary;
}
} // namespace library
