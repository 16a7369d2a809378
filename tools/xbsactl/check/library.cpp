#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "check/steps.h"
#include "library/library.h"

namespace check
{
namespace
{
constexpr std::chrono::seconds LOADING{15};
constexpr const char *INSTALL = "install the library, or name it with --library PATH";

// The calls of the interface.
constexpr const char *CALLS =
    "BSAInit BSATerminate BSABeginTxn BSAEndTxn BSACreateObject BSASendData BSAEndData "
    "BSAGetObject "
    "BSAGetData BSAQueryObject BSAGetNextQueryObject BSAGetLastError BSAQueryApiVersion "
    "BSAQueryServiceProvider BSADeleteObject BSAGetEnvironment";
constexpr const char *OWN_CALLS =
    " BSASetTrace find_com_intf"; // this library's: the tool needs them

struct ELF_KIND
{
    int iBits = 0; // 0: not a shared library
    int iMachine = 0;

    bool operator==(const ELF_KIND &I_sOther) const
    {
        return iBits == I_sOther.iBits && iMachine == I_sOther.iMachine;
    }
};

ELF_KIND ReadKind(const std::string &I_strPath)
{
    std::ifstream sFile(I_strPath, std::ios::binary);
    std::array<char, EI_NIDENT + 4> acHead{}; // the machine comes after the type
    sFile.read(acHead.data(), acHead.size());
    if (!sFile || std::string(acHead.data(), SELFMAG) != ELFMAG) return {};

    const auto ucFirst = static_cast<unsigned char>(acHead[EI_NIDENT + 2]);
    const auto ucSecond = static_cast<unsigned char>(acHead[EI_NIDENT + 3]);
    const bool bLittle = acHead[EI_DATA] == ELFDATA2LSB;
    return {acHead[EI_CLASS] == ELFCLASS64 ? 64 : 32,
            bLittle ? ucFirst + 256 * ucSecond : ucSecond + 256 * ucFirst};
}

std::string Describe(const ELF_KIND &I_sKind)
{
    struct MACHINE
    {
        int iMachine;
        const char *cpName;
    };
    constexpr std::array<MACHINE, 6> MACHINES = {{{EM_386, "Intel 386"},
                                                  {EM_X86_64, "x86-64"},
                                                  {EM_ARM, "ARM"},
                                                  {EM_AARCH64, "ARM 64"},
                                                  {EM_PPC64, "POWER"},
                                                  {EM_S390, "S/390"}}};
    std::string strName = "machine " + std::to_string(I_sKind.iMachine);
    for (const MACHINE &sMachine : MACHINES)
        if (sMachine.iMachine == I_sKind.iMachine) strName = sMachine.cpName;
    return std::to_string(I_sKind.iBits) + " bit, " + strName;
}

void *Open(const std::string &I_strPath)
{
    void *vpLibrary = dlopen(I_strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (vpLibrary != nullptr) return vpLibrary;
    const char *cpText = dlerror();
    throw base::FAILURE(cpText != nullptr ? cpText : "no reason given");
}

// Where the loader finds a name without a folder.
void Locate(const std::string &I_strName, const SAY &I_fpSay)
{
    link_map *spMap = nullptr;
    if (dlinfo(Open(I_strName), RTLD_DI_LINKMAP, &spMap) != 0)
        throw base::FAILURE("not to be located");
    I_fpSay("path", spMap->l_name);
}

// The library's trace is left alone: a check of the library needs no log.
void Inspect(const std::string &I_strPath, const SAY &I_fpSay)
{
    unsetenv("XBSA_TRACE");
    void *vpLibrary = Open(I_strPath);
    std::string strMissing;
    std::istringstream sCalls(std::string(CALLS) + OWN_CALLS);
    for (std::string strCall; sCalls >> strCall;)
        if (dlsym(vpLibrary, strCall.c_str()) == nullptr) strMissing += " " + strCall;
    I_fpSay("missing", strMissing);
    if (strMissing.empty()) I_fpSay("row", library::VersionsRow(vpLibrary));
}

class CInspection
{
  public:
    explicit CInspection(const std::string &I_strLibrary) : strPath(library::Path(I_strLibrary))
    {
    }

    CHECKED_LIBRARY Run(CReport &X_sReport)
    {
        sResult.bUsable = Climb<CInspection>(X_sReport, *this,
                                             {{"library.file", &CInspection::File},
                                              {"library.load", &CInspection::Load},
                                              {"library.calls", &CInspection::Calls},
                                              {"library.version", &CInspection::Version}});
        return sResult;
    }

  private:
    // A database of this machine loads what this tool can load.
    FINDING File()
    {
        if (strPath.find('/') == std::string::npos)
        {
            const OUTCOME sFound =
                RunChild(LOADING, [this](const SAY &I_fpSay) { Locate(strPath, I_fpSay); });
            if (!sFound.strFailure.empty()) return Fail(sFound.strFailure, INSTALL);
            strPath = sFound.Value("path");
        }
        std::error_code sError;
        sResult.strPath = std::filesystem::canonical(strPath, sError);
        return sError ? Fail(strPath + ": " + sError.message(), INSTALL) : Kind();
    }

    FINDING Kind() const
    {
        const ELF_KIND sOwn = ReadKind("/proc/self/exe");
        const ELF_KIND sKind = ReadKind(sResult.strPath);
        const std::string strFile =
            strPath + (strPath == sResult.strPath ? "" : " -> " + sResult.strPath);
        if (sKind.iBits == 0)
            return Fail(strFile + ": not a shared library, or unreadable",
                        "install the library again, readable for everybody");
        if (sKind == sOwn) return Ok(strFile + ", " + Describe(sKind));
        return Fail(strFile + " is " + Describe(sKind) + ", but this system's programs are " +
                        Describe(sOwn),
                    "install the library that is built for " + Describe(sOwn));
    }

    FINDING Load()
    {
        sAnswer = RunChild(LOADING, [this](const SAY &I_fpSay) { Inspect(strPath, I_fpSay); });
        if (sAnswer.Find("missing") != nullptr) return Ok("loaded");
        return Fail(sAnswer.strFailure, "install the library again; ldd shows what it needs");
    }

    FINDING Calls()
    {
        const std::string strMissing = sAnswer.Value("missing");
        if (strMissing.empty()) return Ok("all 16 are there");
        return Fail("missing:" + strMissing,
                    "this is not a library for backups, or another one: install Korva's");
    }

    FINDING Version()
    {
        sResult.strRow = sAnswer.Value("row");
        if (!sResult.strRow.empty()) return Ok("row for sm_versions: " + sResult.strRow);
        return Fail(sAnswer.strFailure, "name the library that you mean with --library PATH");
    }

    std::string strPath;
    CHECKED_LIBRARY sResult;
    OUTCOME sAnswer;
};
} // namespace

CHECKED_LIBRARY CheckLibrary(CReport &X_sReport, const std::string &I_strLibrary)
{
    return CInspection(I_strLibrary).Run(X_sReport);
}
} // namespace check
