#include "check/library.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "base/base.h"
#include "check/child.h"
#include "library/library.h"

namespace
{
constexpr std::chrono::seconds LOADING{15};

// The calls of the interface; BSASetTrace is this library's own and needed by the tool.
constexpr std::array<const char *, 16> CALLS = {"BSAInit",
                                                "BSATerminate",
                                                "BSABeginTxn",
                                                "BSAEndTxn",
                                                "BSACreateObject",
                                                "BSASendData",
                                                "BSAEndData",
                                                "BSAGetObject",
                                                "BSAGetData",
                                                "BSAQueryObject",
                                                "BSAGetNextQueryObject",
                                                "BSAGetLastError",
                                                "BSAQueryApiVersion",
                                                "BSAQueryServiceProvider",
                                                "BSADeleteObject",
                                                "BSAGetEnvironment"};

struct ELF_KIND
{
    bool bElf = false;
    int iBits = 0;
    int iMachine = 0;
};

ELF_KIND ReadKind(const std::string &I_strPath)
{
    std::ifstream sFile(I_strPath, std::ios::binary);
    std::array<char, EI_NIDENT + 4> acHead{}; // the machine stands behind the type
    sFile.read(acHead.data(), acHead.size());
    if (!sFile || std::string(acHead.data(), SELFMAG) != ELFMAG) return {};

    const auto ucFirst = static_cast<unsigned char>(acHead[EI_NIDENT + 2]);
    const auto ucSecond = static_cast<unsigned char>(acHead[EI_NIDENT + 3]);
    const bool bLittle = acHead[EI_DATA] == ELFDATA2LSB;
    return {true, acHead[EI_CLASS] == ELFCLASS64 ? 64 : 32,
            bLittle ? ucFirst + 256 * ucSecond : ucSecond + 256 * ucFirst};
}

std::string Describe(const ELF_KIND &I_sKind)
{
    const std::string strBits = std::to_string(I_sKind.iBits) + " bit, ";
    switch (I_sKind.iMachine)
    {
    case EM_386:
        return strBits + "Intel 386";
    case EM_X86_64:
        return strBits + "x86-64";
    case EM_ARM:
        return strBits + "ARM";
    case EM_AARCH64:
        return strBits + "ARM 64";
    case EM_PPC64:
        return strBits + "POWER";
    case EM_S390:
        return strBits + "S/390";
    default:
        return strBits + "machine " + std::to_string(I_sKind.iMachine);
    }
}

void *Load(const std::string &I_strPath)
{
    void *vpLibrary = dlopen(I_strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (vpLibrary != nullptr) return vpLibrary;
    const char *cpText = dlerror();
    throw base::FAILURE(cpText != nullptr ? cpText : "no reason given");
}

// Where the loader finds a name without a folder.
RESULT Locate(const std::string &I_strName)
{
    link_map *spMap = nullptr;
    if (dlinfo(Load(I_strName), RTLD_DI_LINKMAP, &spMap) != 0)
        throw base::FAILURE("not to be located");
    return {{"path", spMap->l_name}};
}

// Version and provider, as the database's tool asks for them at its start. The library's trace is
// left alone: a check of the library needs no log.
void Ask(void *vpLibrary, RESULT &I_sAnswer)
{
    unsetenv("XBSA_TRACE");
    BSA_ApiVersion sVersion{};
    BSA_UInt32 uiSize = 255;
    std::array<char, 256> szProvider{};
    std::array<char, 16> szDelimiter{};
    const auto fpVersion =
        reinterpret_cast<decltype(&BSAQueryApiVersion)>(dlsym(vpLibrary, "BSAQueryApiVersion"));
    const auto fpProvider = reinterpret_cast<decltype(&BSAQueryServiceProvider)>(
        dlsym(vpLibrary, "BSAQueryServiceProvider"));
    if (fpVersion(&sVersion) != 0 ||
        fpProvider(&uiSize, szDelimiter.data(), szProvider.data()) != 0)
        throw base::FAILURE("the library does not tell its version");
    I_sAnswer["version"] = std::to_string(sVersion.issue) + "." + std::to_string(sVersion.version) +
                           "." + std::to_string(sVersion.level);
    I_sAnswer["provider"] = szProvider.data();
    I_sAnswer["delimiter"] = szDelimiter.data();
}

RESULT Inspect(const std::string &I_strPath)
{
    void *vpLibrary = Load(I_strPath);
    RESULT sAnswer = {{"missing", ""}};
    std::string strMissing;
    for (const char *cpCall : CALLS)
        if (dlsym(vpLibrary, cpCall) == nullptr) strMissing += std::string(" ") + cpCall;
    if (dlsym(vpLibrary, "BSASetTrace") == nullptr) strMissing += " BSASetTrace";
    if (strMissing.empty()) Ask(vpLibrary, sAnswer);
    sAnswer["missing"] = strMissing;
    return sAnswer;
}

std::string RealPath(const std::string &I_strPath)
{
    std::array<char, PATH_MAX> szPath{};
    return realpath(I_strPath.c_str(), szPath.data()) != nullptr ? szPath.data() : "";
}

// "1|1.0.1|KORVA|1.8A1": a number, the interface's version, the storage manager and its version,
// as the provider names them behind its maker.
std::string RowFor(const std::string &I_strVersion, const std::string &I_strProvider,
                   const std::string &I_strDelimiter)
{
    std::vector<std::string> vecParts(1);
    for (const char cChar : I_strProvider)
    {
        if (I_strDelimiter.find(cChar) != std::string::npos) vecParts.emplace_back();
        else vecParts.back() += cChar;
    }
    return vecParts.size() == 3 ? "1|" + I_strVersion + "|" + vecParts[1] + "|" + vecParts[2] + "|"
                                : "";
}

class CInspection
{
  public:
    CInspection(CReport &I_sReport, const base::CONNECTION &I_sConnection)
        : sReport(I_sReport), strPath(library::Path(I_sConnection.strLibrary))
    {
    }

    CHECKED_LIBRARY Run()
    {
        if (!Find() || !Kind())
        {
            sReport.NotTried("library.load", "an earlier step failed");
            sReport.NotTried("library.calls", "an earlier step failed");
            sReport.NotTried("library.version", "an earlier step failed");
            return sResult;
        }
        Load();
        return sResult;
    }

  private:
    bool Find()
    {
        try
        {
            if (strPath.find('/') == std::string::npos)
                strPath = CChild([this] { return Locate(strPath); }).Wait(LOADING).at("path");
        } catch (const base::FAILURE &sError)
        {
            sReport.Fail("library.file", sError.what(),
                         "install the library, or name it with --library PATH");
            return false;
        }
        sResult.strPath = RealPath(strPath);
        if (!sResult.strPath.empty()) return true;
        sReport.Fail("library.file", base::SystemFailure(strPath).what(),
                     "install the library, or name it with --library PATH");
        return false;
    }

    // A database of this machine loads what this tool can load.
    bool Kind()
    {
        const ELF_KIND sOwn = ReadKind("/proc/self/exe");
        const ELF_KIND sKind = ReadKind(sResult.strPath);
        const std::string strFile =
            strPath + (strPath == sResult.strPath ? "" : " -> " + sResult.strPath);
        if (!sKind.bElf)
        {
            sReport.Fail("library.file", strFile + ": no shared library, or unreadable",
                         "install the library again, readable for everybody");
            return false;
        }
        const bool bFits = sKind.iBits == sOwn.iBits && sKind.iMachine == sOwn.iMachine;
        if (bFits) sReport.Ok("library.file", strFile + ", " + Describe(sKind));
        else
            sReport.Fail("library.file",
                         strFile + " is " + Describe(sKind) + ", but this system's programs are " +
                             Describe(sOwn),
                         "install the library that is built for " + Describe(sOwn));
        return bFits;
    }

    void Load()
    {
        RESULT sAnswer;
        try
        {
            sAnswer = CChild([this] { return Inspect(strPath); }).Wait(LOADING);
        } catch (const base::FAILURE &sError)
        {
            sReport.Fail("library.load", sError.what(),
                         "install the library again; ldd shows what it needs");
            sReport.NotTried("library.calls", "the library cannot be loaded");
            sReport.NotTried("library.version", "the library cannot be loaded");
            return;
        }
        sReport.Ok("library.load", "loaded");
        Calls(sAnswer);
    }

    void Calls(const RESULT &I_sAnswer)
    {
        const std::string strMissing = I_sAnswer.at("missing");
        if (!strMissing.empty())
        {
            sReport.Fail("library.calls", "missing:" + strMissing,
                         "this is no library for backups, or another one: install Korva's");
            sReport.NotTried("library.version", "calls are missing");
            return;
        }
        sReport.Ok("library.calls", "all " + std::to_string(CALLS.size()) + " are there");
        sResult.strRow =
            RowFor(I_sAnswer.at("version"), I_sAnswer.at("provider"), I_sAnswer.at("delimiter"));
        const std::string strFound =
            "interface " + I_sAnswer.at("version") + ", provider " + I_sAnswer.at("provider");
        if (sResult.strRow.empty())
            sReport.Warn("library.version", strFound + ": not Korva's",
                         "name the library that you mean with --library PATH");
        else sReport.Ok("library.version", strFound + ", row for sm_versions: " + sResult.strRow);
        sResult.bUsable = true;
    }

    CReport &sReport;
    std::string strPath;
    CHECKED_LIBRARY sResult;
};
} // namespace

CHECKED_LIBRARY check_Library(CReport &I_sReport, const base::CONNECTION &I_sConnection)
{
    return CInspection(I_sReport, I_sConnection).Run();
}
