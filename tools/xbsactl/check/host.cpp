#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "check/parts.h"
#include "xbsa_session.h"

namespace check
{
namespace
{
constexpr uintmax_t MEGABYTE = 1000000;
constexpr uintmax_t LOW_SPACE = 100 * MEGABYTE;
constexpr off_t LARGE_LOG = 1000 * MEGABYTE;
constexpr long SHORTEST_SENDING = 100; // seconds: the least that hosts should wait for each other
constexpr long LONGEST_SENDING = 1000;
constexpr long LONGEST_SILENCE = 10800;
constexpr size_t LOG_ROOM = sizeof(_sGlobal::szLogFile) - 1;

bool IsInGroup(const char *cpGroup)
{
    const group *spGroup = getgrnam(cpGroup);
    return spGroup != nullptr &&
           (spGroup->gr_gid == getegid() || group_member(spGroup->gr_gid) != 0);
}

FINDING Account(bool I_bInformix)
{
    const passwd *spAccount = getpwuid(geteuid());
    const std::string strName = spAccount != nullptr ? spAccount->pw_name : "";
    const std::string strFound = "runs as " + (strName.empty() ? "an unknown account" : strName);
    if (!I_bInformix || geteuid() == 0 || strName == "informix" || IsInGroup("bargroup"))
        return Ok(strFound);
    return Warn(strFound);
}

FINDING Limited(const base::VARIABLE &I_sVariable)
{
    const std::string strValue = base::Variable(I_sVariable.cpName);
    if (strValue.empty() && I_sVariable.bNeeded) return Fail("not set");
    if (strValue.size() > I_sVariable.uRoom)
        return Fail(Text(strValue.size(), " bytes: too long, the library accepts at most ",
                         I_sVariable.uRoom));
    return Ok(strValue.empty() ? "not set, not needed" : Text("\"", strValue, "\""));
}

// For the database's tools: in plain mode xbsactl stores, and always sets it.
FINDING Strict(bool I_bInformix)
{
    const std::string strStrict = base::Variable("KORVA_STRICT");
    if (strStrict == "1") return Ok("\"1\"");
    if (!I_bInformix) return Ok("xbsactl sets it itself; other programs need KORVA_STRICT=1");
    return Warn(strStrict.empty() ? "not set" : Text("\"", strStrict, "\", not \"1\""));
}

std::string Folder(const std::string &I_strFile)
{
    return (std::filesystem::path(".") / I_strFile).parent_path();
}

// Opens without creating: a check creates no log. O_NONBLOCK for a pipe without a reader.
bool IsWritable(const std::string &I_strFile)
{
    const base::CDescriptor sFile(
        open(I_strFile.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC));
    return sFile.Get() != -1 ||
           (errno == ENOENT && access(Folder(I_strFile).c_str(), W_OK | X_OK) == 0);
}

FINDING Log(const std::string &I_strFile, bool I_bWritten)
{
    if (I_strFile.empty()) return Ok("no trace is written");
    const std::string strState = I_strFile + (I_bWritten ? "" : " (tracing is off)");
    if (I_strFile.size() > LOG_ROOM)
        return Fail(Text("the path is longer than ", LOG_ROOM, " bytes"));
    if (!IsWritable(I_strFile))
        return {I_bWritten ? STATUS::FAIL : STATUS::WARN,
                base::SystemFailure("cannot write " + strState).what()};
    struct stat sFile = {};
    if (stat(I_strFile.c_str(), &sFile) == 0 && (sFile.st_mode & S_IWOTH) != 0 &&
        S_ISREG(sFile.st_mode))
        return Warn(strState + ": everybody may write to it", "chmod o-w " + I_strFile);
    std::error_code sError;
    const uintmax_t uFree = std::filesystem::space(Folder(I_strFile), sError).available;
    const std::string strFound =
        Text(strState, ": ", sFile.st_size, " bytes, ", sError ? 0 : uFree / MEGABYTE, " MB free");
    if (!sError && uFree < LOW_SPACE) return Warn("little free space: " + strFound);
    return sFile.st_size > LARGE_LOG ? Warn("a large log: " + strFound) : Ok(strFound);
}

// Adds the finding; where the environment decides, the session writes what it can.
void CheckLog(CReport &X_sReport, base::CONNECTION &X_sConnection)
{
    const bool bAsked = X_sConnection.iTraceLevel != -1;
    const std::string &strFile = X_sConnection.strTraceFile;
    if (!bAsked) base::TakeTraceVariables(X_sConnection);
    X_sReport.Add("log", Log(strFile, X_sConnection.iTraceLevel > 0));
    const std::string strJournal = base::Variable("KORVA_JOURNAL");
    if (!strJournal.empty()) X_sReport.Add("journal", Log(strJournal, true));
    if (!bAsked && !IsWritable(strFile)) X_sConnection.iTraceLevel = 0;
}

// The first wait is 200 ms at least, each further one twice as long, up to two minutes.
long SecondsOfSending(long I_lRetries)
{
    double dSeconds = 0;
    for (int iTry = 0; iTry <= I_lRetries; iTry++)
        dSeconds += std::min(120.0, std::ldexp(0.2, iTry));
    return std::lround(dSeconds);
}

std::string Span(long I_lSeconds)
{
    const long lMinutes = (I_lSeconds + 30) / 60;
    if (I_lSeconds < 180) return Text(I_lSeconds, " s");
    return lMinutes < 180 ? Text(lMinutes, " min") : Text((lMinutes + 30) / 60, " h");
}

// How long the kernel waits for a server that vanishes, and how to change it.
FINDING Wait(bool I_bShown, bool I_bGood, const std::string &I_strFound,
             const std::string &I_strNext)
{
    if (!I_bShown) return NotTried("the system does not show it");
    return I_bGood ? Ok(I_strFound + "; " + I_strNext) : Warn(I_strFound, I_strNext);
}

FINDING Sending()
{
    const long lRetries = Kernel("tcp_retries2");
    const long lSeconds = SecondsOfSending(lRetries);
    const bool bShort = lSeconds < SHORTEST_SENDING;
    return Wait(lRetries != -1, !bShort && lSeconds <= LONGEST_SENDING,
                Text("a server that vanishes while data is sent is noticed after ", Span(lSeconds),
                     " (net.ipv4.tcp_retries2 = ", lRetries, ")",
                     bShort ? ": a short network failure ends a backup" : ""),
                "sysctl -w net.ipv4.tcp_retries2=8 makes it 102 s, 15 makes it 15 min");
}

FINDING Silence()
{
    const long lTime = Kernel("tcp_keepalive_time");
    const long lProbe = Kernel("tcp_keepalive_intvl");
    const long lProbes = Kernel("tcp_keepalive_probes");
    const long lSeconds = lTime + lProbe * lProbes;
    return Wait(std::min({lTime, lProbe, lProbes}) >= 0, lSeconds <= LONGEST_SILENCE,
                Text("a server that vanishes before its reply is noticed after ", Span(lSeconds),
                     " (net.ipv4.tcp_keepalive_time = ", lTime, ", ", lProbes, " probes of ",
                     lProbe, " s)"),
                "sysctl -w net.ipv4.tcp_keepalive_time=600 makes it " +
                    Span(600 + lProbe * lProbes));
}
} // namespace

long Kernel(const char *cpName, int I_iPlace)
{
    std::ifstream sFile(std::string("/proc/sys/net/ipv4/") + cpName);
    long lValue = -1;
    for (int iPlace = 0; iPlace <= I_iPlace; iPlace++) sFile >> lValue;
    return sFile && lValue >= 0 ? lValue : -1;
}

bool CheckHost(CReport &X_sReport, base::CONNECTION &X_sConnection)
{
    bool bGood = true;
    X_sReport.Add("account", Account(X_sConnection.bInformix));
    if (X_sConnection.bInformix)
        for (const base::VARIABLE &sVariable : base::VARIABLES)
            bGood &= X_sReport.Add(Text("variable.", sVariable.cpName), Limited(sVariable));
    X_sReport.Add("variable.KORVA_STRICT", Strict(X_sConnection.bInformix));
    CheckLog(X_sReport, X_sConnection);
    X_sReport.Add("kernel.tcp_retries2", Sending());
    X_sReport.Add("kernel.tcp_keepalive_time", Silence());
    X_sReport.Add("kernel.ip_local_port_range",
                  Ok("the server connects back to a port of this host" + base::LocalPorts()));
    return bGood;
}
} // namespace check
