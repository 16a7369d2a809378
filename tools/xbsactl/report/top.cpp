// The live view: what runs right now.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "base/base.h"
#include "base/json.h"
#include "report/live.h"
#include "report/report.h"

namespace report
{
namespace
{
using CLOCK = std::chrono::steady_clock;
using LINES = std::vector<std::string>;

constexpr int SCHEMA = 1;                       // of the JSON text
constexpr std::chrono::milliseconds FIRST{200}; // between the first two looks, for the rate

// A process as it is shown.
struct ROW
{
    PROCESS sProcess;
    const char *cpDirection = nullptr; // null: no object is open
    std::string strSpace;
    std::string strPath;
    uint64_t uBytes = 0;
    std::string strMessage;
    std::optional<double> dRate; // bytes a second
    std::optional<double> dIdle; // seconds since the last byte

    // Progress: the kernel's count where it is known, which also changes within a block.
    uint64_t uMoved = 0;
    bool bMoved = false; // it has moved since it was first seen
    CLOCK::time_point sSeen;
    CLOCK::time_point sMoved; // or was first looked at
};
using ROWS = std::map<std::pair<pid_t, uint64_t>, ROW>; // by process and record

template <size_t SIZE> std::string Field(const char (&I_caField)[SIZE])
{
    return {I_caField, strnlen(I_caField, SIZE)};
}

const char *Direction(int I_iCalls)
{
    if ((I_iCalls & CALL_END_DATA) != 0) return nullptr;
    if ((I_iCalls & CALL_GET_OBJECT) != 0)
        return "restore"; // it ends a store of the same transaction
    return (I_iCalls & CALL_CREATE_OBJECT) != 0 ? "store" : nullptr;
}

double Seconds(CLOCK::duration I_sTime)
{
    return std::chrono::duration<double>(I_sTime).count();
}

ROW Show(const PROCESS &I_sProcess)
{
    ROW sRow;
    sRow.sProcess = I_sProcess;
    const double dBytes = I_sProcess.sSession.dBytes;
    sRow.sSeen = sRow.sMoved = CLOCK::now();
    sRow.strMessage = Field(I_sProcess.sSession.szLastMessage);
    sRow.cpDirection = Direction(I_sProcess.sSession.iLastCall);
    if (sRow.cpDirection == nullptr) return sRow;
    sRow.strSpace = Field(I_sProcess.sName.objectSpaceName);
    sRow.strPath = Field(I_sProcess.sName.pathName);
    if (dBytes >= 0 && dBytes < 0x1p63) sRow.uBytes = static_cast<uint64_t>(dBytes);
    sRow.uMoved = sRow.uBytes;
    return sRow;
}

// Whether the row still shows the earlier one's object.
bool IsSame(const ROW &I_sRow, const ROW &I_sEarlier)
{
    return I_sRow.cpDirection == I_sEarlier.cpDirection && I_sRow.strSpace == I_sEarlier.strSpace &&
           I_sRow.strPath == I_sEarlier.strPath && I_sRow.uBytes >= I_sEarlier.uBytes &&
           I_sRow.sProcess.uSocket == I_sEarlier.sProcess.uSocket;
}

void Compare(ROW &X_sRow, const ROW &I_sEarlier)
{
    if (!IsSame(X_sRow, I_sEarlier)) return;
    X_sRow.bMoved = I_sEarlier.bMoved || X_sRow.uMoved != I_sEarlier.uMoved;
    if (X_sRow.uMoved == I_sEarlier.uMoved) X_sRow.sMoved = I_sEarlier.sMoved;
    X_sRow.dRate = static_cast<double>(X_sRow.uBytes - I_sEarlier.uBytes) /
                   Seconds(X_sRow.sSeen - I_sEarlier.sSeen);
}

// The kernel counts a retransmitted packet as sent: only what the peer acknowledged has moved.
void TakeIdle(ROW &X_sRow, const TRAFFIC *spTraffic)
{
    const double dWatched = Seconds(X_sRow.sSeen - X_sRow.sMoved);
    if (spTraffic == nullptr && X_sRow.bMoved) X_sRow.dIdle = dWatched;
    if (spTraffic == nullptr) return;
    const bool bStore = strcmp(X_sRow.cpDirection, "store") == 0;
    X_sRow.dIdle = std::max(bStore ? spTraffic->dSinceSent : spTraffic->dSinceReceived,
                            spTraffic->uMoved ? dWatched : 0);
}

ROWS Rows(const SCAN &I_sScan, const ROWS &I_mapEarlier)
{
    ROWS mapRows;
    for (const PROCESS &sProcess : I_sScan.vecProcesses)
        mapRows[{sProcess.iPid, sProcess.uRecord}] = Show(sProcess);
    const bool bAny = std::ranges::any_of(
        mapRows, [](const auto &sPair) { return sPair.second.cpDirection != nullptr; });
    const std::map<uint64_t, TRAFFIC> mapTraffic =
        bAny ? ReadTraffic() : std::map<uint64_t, TRAFFIC>{};
    for (auto &[sKey, sRow] : mapRows)
    {
        if (sRow.cpDirection == nullptr) continue;
        const auto sTraffic = mapTraffic.find(sRow.sProcess.uSocket);
        const TRAFFIC *spTraffic = sTraffic != mapTraffic.end() ? &sTraffic->second : nullptr;
        const auto sEarlier = I_mapEarlier.find(sKey);
        if (spTraffic != nullptr) sRow.uMoved = spTraffic->uMoved.value_or(0);
        if (sEarlier != I_mapEarlier.end()) Compare(sRow, sEarlier->second);
        TakeIdle(sRow, spTraffic);
    }
    return mapRows;
}

std::string Json(const ROWS &I_mapRows)
{
    base::JSON sList = base::JSON::array();
    const auto fpText = [](const ROW &sRow, const std::string &strText) {
        return sRow.cpDirection != nullptr ? base::JSON(strText) : base::JSON();
    };
    for (const auto &[sKey, sRow] : I_mapRows)
        sList.push_back(
            {{"pid", sKey.first},
             {"program", sRow.sProcess.strProgram},
             {"direction",
              sRow.cpDirection != nullptr ? base::JSON(sRow.cpDirection) : base::JSON()},
             {"space", fpText(sRow, sRow.strSpace)},
             {"path", fpText(sRow, sRow.strPath)},
             {"bytes", sRow.uBytes},
             {"seconds_since_last_byte", sRow.dIdle ? base::JSON(*sRow.dIdle) : base::JSON()},
             {"last_message", sRow.strMessage}});
    return base::Dump({{"schema", SCHEMA}, {"processes", sList}}) + "\n";
}

std::string Number(std::optional<double> I_dNumber, double I_dUnit, const char *cpUnit)
{
    std::array<char, 64> caText{};
    if (!I_dNumber) return "-";
    snprintf(caText.data(), caText.size(), "%.1f %s", *I_dNumber / I_dUnit, cpUnit);
    return caText.data();
}

// Columns as wide as their cells: numbers to the right, the last one not padded.
LINES Table(const ROWS &I_mapRows)
{
    using CELLS = std::array<std::string, 9>;
    std::vector<CELLS> vecRows = {
        {"PID", "PROGRAM", "DOES", "BYTES", "RATE", "LAST BYTE", "SPACE", "PATH", "LAST MESSAGE"}};
    for (const auto &[sKey, sRow] : I_mapRows)
        vecRows.push_back({base::Text(sKey.first), sRow.sProcess.strProgram,
                           sRow.cpDirection != nullptr ? sRow.cpDirection : "idle",
                           base::Text(sRow.uBytes), Number(sRow.dRate, 1e6, "MB/s"),
                           Number(sRow.dIdle, 1, "s"), sRow.strSpace, sRow.strPath,
                           sRow.strMessage});
    LINES vecLines(vecRows.size());
    for (size_t uColumn = 0; uColumn < CELLS{}.size(); uColumn++)
    {
        size_t uWidth = 0;
        for (CELLS &saCells : vecRows) saCells[uColumn] = base::Printable(saCells[uColumn], true);
        for (const CELLS &saCells : vecRows) uWidth = std::max(uWidth, saCells[uColumn].size());
        const bool bRight = uColumn == 0 || (uColumn >= 3 && uColumn <= 5);
        for (size_t uRow = 0; uRow < vecRows.size(); uRow++)
        {
            const std::string &strCell = vecRows[uRow][uColumn];
            const std::string strFill(uWidth - strCell.size(), ' ');
            vecLines[uRow] += bRight ? strFill + strCell + "  " : strCell + strFill + "  ";
        }
    }
    for (std::string &strLine : vecLines) strLine = base::Printable(strLine);
    return vecLines;
}

// What to set so that the system allows the next look.
std::string Advice()
{
    int iScope = 0;
    const std::unique_ptr<FILE, int (*)(FILE *)> spFile(
        fopen("/proc/sys/kernel/yama/ptrace_scope", "re"), fclose);
    if (spFile && fscanf(spFile.get(), "%d", &iScope) != 1) iScope = 0;
    if (iScope == 3)
        return "kernel.yama.ptrace_scope is 3: nobody may look at a process until the next boot "
               "with a lower value";
    if (iScope == 2 || (iScope == 1 && geteuid() != 0))
        return base::Text("run xbsactl top as root, or set kernel.yama.ptrace_scope (now ", iScope,
                          ") to 0 with sysctl");
    if (geteuid() != 0) return "run xbsactl top as root, or as the account of the backup";
    return "in a container, give it the capability SYS_PTRACE";
}

// What is not shown, and why. Processes that only may have the library are counted: most belong
// to other accounts and have nothing to do with a backup.
LINES Notes(const SCAN &I_sScan)
{
    LINES vecNotes;
    size_t uCount = 0;
    bool bAdvise = false;
    for (auto sBarred = I_sScan.vecBarred.rbegin(); sBarred != I_sScan.vecBarred.rend(); sBarred++)
    {
        const std::string strWho =
            base::Text(sBarred->iPid, " (", base::Printable(sBarred->strProgram, true), ")");
        bAdvise |= sBarred->strWhy.empty() && (sBarred->bKnown || I_sScan.vecProcesses.empty());
        if (!sBarred->strWhy.empty())
            vecNotes.push_back(strWho + " is not shown: " + sBarred->strWhy);
        else if (sBarred->bKnown)
            vecNotes.push_back(strWho +
                               " has the library loaded, but the system forbids a look at it");
        else uCount++;
    }
    if (uCount > 0)
        vecNotes.push_back(base::Text("not looked at: ", uCount,
                                      uCount == 1 ? " process" : " processes",
                                      " (the system forbids it)"));
    if (bAdvise) vecNotes.push_back("hint: " + Advice());
    return vecNotes;
}

bool IsFailure(const SCAN &I_sScan)
{
    const bool bKnown = std::ranges::any_of(I_sScan.vecBarred, &BARRED::bKnown);
    const bool bNone = I_sScan.uLooked == 0 && !I_sScan.vecBarred.empty();
    return I_sScan.vecProcesses.empty() && (bKnown || bNone);
}

LINES Text(const SCAN &I_sScan, const ROWS &I_mapRows)
{
    if (!I_mapRows.empty()) return Table(I_mapRows);
    if (I_sScan.vecBarred.empty()) return {"no process has the library loaded"};
    return {"no process that can be looked at has the library loaded"};
}

// As much of the line as fits: beyond ASCII a character may be two cells wide.
std::string Cut(const std::string &I_strLine, size_t I_uWidth)
{
    size_t uEnd = 0;
    size_t uCells = 0;
    for (; uEnd < I_strLine.size(); uEnd++)
    {
        const unsigned uByte = static_cast<unsigned char>(I_strLine[uEnd]);
        uCells += (uByte < 0x80U ? 1U : 0U) + (uByte >= 0xC0U ? 2U : 0U);
        if (uCells > I_uWidth) break;
    }
    return I_strLine.substr(0, uEnd);
}

// On a terminal the block replaces the one before: from the first cell, as much as the screen
// shows, the rest erased.
std::string Block(const LINES &I_vecLines)
{
    struct winsize sSize = {};
    const bool bTerminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &sSize) == 0;
    const size_t uRows = bTerminal && sSize.ws_row > 1 ? sSize.ws_row - 1U : SIZE_MAX;
    const size_t uWidth = bTerminal && sSize.ws_col > 0 ? sSize.ws_col : SIZE_MAX;
    std::string strBlock = bTerminal ? "\x1b[H" : "";
    for (size_t uLine = 0; uLine < std::min(uRows, I_vecLines.size()); uLine++)
        strBlock += Cut(I_vecLines[uLine], uWidth) + (bTerminal ? "\x1b[K\n" : "\n");
    return strBlock + (bTerminal ? "\x1b[J" : "\n");
}

std::string Now()
{
    std::array<char, 32> caTime{};
    const time_t lNow = time(nullptr);
    struct tm sTime = {};
    localtime_r(&lNow, &sTime);
    strftime(caTime.data(), caTime.size(), "%Y-%m-%d %H:%M:%S", &sTime);
    return caTime.data();
}

void Print(const std::string &I_strText)
{
    fputs(I_strText.c_str(), stdout);
    if (fflush(stdout) != 0) throw base::FAILURE("writing standard output failed");
}

// On standard error, once while they stay the same.
void Warn(const LINES &I_vecNotes, LINES &X_vecWarned)
{
    if (std::exchange(X_vecWarned, I_vecNotes) == I_vecNotes) return;
    for (const std::string &strNote : I_vecNotes)
        fprintf(stderr, "%s%s\n", strNote.starts_with("hint:") ? "" : "xbsactl: ", strNote.c_str());
}

void PrintLive(LINES I_vecText, const LINES &I_vecNotes)
{
    I_vecText.insert(I_vecText.begin(), Now());
    I_vecText.insert(I_vecText.end(), I_vecNotes.begin(), I_vecNotes.end());
    Print(Block(I_vecText));
}
} // namespace

int Top(const TOP_OPTIONS &I_sOptions)
{
    CProcesses sProcesses;
    ROWS mapRows = Rows(sProcesses.Scan(), {});
    LINES vecWarned;
    CLOCK::duration sWait = FIRST;
    for (;;)
    {
        std::this_thread::sleep_for(sWait);
        sWait = std::chrono::seconds(I_sOptions.uInterval);
        const SCAN sScan = sProcesses.Scan();
        mapRows = Rows(sScan, mapRows);
        const bool bLive = !I_sOptions.bOnce && !I_sOptions.bJson;
        if (!bLive) Warn(Notes(sScan), vecWarned);
        if (I_sOptions.bJson) Print(Json(mapRows));
        else if (bLive) PrintLive(Text(sScan, mapRows), Notes(sScan));
        else
            for (const std::string &strLine : Text(sScan, mapRows)) Print(strLine + "\n");
        if (I_sOptions.bOnce) return IsFailure(sScan) ? base::EXIT_FAILED : base::EXIT_DONE;
    }
}
} // namespace report
