#include <dlfcn.h>
#include <elf.h>
#include <endian.h>
#include <link.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "check/parts.h"
#include "library/library.h"

namespace check
{
namespace
{
constexpr std::chrono::seconds LOADING{15};

// "64 bit, x86-64"; empty for a file that is not an ELF program or library.
std::string KindOf(const std::string &I_strPath)
{
    static const std::map<int, const char *> MACHINES = {
        {EM_386, "Intel 386"},  {EM_X86_64, "x86-64"}, {EM_ARM, "ARM"},
        {EM_AARCH64, "ARM 64"}, {EM_PPC64, "POWER"},   {EM_S390, "S/390"}};
    std::ifstream sFile(I_strPath, std::ios::binary);
    Elf32_Ehdr sHead{}; // as far as the machine the one of 64 bit is the same
    sFile.read(reinterpret_cast<char *>(&sHead), sizeof sHead);
    const std::string strIdentity(sHead.e_ident, sHead.e_ident + EI_NIDENT);
    if (!sFile || !strIdentity.starts_with(ELFMAG)) return "";

    const bool bLittle = strIdentity[EI_DATA] == ELFDATA2LSB;
    const int iMachine = bLittle ? le16toh(sHead.e_machine) : be16toh(sHead.e_machine);
    const auto sName = MACHINES.find(iMachine);
    return Text(strIdentity[EI_CLASS] == ELFCLASS64 ? "64 bit, " : "32 bit, ",
                sName != MACHINES.end() ? sName->second : Text("machine ", iMachine));
}

// Loads it in a child, without a trace.
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

// A database of this machine loads what this tool can load.
//   X_strPath  gets the library's own name in a directory without links: it survives an update
//   X_strReal  gets the path without any link
FINDING File(const std::string &I_strPath, std::string &X_strPath, std::string &X_strReal)
{
    std::error_code sError;
    X_strReal = std::filesystem::canonical(I_strPath, sError);
    if (sError) return Fail(I_strPath + ": " + sError.message());
    const std::filesystem::path sFile = I_strPath;
    X_strPath = std::filesystem::canonical(sFile.parent_path()) / sFile.filename();

    const std::string strFile = I_strPath == X_strReal ? I_strPath : I_strPath + " -> " + X_strReal;
    const std::string strOwn = KindOf("/proc/self/exe");
    const std::string strKind = KindOf(X_strReal);
    if (strKind.empty()) return Fail(strFile + ": not a shared library, or unreadable");
    if (strKind == strOwn) return Ok(strFile + ", " + strKind);
    return Fail(Text(strFile, " is ", strKind, ", but this system's programs are ", strOwn),
                "install the library that is built for " + strOwn);
}

FINDING Rights(const std::string &I_strPath, bool I_bDatabase)
{
    const std::vector<std::string> vecClosed = library::ClosedParts(I_strPath);
    if (vecClosed.empty()) return Ok("every account can read it");
    const std::string strFound = vecClosed.front() + " is not open to every account";
    return I_bDatabase ? Warn(strFound) : Ok(strFound);
}
} // namespace

CHECKED_LIBRARY CheckLibrary(CReport &X_sReport, const std::string &I_strLibrary, bool I_bDatabase)
{
    CHECKED_LIBRARY sResult;
    std::string strPath = library::Path(I_strLibrary);
    std::string strReal;
    const OUTCOME sAnswer = RunChild(LOADING, [&](const SAY &fpSay) { Inspect(strPath, fpSay); });
    const std::string strMissing = sAnswer.Value("missing");
    const auto fpSaid = [&](const char *cpName, const std::string &strFound) {
        return sAnswer.Find(cpName) != nullptr ? Ok(strFound) : Fail(sAnswer.strFailure);
    };
    const auto fpFile = [&] {
        if (strPath.find('/') == std::string::npos) strPath = sAnswer.Value("path"); // the loader's
        return strPath.empty() ? Fail(sAnswer.strFailure) : File(strPath, sResult.strPath, strReal);
    };
    const auto fpCalls = [&] {
        return strMissing.empty() ? Ok("all 16 calls are present") : Fail("missing:" + strMissing);
    };
    const auto fpVersion = [&] {
        sResult.strRow = sAnswer.Value("row");
        return fpSaid("row", "row for sm_versions: " + sResult.strRow);
    };
    sResult.bUsable =
        X_sReport.Climb({{"library.file", fpFile},
                         {"library.rights", [&] { return Rights(strReal, I_bDatabase); }},
                         {"library.load", [&] { return fpSaid("missing", "loaded"); }},
                         {"library.calls", fpCalls},
                         {"library.version", fpVersion}});
    return sResult;
}
} // namespace check
