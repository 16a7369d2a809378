#include "check/host.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "base/base.h"
#include "xbsa_session.h"

namespace
{
constexpr uint64_t MEGABYTE = 1000000;
constexpr uint64_t LOW_SPACE = 100 * MEGABYTE;
constexpr uint64_t LARGE_LOG = 1000 * MEGABYTE;
constexpr long SHORTEST_SENDING = 100; // seconds: what hosts owe each other
constexpr long LONGEST_SENDING = 1000;
constexpr long LONGEST_SILENCE = 10800;
constexpr size_t LOG_ROOM = sizeof(_sGlobal::szLogFile) - 1;

bool IsInGroup(const char *cpGroup)
{
    const group *spGroup = getgrnam(cpGroup);
    if (spGroup == nullptr) return false;
    std::vector<gid_t> vecGroups(static_cast<size_t>(std::max(0, getgroups(0, nullptr))));
    const int iCount = getgroups(static_cast<int>(vecGroups.size()), vecGroups.data());
    vecGroups.resize(static_cast<size_t>(std::max(0, iCount)));
    vecGroups.push_back(getegid());
    return std::find(vecGroups.begin(), vecGroups.end(), spGroup->gr_gid) != vecGroups.end();
}

struct VARIABLE
{
    const char *cpName;
    size_t uRoom;
    bool bNeeded;
};

constexpr std::array<VARIABLE, 6> VARIABLES = {{
    {"KORVA_SERVER", sizeof(STUCT_COM_INPUT::szKORVAServer) - 1, true},
    {"KORVA_JOB", sizeof(STUCT_COM_INPUT::szJobName) - 1, true},
    {"KORVA_TAPE_SERVER", sizeof(STUCT_COM_INPUT::szKORVATapeServer) - 1, false},
    {"KORVA_DRIVE", sizeof(STUCT_COM_INPUT::szDrive) - 1, false},
    {"KORVA_POOL", sizeof(STUCT_COM_INPUT::szPool) - 1, false},
    {"KORVA_COM_TIMEOUT", sizeof(STUCT_COM_INPUT::szCOMTimeOut) - 1, false},
}};

bool CheckVariable(CReport &I_sReport, const VARIABLE &I_sVariable)
{
    const std::string strStep = std::string("variable.") + I_sVariable.cpName;
    const std::string strValue = check_Variable(I_sVariable.cpName);
    if (strValue.empty() && I_sVariable.bNeeded)
    {
        I_sReport.Fail(strStep, "not set",
                       "set it where the database server is started, so that its backup tool has "
                       "it too");
        return false;
    }
    if (strValue.size() > I_sVariable.uRoom)
    {
        I_sReport.Fail(strStep,
                       std::to_string(strValue.size()) + " bytes: too long, the library takes " +
                           std::to_string(I_sVariable.uRoom),
                       "shorten it: a value that is too long is passed over");
        return false;
    }
    I_sReport.Ok(strStep, strValue.empty() ? "not set, not needed" : "\"" + strValue + "\"");
    return true;
}

struct LOG
{
    std::string strFile;
    bool bOn = false; // something is written to it
};

LOG FindLog(const base::CONNECTION &I_sConnection)
{
    if (I_sConnection.iTraceLevel != -1)
        return {I_sConnection.strTraceFile, I_sConnection.iTraceLevel > 0};
    LOG sLog{check_Variable("XBSA_LOGFILE"),
             (atoi(check_Variable("XBSA_TRACE")) & TRACE_VERBOSITY) != 0};
    if (!sLog.strFile.empty()) return sLog;
    const std::string strFolder = check_Variable("INFORMIXDIR");
    if (sLog.bOn)
        sLog.strFile =
            I_sConnection.bInformix && !strFolder.empty() ? strFolder + "/xbsa.log" : "xbsa.log";
    return sLog;
}

std::string Folder(const std::string &I_strFile)
{
    const size_t uSlash = I_strFile.rfind('/');
    if (uSlash == std::string::npos) return ".";
    return uSlash == 0 ? "/" : I_strFile.substr(0, uSlash);
}

// Opens without creating: a check makes no log. O_NONBLOCK for a pipe that nobody reads.
bool IsWritable(const std::string &I_strFile)
{
    const int iFile = open(I_strFile.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
    if (iFile != -1) return close(iFile) == 0;
    return errno == ENOENT && access(Folder(I_strFile).c_str(), W_OK | X_OK) == 0;
}

void CheckLogFile(CReport &I_sReport, const LOG &I_sLog)
{
    const std::string strState = I_sLog.strFile + (I_sLog.bOn ? "" : " (no trace now)");
    if (I_sLog.strFile.size() > LOG_ROOM)
        return I_sReport.Fail("log", "the path is too long",
                              "shorten XBSA_LOGFILE to " + std::to_string(LOG_ROOM) + " bytes");
    if (!IsWritable(I_sLog.strFile))
        return I_sReport.Add({I_sLog.bOn ? STATUS::FAIL : STATUS::WARN, "log",
                              base::SystemFailure("cannot write " + strState).what(),
                              "make the folder and let this account write there: the library drops "
                              "what it cannot write without a word"});
    struct stat sFile
    {
    };
    const bool bThere = stat(I_sLog.strFile.c_str(), &sFile) == 0;
    if (bThere && (sFile.st_mode & S_IWOTH) != 0 && S_ISREG(sFile.st_mode))
        return I_sReport.Warn("log", strState + ": everybody may write it",
                              "chmod o-w " + I_sLog.strFile);
    struct statvfs sSystem
    {
    };
    const bool bKnown = statvfs(Folder(I_sLog.strFile).c_str(), &sSystem) == 0;
    const uint64_t uFree = bKnown ? uint64_t{sSystem.f_bavail} * sSystem.f_frsize : 0;
    const uint64_t uSize = bThere ? static_cast<uint64_t>(sFile.st_size) : 0;
    const std::string strFound = strState + ": " + std::to_string(uSize) + " bytes, " +
                                 std::to_string(uFree / MEGABYTE) + " MB free";
    if (bKnown && uFree < LOW_SPACE)
        return I_sReport.Warn("log", strFound, "make room, or move the log with XBSA_LOGFILE");
    if (uSize > LARGE_LOG)
        return I_sReport.Warn("log", strFound, "rotate it: nothing else makes it smaller");
    I_sReport.Ok("log", strFound);
}

// -1 when the system does not say.
long Kernel(const char *cpName)
{
    std::ifstream sFile(std::string("/proc/sys/net/ipv4/") + cpName);
    long lValue = -1;
    return sFile >> lValue && lValue >= 0 ? lValue : -1;
}

// The first wait is 200 ms at least, each further one twice as long, up to two minutes.
long SecondsOfSending(long I_lRetries)
{
    double dSeconds = 0;
    double dWait = 0.2;
    for (long lTry = 0; lTry <= I_lRetries; lTry++)
    {
        dSeconds += dWait;
        dWait = std::min(120.0, dWait * 2);
    }
    return std::lround(dSeconds);
}

std::string Span(long I_lSeconds)
{
    if (I_lSeconds < 180) return std::to_string(I_lSeconds) + " s";
    const long lMinutes = (I_lSeconds + 30) / 60;
    return lMinutes < 180 ? std::to_string(lMinutes) + " min"
                          : std::to_string((lMinutes + 30) / 60) + " h";
}

void CheckSending(CReport &I_sReport)
{
    const std::string strStep = "kernel.tcp_retries2";
    const long lRetries = Kernel("tcp_retries2");
    if (lRetries == -1) return I_sReport.NotTried(strStep, "the system does not show it");
    const long lSeconds = SecondsOfSending(lRetries);
    const std::string strFound = "a server that vanishes while data is sent is given up after " +
                                 Span(lSeconds) +
                                 " (net.ipv4.tcp_retries2 = " + std::to_string(lRetries) + ")";
    const std::string strNext =
        "sysctl -w net.ipv4.tcp_retries2=8 makes it 102 s, 15 makes it 15 min";
    if (lSeconds < SHORTEST_SENDING)
        return I_sReport.Warn(strStep, strFound + ": a short fault of the network ends a backup",
                              strNext);
    if (lSeconds > LONGEST_SENDING) return I_sReport.Warn(strStep, strFound, strNext);
    I_sReport.Ok(strStep, strFound + "; " + strNext);
}

void CheckSilence(CReport &I_sReport)
{
    const std::string strStep = "kernel.tcp_keepalive_time";
    const long lTime = Kernel("tcp_keepalive_time");
    const long lProbe = Kernel("tcp_keepalive_intvl");
    const long lProbes = Kernel("tcp_keepalive_probes");
    if (lTime == -1 || lProbe == -1 || lProbes == -1)
        return I_sReport.NotTried(strStep, "the system does not show it");
    const long lSeconds = lTime + lProbe * lProbes;
    const std::string strFound =
        "a server that vanishes before its reply is given up after " + Span(lSeconds) +
        " (net.ipv4.tcp_keepalive_time = " + std::to_string(lTime) + ", " +
        std::to_string(lProbes) + " probes of " + std::to_string(lProbe) + " s)";
    const std::string strNext =
        "sysctl -w net.ipv4.tcp_keepalive_time=600 makes it " + Span(600 + lProbe * lProbes);
    if (lSeconds > LONGEST_SILENCE) return I_sReport.Warn(strStep, strFound, strNext);
    I_sReport.Ok(strStep, strFound + "; " + strNext);
}
} // namespace

const char *check_Variable(const char *cpName)
{
    const char *cpValue = getenv(cpName);
    return cpValue != nullptr ? cpValue : "";
}

void check_Account(CReport &I_sReport)
{
    const passwd *spAccount = getpwuid(geteuid());
    const std::string strName = spAccount != nullptr ? spAccount->pw_name : "";
    const std::string strFound = "runs as " + (strName.empty() ? "an unknown account" : strName);
    if (geteuid() == 0 || strName == "informix" || IsInGroup("bargroup"))
        return I_sReport.Ok("account", strFound);
    I_sReport.Warn("account", strFound,
                   "run the check as the account of the backups: informix, root, or one of the "
                   "group bargroup");
}

bool check_Variables(CReport &I_sReport, bool I_bInformix)
{
    bool bGood = true;
    if (I_bInformix)
        for (const VARIABLE &sVariable : VARIABLES)
            bGood = CheckVariable(I_sReport, sVariable) && bGood;
    const std::string strStrict = check_Variable("KORVA_STRICT");
    if (strStrict == "1") I_sReport.Ok("variable.KORVA_STRICT", "\"1\"");
    else
        I_sReport.Warn("variable.KORVA_STRICT",
                       strStrict.empty() ? "not set" : "\"" + strStrict + "\", not \"1\"",
                       "set it to 1 for the database's processes, or results may hide a failure; "
                       "xbsactl itself always does");
    return bGood;
}

void check_Kernel(CReport &I_sReport)
{
    CheckSending(I_sReport);
    CheckSilence(I_sReport);
}

void check_Log(CReport &I_sReport, const base::CONNECTION &I_sConnection)
{
    const LOG sLog = FindLog(I_sConnection);
    if (sLog.strFile.empty()) I_sReport.Ok("log", "none is written");
    else CheckLogFile(I_sReport, sLog);
}
