#include "check/parts.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>

namespace check
{
namespace
{
// The longest wait for one answer: --timeout, but not 0 (no limit), which would hang. A KORVA
// server may wait for a tape before it takes an object.
std::chrono::seconds Bound(const base::CONNECTION &I_sConnection, bool I_bTape)
{
    constexpr unsigned MOST = 15;
    const unsigned uTimeout =
        I_sConnection.uTimeout == 0 ? base::CONNECTION().uTimeout : I_sConnection.uTimeout;
    return std::chrono::seconds(I_bTape ? uTimeout : std::min(MOST, uTimeout));
}

std::atomic<bool> bStored; // objects of the name below may be on the server

// Objects of another check, perhaps on another host, must not collide.
const std::string &ObjectName()
{
    static const std::string strName =
        "xbsactl-check-" + std::to_string(time(nullptr)) + "-" + std::to_string(getpid());
    bStored = true;
    return strName;
}

FINDING Login(const CReport &I_sReport, const base::CONNECTION &I_sConnection)
{
    const std::string &strFile = I_sConnection.strPasswordFile;
    if (!I_sConnection.strLoginFault.empty())
        return Fail(I_sReport.Foreign(I_sConnection.strLoginFault));
    if (base::IsOpenToOthers(strFile)) return Warn(strFile + " is open to other accounts");
    return Ok("user and password are usable");
}

// First the session's commands and replies, then the library's results.
void Report(SESSIONS &X_sSessions, const OUTCOME &I_sAlone,
            const std::optional<sockaddr_in> &I_sServer, std::string I_strWhy)
{
    if (!I_sServer) I_strWhy = "the server is not usable";
    const bool bNetwork =
        ReportDialogue(X_sSessions, I_sAlone, I_sServer.value_or(sockaddr_in()), I_strWhy);
    if (!bNetwork && I_strWhy.empty()) I_strWhy = "the network is not usable";
    ReportSessions(X_sSessions, I_sAlone, I_strWhy);
}

void CheckPlain(SESSIONS &X_sSessions, bool I_bLibrary)
{
    const base::CONNECTION &sConnection = X_sSessions.sConnection;
    CReport &sReport = X_sSessions.sReport;
    const bool bLogin = sReport.Add("login", Login(sReport, sConnection));
    const auto sServer = LookAt(sReport, sConnection.strHost, X_sSessions.sSilence);
    std::string strWhy = I_bLibrary ? "" : "the library is not usable";
    if (!bLogin) strWhy = "user and password cannot be used";
    const bool bTried = sServer && strWhy.empty();
    Report(X_sSessions, bTried ? RunAlone(X_sSessions) : OUTCOME(), sServer, strWhy);
    if (sServer) CleanUp(X_sSessions, *sServer);
}

// The utility names the server, which is examined after the session.
void CheckInformix(SESSIONS &X_sSessions, bool I_bLibrary, bool I_bVariables)
{
    const base::CONNECTION &sConnection = X_sSessions.sConnection;
    CReport &sReport = X_sSessions.sReport;
    const std::chrono::milliseconds sBound = X_sSessions.sSilence;
    X_sSessions.sSilence = Bound(sConnection, true);
    const bool bUtility = CheckUtility(sReport, sConnection, I_bLibrary, I_bVariables, sBound);
    const OUTCOME sAlone = bUtility ? RunAlone(X_sSessions) : OUTCOME();
    const std::string strHost = ServerIn(sAlone);
    if (!strHost.empty()) Report(X_sSessions, sAlone, LookAt(sReport, strHost, sBound), "");
    else
    {
        sReport.Add("network.name", NotTried("no session named a server"));
        ReportSessions(X_sSessions, sAlone,
                       bUtility ? "" : "the library or the COM utility is not usable");
    }
    CleanUp(X_sSessions, {});
}

} // namespace

void Stopped()
{
    if (!bStored) return;
    fprintf(stderr,
            "xbsactl: stopped; objects whose names begin with \"%s\" may be left on the server\n",
            ObjectName().c_str());
}

int Run(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    CReport sReport(I_sConnection, I_sOptions);
    const bool bDatabase = !I_sOptions.strInformixDir.empty();
    const CHECKED_LIBRARY sLibrary =
        CheckLibrary(sReport, I_sConnection.strLibrary, bDatabase || I_sConnection.bInformix);
    const long lStreams = bDatabase ? CheckDatabase(sReport, I_sOptions, sLibrary) : 0;
    SESSIONS sSessions{sReport, I_sConnection, Bound(I_sConnection, false), ObjectName(), lStreams};
    const bool bVariables = CheckHost(sReport, sSessions.sConnection);
    if (I_sConnection.bInformix) CheckInformix(sSessions, sLibrary.bUsable, bVariables);
    else CheckPlain(sSessions, sLibrary.bUsable);
    bStored = false; // what is left is in the report
    return sReport.Finish();
}
} // namespace check
