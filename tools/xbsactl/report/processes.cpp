// Finds the processes that have the library loaded, whatever its file is called, and copies what is
// shown from their records: never the login.
#include "report/live.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>

#include "base/base.h"

namespace report
{
namespace
{
constexpr size_t MOST_MAPS = size_t{64} << 20; // bytes of a list

constexpr uint64_t SESSION_AT = offsetof(_sGlobal, sSession);
constexpr uint64_t NAME_AT = offsetof(_sGlobal, sObject) + offsetof(_sObject, sBSA_Object) +
                             offsetof(BSA_ObjectDescriptor, objectName);

using KNOWN = std::unordered_map<std::string, EXPORTS>;

struct MAPPING
{
    uint64_t uStart = 0;
    uint64_t uEnd = 0;
    uint64_t uOffset = 0; // in the file
    std::string_view svMode;
    std::string_view svFile; // device, inode and path
};
using MAPPINGS = std::vector<MAPPING>;

struct RECORD
{
    uint64_t uAddress;
    uint64_t uSize;
    bool bCalls; // the file that holds it exports the calls too
};

// What is known of files from the previous scan, and from this one.
struct FILES
{
    KNOWN mapBefore;
    KNOWN mapNow;
};

std::string Link(int I_iFolder, const std::string &I_strName)
{
    std::array<char, PATH_MAX> caText{};
    const ssize_t iLength = readlinkat(I_iFolder, I_strName.c_str(), caText.data(), caText.size());
    return {caText.data(), static_cast<size_t>(std::max<ssize_t>(iLength, 0))};
}

// Returns false with errno; a process that ended has an empty list, or none.
bool ReadFile(int I_iFolder, const char *cpName, std::string &X_strText)
{
    const base::CDescriptor sFile(openat(I_iFolder, cpName, O_RDONLY | O_CLOEXEC));
    X_strText.clear();
    std::array<char, 16384> caPart{};
    ssize_t iRead = sFile.Get();
    while (iRead != -1 && X_strText.size() < MOST_MAPS)
    {
        iRead = read(sFile.Get(), caPart.data(), caPart.size());
        if (iRead == 0) return true;
        if (iRead > 0) X_strText.append(caPart.data(), static_cast<size_t>(iRead));
    }
    return false;
}

// Every account may read the second name, which is cut to 15 bytes.
std::string Program(int I_iFolder)
{
    constexpr std::string_view DELETED = " (deleted)";
    std::string strName = Link(I_iFolder, "exe");
    if (strName.ends_with(DELETED)) strName.resize(strName.size() - DELETED.size());
    if (!strName.empty()) return strName.substr(strName.rfind('/') + 1);
    ReadFile(I_iFolder, "comm", strName);
    return strName.substr(0, strName.find('\n'));
}

uint64_t Socket(int I_iFolder, int I_iNumber)
{
    const auto strInode = base::After(Link(I_iFolder, base::Text("fd/", I_iNumber)), "socket:[");
    uint64_t uInode = 0;
    if (strInode) std::from_chars(strInode->data(), strInode->data() + strInode->size(), uInode);
    return uInode;
}

uint64_t TakeHex(std::string_view &X_svText)
{
    uint64_t uValue = 0;
    const char *cpEnd = X_svText.data() + X_svText.size();
    const char *cpRest = std::from_chars(X_svText.data(), cpEnd, uValue, 16).ptr;
    X_svText = {cpRest, static_cast<size_t>(cpEnd - cpRest)};
    X_svText.remove_prefix(std::min<size_t>(1, X_svText.size())); // the separator
    return uValue;
}

std::vector<pid_t> Pids()
{
    std::vector<pid_t> vecPids;
    const std::unique_ptr<DIR, int (*)(DIR *)> spFolder(opendir("/proc"), closedir);
    if (!spFolder) throw base::SystemFailure("/proc");
    while (const dirent *spEntry = readdir(spFolder.get()))
    {
        pid_t iPid = 0;
        const char *cpEnd = spEntry->d_name + strlen(spEntry->d_name);
        const auto sResult = std::from_chars(spEntry->d_name, cpEnd, iPid);
        if (sResult.ptr == cpEnd && iPid != getpid()) vecPids.push_back(iPid);
    }
    std::ranges::sort(vecPids);
    return vecPids;
}
// "START-END MODE OFFSET DEVICE INODE PATH"
MAPPING Parse(std::string_view I_svLine)
{
    MAPPING sMapping;
    sMapping.uStart = TakeHex(I_svLine);
    sMapping.uEnd = TakeHex(I_svLine);
    sMapping.svMode = I_svLine.substr(0, 4);
    I_svLine.remove_prefix(std::min<size_t>(5, I_svLine.size()));
    sMapping.uOffset = TakeHex(I_svLine);
    sMapping.svFile = I_svLine;
    return sMapping;
}

MAPPINGS ParseAll(std::string_view I_svText)
{
    MAPPINGS vecMappings;
    while (!I_svText.empty())
    {
        const std::string_view svLine = I_svText.substr(0, I_svText.find('\n'));
        vecMappings.push_back(Parse(svLine));
        I_svText.remove_prefix(std::min(svLine.size() + 1, I_svText.size()));
    }
    return vecMappings;
}

// A process may also map the file as data, to read it; then there is no record.
bool IsWritable(const MAPPINGS &I_vecMappings, uint64_t I_uAddress)
{
    return std::ranges::any_of(I_vecMappings, [I_uAddress](const MAPPING &sMapping) {
        return sMapping.uStart <= I_uAddress && I_uAddress < sMapping.uEnd &&
               sMapping.svMode.starts_with("rw");
    });
}

bool IsOurs(const MAPPING &I_sMapping)
{
    const size_t uName = I_sMapping.svFile.rfind('/') + 1;
    return uName > 0 && I_sMapping.svFile.substr(uName).starts_with("libxbsa.so");
}

// What a process shows that is just loading the library says nothing about other processes.
std::optional<EXPORTS> ExportsOf(const CMemory &I_sMemory, const MAPPING &I_sMapping,
                                 uid_t I_uOwner, FILES &X_sFiles)
{
    const std::string strKey = std::to_string(I_uOwner) + ' ' + std::string(I_sMapping.svFile);
    for (const KNOWN *spKnown : {&X_sFiles.mapNow, &X_sFiles.mapBefore})
        if (const auto sFound = spKnown->find(strKey); sFound != spKnown->end())
            return X_sFiles.mapNow.emplace(*sFound).first->second;
    const auto sExports = ReadExports(I_sMemory, I_sMapping.uStart);
    if (!sExports) return {};
    const bool bWhole = sExports->bCalls && sExports->uSize != 0;
    if (bWhole || !IsOurs(I_sMapping)) X_sFiles.mapNow.emplace(strKey, *sExports);
    return sExports;
}

// A loader maps a file from its start, privately.
bool IsLoaded(const MAPPING &I_sMapping)
{
    return I_sMapping.uOffset == 0 && I_sMapping.svFile.find('/') != std::string_view::npos &&
           I_sMapping.svMode.starts_with('r') && I_sMapping.svMode.ends_with('p');
}

// A program that was linked to the library holds the record itself, and the library uses that one.
std::vector<RECORD> Records(const CMemory &I_sMemory, const MAPPINGS &I_vecMappings, uid_t I_uOwner,
                            FILES &X_sFiles, bool &X_bForeign)
{
    std::vector<RECORD> vecRecords;
    for (const MAPPING &sMapping : I_vecMappings)
    {
        if (!IsLoaded(sMapping)) continue;
        const auto sExports = ExportsOf(I_sMemory, sMapping, I_uOwner, X_sFiles);
        if (!sExports) continue;
        X_bForeign |= sExports->bForeign && IsOurs(sMapping);
        const uint64_t uAddress = sMapping.uStart + sExports->uRecord;
        if (sExports->uSize != 0 && IsWritable(I_vecMappings, uAddress))
            vecRecords.push_back({uAddress, sExports->uSize, sExports->bCalls});
    }
    const auto fpCalls = [](const RECORD &sRecord) { return sRecord.bCalls; };
    if (std::ranges::none_of(vecRecords, fpCalls)) return {};
    if (!std::ranges::all_of(vecRecords, fpCalls)) std::erase_if(vecRecords, fpCalls);
    return vecRecords;
}

// A process that has ended in the meantime has no program: its number may belong to another one.
void Take(int I_iFolder, const CMemory &I_sMemory, PROCESS I_sProcess, SCAN &X_sScan)
{
    if (!I_sMemory.Read(I_sProcess.uRecord + SESSION_AT, I_sProcess.sSession) ||
        !I_sMemory.Read(I_sProcess.uRecord + NAME_AT, I_sProcess.sName))
        return;
    I_sProcess.uSocket = Socket(I_iFolder, I_sProcess.sSession.SData);
    I_sProcess.strProgram = Program(I_iFolder);
    if (!I_sProcess.strProgram.empty()) X_sScan.vecProcesses.push_back(I_sProcess);
}

void Search(int I_iFolder, pid_t I_iPid, const MAPPINGS &I_vecMappings, FILES &X_sFiles,
            SCAN &X_sScan)
{
    struct stat sStatus = {};
    if (fstat(I_iFolder, &sStatus) != 0) return;
    const CMemory sMemory(I_iPid);
    bool bForeign = false;
    std::string strWhy;
    for (const RECORD &sRecord :
         Records(sMemory, I_vecMappings, sStatus.st_uid, X_sFiles, bForeign))
    {
        if (sRecord.uSize == sizeof(_sGlobal))
            Take(I_iFolder, sMemory, {I_iPid, "", sRecord.uAddress, {}, {}, 0}, X_sScan);
        else
            strWhy = base::Text("its record has ", sRecord.uSize, " bytes instead of ",
                                sizeof(_sGlobal), ": another version of the library");
    }
    if (bForeign) strWhy = "its library is of another word size or machine";
    const bool bKnown = !strWhy.empty() || std::ranges::any_of(I_vecMappings, IsOurs);
    if (sMemory.IsForbidden() || !strWhy.empty())
        X_sScan.vecBarred.push_back({I_iPid, Program(I_iFolder), strWhy, bKnown});
    if (!sMemory.IsForbidden()) X_sScan.uLooked++;
}

// The open directory belongs to this process only: after its end nothing in it can be read, even if
// another process gets its number.
void Look(int I_iFolder, pid_t I_iPid, FILES &X_sFiles, SCAN &X_sScan)
{
    std::string strMaps;
    const bool bRead = ReadFile(I_iFolder, "maps", strMaps);
    if (!bRead && (errno == EACCES || errno == EPERM))
        X_sScan.vecBarred.push_back({I_iPid, Program(I_iFolder), "", false});
    if (bRead && !strMaps.empty()) Search(I_iFolder, I_iPid, ParseAll(strMaps), X_sFiles, X_sScan);
}
} // namespace

SCAN CProcesses::Scan()
{
    SCAN sScan;
    FILES sFiles{std::exchange(mapKnown, {}), {}};
    for (const pid_t iPid : Pids())
    {
        const base::CDescriptor sFolder(
            open(base::Text("/proc/", iPid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (sFolder.Get() != -1) Look(sFolder.Get(), iPid, sFiles, sScan);
    }
    mapKnown = std::move(sFiles.mapNow);
    return sScan;
}
} // namespace report
