#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "check/parts.h"
#include "library/library.h"

namespace check
{
namespace
{
constexpr std::chrono::seconds LOADING{15};

// "64 bit, x86-64"; empty for what is not a program or library of this kind of system.
std::string KindOf(const std::string &I_strPath)
{
    constexpr std::array<std::pair<int, const char *>, 6> MACHINES = {{{EM_386, "Intel 386"},
                                                                       {EM_X86_64, "x86-64"},
                                                                       {EM_ARM, "ARM"},
                                                                       {EM_AARCH64, "ARM 64"},
                                                                       {EM_PPC64, "POWER"},
                                                                       {EM_S390, "S/390"}}};
    std::ifstream sFile(I_strPath, std::ios::binary);
    std::array<char, EI_NIDENT + 4> acHead{}; // the machine comes after the type
    sFile.read(acHead.data(), acHead.size());
    if (!sFile || std::string(acHead.data(), SELFMAG) != ELFMAG) return "";

    const int iFirst = static_cast<unsigned char>(acHead[EI_NIDENT + 2]);
    const int iSecond = static_cast<unsigned char>(acHead[EI_NIDENT + 3]);
    const int iMachine =
        acHead[EI_DATA] == ELFDATA2LSB ? iFirst + 256 * iSecond : iSecond + 256 * iFirst;
    const auto *spName =
        std::ranges::find(MACHINES, iMachine, &std::pair<int, const char *>::first);
    return Text(acHead[EI_CLASS] == ELFCLASS64 ? "64 bit, " : "32 bit, ",
                spName != MACHINES.end() ? spName->second : Text("machine ", iMachine));
}

// What the loader makes of it; in a child, whose trace is left alone: this needs no log.
void Inspect(const std::string &I_strPath, const SAY &I_fpSay)
{
    unsetenv("XBSA_TRACE");
    link_map *spMap = nullptr;
    void *vpLibrary = dlopen(I_strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (vpLibrary == nullptr) throw base::FAILURE(dlerror());
    if (dlinfo(vpLibrary, RTLD_DI_LINKMAP, &spMap) == 0) I_fpSay("path", spMap->l_name);
    std::string strMissing;
    for (const char *cpCall : library::CALLS)
        if (dlsym(vpLibrary, cpCall) == nullptr) strMissing += Text(' ', cpCall);
    I_fpSay("missing", strMissing);
    if (strMissing.empty()) I_fpSay("row", library::VersionsRow(vpLibrary));
}

struct INSPECTION
{
    std::string strPath;
    bool bDatabase; // loads it as an account of its own
    OUTCOME sAnswer{};
    CHECKED_LIBRARY sResult{};
    std::string strReal{}; // links resolved

    // A database of this machine loads what this tool can load.
    FINDING File()
    {
        std::error_code sError;
        if (strPath.find('/') == std::string::npos) strPath = sAnswer.Value("path"); // the loader's
        if (strPath.empty()) return Fail(sAnswer.strFailure);
        strReal = std::filesystem::canonical(strPath, sError);
        if (sError) return Fail(strPath + ": " + sError.message());
        const std::filesystem::path sFile = strPath; // its own name outlives an update
        sResult.strPath = std::filesystem::canonical(sFile.parent_path()) / sFile.filename();

        const std::string strFile = strPath == strReal ? strPath : strPath + " -> " + strReal;
        const std::string strOwn = KindOf("/proc/self/exe");
        const std::string strKind = KindOf(strReal);
        if (strKind.empty()) return Fail(strFile + ": not a shared library, or unreadable");
        if (strKind == strOwn) return Ok(strFile + ", " + strKind);
        return Fail(Text(strFile, " is ", strKind, ", but this system's programs are ", strOwn),
                    "install the library that is built for " + strOwn);
    }

    FINDING Rights() const
    {
        const std::vector<std::string> vecClosed = library::ClosedParts(strReal);
        if (vecClosed.empty()) return Ok("every account can read it");
        const std::string strFound = vecClosed.front() + " is not open to every account";
        return bDatabase ? Warn(strFound) : Ok(strFound);
    }

    FINDING Load()
    {
        return sAnswer.Find("missing") != nullptr ? Ok("loaded") : Fail(sAnswer.strFailure);
    }

    FINDING Calls()
    {
        const std::string strMissing = sAnswer.Value("missing");
        return strMissing.empty() ? Ok("all 16 are there") : Fail("missing:" + strMissing);
    }

    FINDING Version()
    {
        sResult.strRow = sAnswer.Value("row");
        return sResult.strRow.empty() ? Fail(sAnswer.strFailure)
                                      : Ok("row for sm_versions: " + sResult.strRow);
    }
};
} // namespace

CHECKED_LIBRARY CheckLibrary(CReport &X_sReport, const std::string &I_strLibrary, bool I_bDatabase)
{
    INSPECTION sLibrary{library::Path(I_strLibrary), I_bDatabase};
    sLibrary.sAnswer =
        RunChild(LOADING, [&](const SAY &fpSay) { Inspect(sLibrary.strPath, fpSay); });
    sLibrary.sResult.bUsable =
        X_sReport.Climb({{"library.file", [&] { return sLibrary.File(); }},
                         {"library.rights", [&] { return sLibrary.Rights(); }},
                         {"library.load", [&] { return sLibrary.Load(); }},
                         {"library.calls", [&] { return sLibrary.Calls(); }},
                         {"library.version", [&] { return sLibrary.Version(); }}});
    return sLibrary.sResult;
}
} // namespace check
