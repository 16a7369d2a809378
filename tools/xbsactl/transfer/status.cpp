#include <poll.h>

#include <atomic>
#include <ctime>
#include <sstream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr const char *OWN_MARK = "# HELP xbsactl_"; // how each file of ours begins
constexpr const char *LAST_SUCCESS = "xbsactl_last_success_timestamp_seconds";
constexpr const char *LAST_CODE = "xbsactl_last_exit_code";

struct STATUS
{
    std::mutex sMutex; // for all but the two counts
    bool bRuns = false;
    bool bWarned = false;
    std::string strFile; // empty: none is wanted
    std::string strWhat;
    std::string strLabels;      // {command="store",name="x"}
    std::string strLastSuccess; // empty: never
    std::string strLastCode;    // empty: not known
    time_t lStart = 0;
    CLOCK::time_point sStart;
    CLOCK::time_point sCounted; // when the count began
    std::atomic<uint64_t> uBytes{0};
    std::atomic<uint64_t> uExpected{0};
};

// Never freed: the thread that watches for signals outlives every destructor.
STATUS &Status()
{
    static auto *spStatus = new STATUS;
    return *spStatus;
}

// Prometheus takes UTF-8 and the escapes \\ and \" alone, which is what JSON makes of a text
// without control characters.
std::string LabelValue(const std::string &I_strText)
{
    return base::JsonQuoted(base::Visible(I_strText));
}

double Seconds(CLOCK::time_point I_sSince)
{
    return std::chrono::duration<double>(CLOCK::now() - I_sSince).count();
}

double RateNow(const STATUS &I_sStatus) // megabytes a second
{
    return Rate(I_sStatus.uBytes, Seconds(I_sStatus.sCounted));
}

std::string FileText(const STATUS &I_sStatus)
{
    const uint64_t uExpected = I_sStatus.uExpected;
    const std::string strVersion = "{version=" + LabelValue(XBSACTL_VERSION) + "}";
    const struct
    {
        const char *cpName;
        const char *cpHelp;
        std::string strValue; // a metric without one is left out
        const std::string &strLabels;
    } METRICS[] = {
        {"xbsactl_in_progress", "1 while the command runs.", I_sStatus.bRuns ? "1" : "0",
         I_sStatus.strLabels},
        {"xbsactl_transferred_bytes", "Bytes of objects moved so far.",
         std::to_string(I_sStatus.uBytes), I_sStatus.strLabels},
        {"xbsactl_expected_bytes", "Bytes that will be moved, when known.",
         uExpected > 0 ? std::to_string(uExpected) : "", I_sStatus.strLabels},
        {"xbsactl_duration_seconds", "How long the command runs or ran.",
         Decimal(Seconds(I_sStatus.sStart), 3), I_sStatus.strLabels},
        {"xbsactl_bytes_per_second", "Mean rate.", Decimal(RateNow(I_sStatus) * 1e6, 3),
         I_sStatus.strLabels},
        {"xbsactl_last_attempt_timestamp_seconds", "When the command last began.",
         std::to_string(I_sStatus.lStart), I_sStatus.strLabels},
        {LAST_SUCCESS, "When the command last ended with 0.", I_sStatus.strLastSuccess,
         I_sStatus.strLabels},
        {LAST_CODE, "Exit code of the last run that ended, 128 and the number for a signal.",
         I_sStatus.strLastCode, I_sStatus.strLabels},
        {"xbsactl_build_info", "The version that wrote this file.", "1", strVersion},
    };
    std::ostringstream sText;
    for (const auto &sMetric : METRICS)
        if (!sMetric.strValue.empty())
            sText << "# HELP " << sMetric.cpName << ' ' << sMetric.cpHelp << "\n# TYPE "
                  << sMetric.cpName << " gauge\n"
                  << sMetric.cpName << sMetric.strLabels << ' ' << sMetric.strValue << '\n';
    return sText.str();
}

// The number that an earlier run of the same command on the same object left; empty for none.
std::string EarlierValue(const std::string &I_strText, const std::string &I_strStart)
{
    const std::string strStart = "\n" + I_strStart + " ";
    const size_t uAt = I_strText.find(strStart);
    if (uAt == std::string::npos) return "";
    const size_t uValue = uAt + strStart.size();
    const size_t uEnd = I_strText.find_first_not_of("0123456789", uValue);
    const bool bNumber = uEnd != std::string::npos && uEnd > uValue && uEnd - uValue <= 19;
    return bNumber && I_strText[uEnd] == '\n' ? I_strText.substr(uValue, uEnd - uValue) : "";
}

void TakeEarlier(STATUS &X_sStatus)
{
    const std::string strText = base::ReadText(base::FindTarget(X_sStatus.strFile)).value_or("");
    if (!strText.empty() && strText.rfind(OWN_MARK, 0) != 0)
        throw base::FileFailure("status file " + base::Quoted(X_sStatus.strFile) +
                                " holds something else already");
    X_sStatus.strLastSuccess = EarlierValue(strText, LAST_SUCCESS + X_sStatus.strLabels);
    X_sStatus.strLastCode = EarlierValue(strText, LAST_CODE + X_sStatus.strLabels);
}

// Once a second: only the last text must survive a power cut.
void Write(const STATUS &I_sStatus)
{
    base::ReplaceText(base::FindTarget(I_sStatus.strFile), FileText(I_sStatus), false,
                      !I_sStatus.bRuns);
}

// The reader of a pipe may have stopped reading, and the thread has signals to wait for.
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
    if (X_sStatus.strFile.empty()) return;
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
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    sStatus.strWhat = I_strCommand + (I_strName.empty() ? "" : " " + base::Quoted(I_strName));
    sStatus.strLabels =
        "{command=" + LabelValue(I_strCommand) + ",name=" + LabelValue(I_strName) + "}";
    sStatus.lStart = time(nullptr);
    sStatus.sStart = CLOCK::now();
    sStatus.sCounted = sStatus.sStart;
    sStatus.bRuns = true;
    if (I_strFile.empty()) return;
    sStatus.strFile = I_strFile;
    try
    {
        TakeEarlier(sStatus);
        Write(sStatus);
    } catch (const base::FAILURE &)
    {
        sStatus.strFile.clear(); // it is not ours to end
        throw;
    }
}

void SayStatus(const std::string &I_strWhat)
{
    const std::lock_guard<std::mutex> sGuard(Status().sMutex);
    Status().strWhat = I_strWhat;
}

void CountStatus(uint64_t I_uExpected)
{
    STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    sStatus.uBytes = 0;
    sStatus.uExpected = I_uExpected;
    sStatus.sCounted = CLOCK::now();
}

void AddStatus(uint64_t I_uBytes)
{
    Status().uBytes += I_uBytes;
}

void PrintStatus()
{
    const STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(Status().sMutex);
    if (!sStatus.bRuns) return;
    const std::string strExpected =
        sStatus.uExpected > 0 ? " of " + std::to_string(sStatus.uExpected) : "";
    PrintLine("xbsactl: " + sStatus.strWhat + ": " + std::to_string(sStatus.uBytes) + strExpected +
              " bytes, " + Decimal(RateNow(sStatus), 3) + " MB/s, " +
              Decimal(Seconds(sStatus.sStart), 3) + " s");
}

void TickStatus()
{
    STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    if (sStatus.bRuns) WriteOrWarn(sStatus);
}

void EndStatus(int I_iExit)
{
    STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    if (!sStatus.bRuns) return;
    sStatus.bRuns = false;
    sStatus.strLastCode = std::to_string(I_iExit);
    if (I_iExit == base::EXIT_DONE) sStatus.strLastSuccess = std::to_string(time(nullptr));
    WriteOrWarn(sStatus);
}
} // namespace transfer
