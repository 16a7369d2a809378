#include "transfer/status.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>

#include "transfer/manifest.h"
#include "base/json.h"
#include "transfer/transfer.h"

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
    bool bBegun = false;
    bool bEnded = false;
    bool bWarned = false;
    std::string strFile; // empty: none is wanted
    std::string strWhat;
    std::string strLabels;      // {command="store",name="x"}
    std::string strLastSuccess; // empty: never
    std::string strLastCode;    // empty: not known
    CLOCK::time_point sStart;
    CLOCK::time_point sCounted; // when the count began
    std::atomic<uint64_t> uBytes{0};
    std::atomic<uint64_t> uExpected{0};
};

// Never freed: stop.cpp's thread outlives every destructor.
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

double Rate(const STATUS &I_sStatus) // bytes a second
{
    const double dSeconds = Seconds(I_sStatus.sCounted);
    return dSeconds > 0 ? static_cast<double>(I_sStatus.uBytes) / dSeconds : 0;
}

std::string Decimal(double I_dValue)
{
    std::array<char, 64> szText{};
    snprintf(szText.data(), szText.size(), "%.3f", I_dValue);
    return szText.data();
}

// A metric without a value is left out.
void AddMetric(std::string &I_strText, const STATUS &I_sStatus, const std::string &I_strName,
               const char *cpHelp, const std::string &I_strValue)
{
    if (I_strValue.empty()) return;
    I_strText += "# HELP " + I_strName + " " + cpHelp + "\n# TYPE " + I_strName + " gauge\n" +
                 I_strName + I_sStatus.strLabels + " " + I_strValue + "\n";
}

std::string FileText(const STATUS &I_sStatus)
{
    const uint64_t uExpected = I_sStatus.uExpected;
    std::string strText;
    const auto fpAdd = [&](const char *cpName, const char *cpHelp, const std::string &strValue) {
        AddMetric(strText, I_sStatus, cpName, cpHelp, strValue);
    };
    fpAdd("xbsactl_in_progress", "1 while the command runs.", I_sStatus.bEnded ? "0" : "1");
    fpAdd("xbsactl_bytes", "Bytes of objects moved so far.", std::to_string(I_sStatus.uBytes));
    fpAdd("xbsactl_expected_bytes", "Bytes that will be moved, when known.",
          uExpected > 0 ? std::to_string(uExpected) : "");
    fpAdd("xbsactl_seconds", "How long the command runs or ran.",
          Decimal(Seconds(I_sStatus.sStart)));
    fpAdd("xbsactl_bytes_per_second", "Mean rate.", Decimal(Rate(I_sStatus)));
    fpAdd(LAST_SUCCESS, "When the command last ended with 0.", I_sStatus.strLastSuccess);
    fpAdd(LAST_CODE, "Exit code of the last run that ended, 128 and the number for a signal.",
          I_sStatus.strLastCode);
    return strText;
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

void TakeEarlier(STATUS &I_sStatus)
{
    const std::string strText =
        base::ReadText(base::FindTarget(I_sStatus.strFile), base::TEXT_LARGEST).value_or("");
    if (!strText.empty() && strText.compare(0, std::string(OWN_MARK).size(), OWN_MARK) != 0)
        throw base::FAILURE("status file " + base::Quoted(I_sStatus.strFile) +
                            " holds something else already");
    I_sStatus.strLastSuccess = EarlierValue(strText, LAST_SUCCESS + I_sStatus.strLabels);
    I_sStatus.strLastCode = EarlierValue(strText, LAST_CODE + I_sStatus.strLabels);
}

void Write(const STATUS &I_sStatus)
{
    base::ReplaceText(base::FindTarget(I_sStatus.strFile), FileText(I_sStatus), false);
}

// The reader of a pipe may have stopped reading, and the thread has signals to wait for.
void Tell(const std::string &I_strLine)
{
    struct pollfd sError = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&sError, 1, 0) != 1 || (sError.revents & POLLOUT) == 0) return;
    const std::string strLine =
        (isatty(STDERR_FILENO) == 1 ? "\r\x1b[K" : "") + base::Visible(I_strLine) + "\n";
    if (write(STDERR_FILENO, strLine.data(), strLine.size()) == -1) return; // nobody to tell
}

void WriteOrWarn(STATUS &I_sStatus)
{
    if (I_sStatus.strFile.empty()) return;
    try
    {
        Write(I_sStatus);
    } catch (const std::exception &sError)
    {
        if (!I_sStatus.bWarned)
            Tell(std::string("xbsactl: warning: status file: ") + sError.what());
        I_sStatus.bWarned = true;
    }
}

std::string ProgressLine(const STATUS &I_sStatus)
{
    const uint64_t uBytes = I_sStatus.uBytes;
    const uint64_t uExpected = I_sStatus.uExpected;
    std::string strLine = "xbsactl: " + I_sStatus.strWhat + ": " + std::to_string(uBytes);
    if (uExpected > 0) strLine += " of " + std::to_string(uExpected);
    return strLine + " bytes, " + Decimal(Rate(I_sStatus) / 1e6) + " MB/s, " +
           Decimal(Seconds(I_sStatus.sStart)) + " s";
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
    sStatus.sStart = CLOCK::now();
    sStatus.sCounted = sStatus.sStart;
    sStatus.strFile = I_strFile;
    sStatus.bBegun = true;
    if (sStatus.strFile.empty()) return;
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
    STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    sStatus.strWhat = I_strWhat;
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
    STATUS &sStatus = Status();
    std::string strLine;
    {
        const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
        if (sStatus.bBegun && !sStatus.bEnded) strLine = ProgressLine(sStatus);
    }
    if (!strLine.empty()) Tell(strLine);
}

void TickStatus()
{
    STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    if (sStatus.bBegun && !sStatus.bEnded) WriteOrWarn(sStatus);
}

void EndStatus(int I_iExit)
{
    STATUS &sStatus = Status();
    const std::lock_guard<std::mutex> sGuard(sStatus.sMutex);
    if (!sStatus.bBegun || sStatus.bEnded) return;
    sStatus.bEnded = true;
    sStatus.strLastCode = std::to_string(I_iExit);
    if (I_iExit == base::EXIT_DONE) sStatus.strLastSuccess = std::to_string(time(nullptr));
    WriteOrWarn(sStatus);
}
} // namespace transfer
