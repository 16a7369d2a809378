#define XXH_INLINE_ALL // all of it is in the header
#include <poll.h>
#include <xxhash.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr double REDRAW = 0.1;     // seconds
constexpr uint64_t BAR_WIDTH = 30; // characters

constexpr const char *LAST_SUCCESS = "xbsactl_last_success_timestamp_seconds";
constexpr const char *LAST_CODE = "xbsactl_last_exit_code";

// Changed under HoldStop's lock, except the two counts and the bar.
struct STATUS
{
    bool bRuns = false;
    std::atomic<bool> bFile{false}; // there is a status file; only then the thread takes the lock
    bool bWarned = false;
    std::string strFile;
    std::string strWhat;
    std::string strLabels;      // {command="store",name="x"}
    std::string strLastSuccess; // empty: never
    std::string strLastCode;    // empty: not known
    std::string strGood;        // verify: objects; empty: not known
    std::string strBad;
    time_t lStart = 0;
    CLOCK::time_point sStart;
    CLOCK::time_point sCounted; // when the count began
    std::atomic<uint64_t> uBytes{0};
    std::atomic<uint64_t> uExpected{0};
    bool bDrawn = false; // the bar
    CLOCK::time_point sDrawn;
};

// Never freed: the thread that watches for signals outlives every destructor.
STATUS &Status()
{
    static auto *spStatus = new STATUS;
    return *spStatus;
}

// The XXH3-128 of all that is added, in the digits that the library writes into its journal.
class CXxh128
{
  public:
    CXxh128() : spState(XXH3_createState(), XXH3_freeState)
    {
        if (spState == nullptr) throw std::bad_alloc();
        XXH3_128bits_reset(spState.get());
    }

    void Add(std::string_view I_svBytes)
    {
        XXH3_128bits_update(spState.get(), I_svBytes.data(), I_svBytes.size());
    }

    std::string Digits() const
    {
        const XXH128_hash_t sHash = XXH3_128bits_digest(spState.get());
        std::array<char, 33> szDigits{};
        snprintf(szDigits.data(), szDigits.size(), "%016jx%016jx", uintmax_t{sHash.high64},
                 uintmax_t{sHash.low64});
        return szDigits.data();
    }

  private:
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t *)> spState;
};

double Seconds(CLOCK::time_point I_sSince)
{
    return std::chrono::duration<double>(CLOCK::now() - I_sSince).count();
}

double RateNow(const STATUS &I_sStatus) // megabytes a second
{
    const double dSeconds = Seconds(I_sStatus.sCounted);
    return dSeconds > 0 ? static_cast<double>(I_sStatus.uBytes) / 1e6 / dSeconds : 0;
}

// The share of the expected bytes; empty when they are not known.
std::string Bar(const STATUS &I_sStatus)
{
    if (I_sStatus.uExpected == 0) return "";
    const uint64_t uDone = std::min<uint64_t>(I_sStatus.uBytes, I_sStatus.uExpected);
    std::string strBar(static_cast<size_t>(uDone * BAR_WIDTH / I_sStatus.uExpected), '#');
    strBar.resize(BAR_WIDTH, '.');
    return base::Text('[', strBar, "] ", uDone * 100 / I_sStatus.uExpected, "% ");
}

// On the terminal; WipeBar removes it.
void DrawBar(STATUS &X_sStatus)
{
    if (Seconds(X_sStatus.sDrawn) < REDRAW) return;
    fprintf(stderr, "\r%s%.1f MB, %.1f MB/s\x1b[K", Bar(X_sStatus).c_str(),
            static_cast<double>(X_sStatus.uBytes) / 1e6, RateNow(X_sStatus));
    X_sStatus.sDrawn = CLOCK::now();
    X_sStatus.bDrawn = true;
}

void WipeBar(STATUS *spStatus)
{
    if (std::exchange(spStatus->bDrawn, false)) fputs("\r\x1b[K", stderr);
}

// A metric without a value is omitted.
std::string FileText(const STATUS &I_sStatus)
{
    std::string strText;
    const auto fpAdd = [&](const char *cpName, const char *cpHelp, const auto &sValue) {
        const std::string strValue = base::Text(sValue);
        if (!strValue.empty())
            strText +=
                base::Metric(cpName, cpHelp, cpName + I_sStatus.strLabels + " " + strValue + "\n");
    };
    const std::string strExpected = I_sStatus.uExpected > 0 ? base::Text(I_sStatus.uExpected) : "";
    fpAdd("xbsactl_in_progress", "1 while the command runs.", I_sStatus.bRuns);
    fpAdd("xbsactl_transferred_bytes", "Bytes of objects moved so far.", I_sStatus.uBytes.load());
    fpAdd("xbsactl_expected_bytes", "Bytes that will be moved, when known.", strExpected);
    fpAdd("xbsactl_duration_seconds", "How long the command has been running, or ran.",
          Seconds(I_sStatus.sStart));
    fpAdd("xbsactl_bytes_per_second", "Mean rate.", RateNow(I_sStatus) * 1e6);
    fpAdd("xbsactl_last_attempt_timestamp_seconds", "When the command last started.",
          I_sStatus.lStart);
    fpAdd(LAST_SUCCESS, "When the command last ended with 0.", I_sStatus.strLastSuccess);
    fpAdd(LAST_CODE, "Exit code of the last completed run; 128 plus the number for a signal.",
          I_sStatus.strLastCode);
    fpAdd("xbsactl_verified_objects", "Objects that verified.", I_sStatus.strGood);
    fpAdd("xbsactl_differing_objects", "Objects that failed to verify.", I_sStatus.strBad);
    return strText + base::VersionMetric();
}

// The value from an earlier run of the same command on the same object; empty for none.
std::string EarlierValue(const std::string &I_strText, const std::string &I_strStart)
{
    std::array<char, 20> szNumber{};
    char cEnd = 0;
    const size_t uAt = I_strText.find("\n" + I_strStart + " ");
    const bool bNumber =
        uAt != std::string::npos &&
        sscanf(&I_strText[uAt + I_strStart.size() + 2], "%19[0-9]%c", szNumber.data(), &cEnd) == 2;
    return bNumber && cEnd == '\n' ? szNumber.data() : "";
}

void TakeEarlier(STATUS &X_sStatus)
{
    const std::string strText = base::EarlierMetrics(X_sStatus.strFile);
    X_sStatus.strLastSuccess = EarlierValue(strText, LAST_SUCCESS + X_sStatus.strLabels);
    X_sStatus.strLastCode = EarlierValue(strText, LAST_CODE + X_sStatus.strLabels);
}

// Once per second: only the last text must survive a power cut.
void Write(const STATUS &I_sStatus)
{
    base::ReplaceText(base::FindTarget(I_sStatus.strFile), FileText(I_sStatus), false,
                      !I_sStatus.bRuns);
}

// The reader of a pipe may have stopped reading, and the thread must not miss signals.
void PrintLine(const std::string &I_strLine)
{
    struct pollfd sError = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&sError, 1, 0) != 1 || (sError.revents & POLLOUT) == 0) return;
    const std::string strLine =
        (isatty(STDERR_FILENO) == 1 ? "\r\x1b[K" : "") + base::Visible(I_strLine) + "\n";
    if (write(STDERR_FILENO, strLine.data(), strLine.size()) == -1) return; // nobody reads
}

void WriteOrWarn(STATUS &X_sStatus)
{
    if (!X_sStatus.bFile) return;
    try
    {
        Write(X_sStatus);
    } catch (const std::exception &sError)
    {
        if (!X_sStatus.bWarned)
            PrintLine(std::string("xbsactl: warning: status file: ") + sError.what());
        X_sStatus.bWarned = true;
    }
}
} // namespace

void BeginStatus(const std::string &I_strCommand, const std::string &I_strName,
                 const std::string &I_strFile)
{
    STATUS &sStatus = Status();
    const base::STOP_LOCK sLock = base::HoldStop();
    sStatus.strWhat = I_strCommand + (I_strName.empty() ? "" : " " + base::Quoted(I_strName));
    sStatus.strLabels =
        "{command=" + base::LabelValue(I_strCommand) + ",name=" + base::LabelValue(I_strName) + "}";
    sStatus.lStart = time(nullptr);
    sStatus.sStart = CLOCK::now();
    sStatus.sCounted = sStatus.sStart;
    sStatus.bRuns = true;
    if (I_strFile.empty()) return;
    sStatus.strFile = I_strFile;
    TakeEarlier(sStatus);
    Write(sStatus);
    sStatus.bFile = true; // from here on EndStatus must complete it
}

void SayStatus(const std::string &I_strWhat)
{
    const base::STOP_LOCK sLock = base::HoldStop();
    Status().strWhat = I_strWhat;
}

void CountStatus(uint64_t I_uExpected)
{
    STATUS &sStatus = Status();
    const base::STOP_LOCK sLock = base::HoldStop();
    sStatus.uBytes = 0;
    sStatus.uExpected = I_uExpected;
    sStatus.sCounted = CLOCK::now();
}

uint64_t TakeMoved()
{
    return Status().uBytes.exchange(0);
}

void AddStatus(uint64_t I_uBytes)
{
    Status().uBytes += I_uBytes;
}

void CountVerified(size_t I_uGood, size_t I_uBad)
{
    const base::STOP_LOCK sLock = base::HoldStop();
    Status().strGood = std::to_string(I_uGood);
    Status().strBad = std::to_string(I_uBad);
}

void LeaveStatus()
{
    Status().bFile = false;
    Status().bRuns = false;
}

void PrintStatus()
{
    const STATUS &sStatus = Status();
    const base::STOP_LOCK sLock = base::HoldStop();
    if (!sStatus.bRuns) return;
    const std::string strExpected =
        sStatus.uExpected > 0 ? base::Text(" of ", sStatus.uExpected) : "";
    PrintLine(base::Text("xbsactl: ", sStatus.strWhat, ": ", sStatus.uBytes, strExpected,
                         " bytes, ", RateNow(sStatus), " MB/s, ", Seconds(sStatus.sStart), " s"));
}

void TickStatus()
{
    if (!Status().bFile) return; // a child of check must not find the lock taken
    const base::STOP_LOCK sLock = base::HoldStop();
    if (Status().bRuns) WriteOrWarn(Status());
}

void EndStatus(int I_iExit)
{
    STATUS &sStatus = Status();
    const base::STOP_LOCK sLock = base::HoldStop();
    if (!sStatus.bRuns) return;
    sStatus.bRuns = false;
    sStatus.strLastCode = std::to_string(I_iExit);
    if (I_iExit == base::EXIT_DONE) sStatus.strLastSuccess = std::to_string(time(nullptr));
    WriteOrWarn(sStatus);
}

COUNT MoveObject(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 const std::function<size_t(char *cpBlock)> &I_fpMove)
{
    STATUS &sStatus = Status();
    const uint64_t uBefore = sStatus.uBytes;
    const bool bTraced = I_sConnection.iTraceLevel != -1 && I_sConnection.strTraceFile.empty();
    const bool bBar = isatty(STDERR_FILENO) == 1 && !bTraced && // they would spoil each other
                      sStatus.bRuns;
    const std::unique_ptr<STATUS, void (*)(STATUS *)> spWiped(&sStatus, WipeBar); // at every end
    sStatus.sDrawn = CLOCK::now();
    base::CSha256 sHash;
    CXxh128 sQuickHash;
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    for (size_t uLength = library::BLOCK_SIZE; uLength == library::BLOCK_SIZE;)
    {
        uLength = I_fpMove(vecBlock.data());
        sHash.Add({vecBlock.data(), uLength});
        sQuickHash.Add({vecBlock.data(), uLength});
        sStatus.uBytes += uLength;
        if (bBar) DrawBar(sStatus);
    }
    I_sSession.EndData();
    return {sStatus.uBytes - uBefore, Seconds(sStatus.sCounted), RateNow(sStatus), sHash.Digits(),
            sQuickHash.Digits()};
}
} // namespace transfer
