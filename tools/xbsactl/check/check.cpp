#include "check/check.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>

#include "check/steps.h"

namespace check
{
namespace
{
// The longest wait for one answer.
std::chrono::seconds Bound(const base::CONNECTION &I_sConnection)
{
    constexpr unsigned MOST = 15;
    const unsigned uTimeout = I_sConnection.uTimeout; // 0: no limit
    return std::chrono::seconds(uTimeout == 0 ? MOST : std::min(MOST, uTimeout));
}

// A KORVA server may wait for a tape before it takes an object. Without a limit nothing would ever
// be found.
std::chrono::seconds TapeBound(const base::CONNECTION &I_sConnection)
{
    const unsigned uTimeout = I_sConnection.uTimeout;
    return std::chrono::seconds(uTimeout == 0 ? base::CONNECTION().uTimeout : uTimeout);
}

std::atomic<bool> bStored; // objects of the name below may be on the server

// Objects of another check, on another host, must not be met.
const std::string &ObjectName()
{
    static const std::string strName =
        "xbsactl-check-" + std::to_string(time(nullptr)) + "-" + std::to_string(getpid());
    bStored = true;
    return strName;
}

FINDING Login(const CReport &I_sReport, const std::string &I_strFault)
{
    if (I_strFault.empty()) return Ok("user and password are usable");
    return Fail(I_sReport.Foreign(I_strFault),
                "give the password with XBSA_PASSWORD or --password-file; user and password have "
                "at most 52 bytes together and no \":\"");
}

void Skip(CReport &X_sReport, SESSIONS &X_sSessions, const std::string &I_strWhy)
{
    SkipDialogue(X_sReport, I_strWhy);
    SkipSessions(X_sReport, X_sSessions, I_strWhy);
}

// First what the session said to the server, then what the library made of it.
void Report(CReport &X_sReport, SESSIONS &X_sSessions, const OUTCOME &I_sAlone,
            const sockaddr_in &I_sServer)
{
    if (ReportDialogue(X_sReport, I_sAlone, I_sServer, X_sSessions.sConnection.bInformix))
        ReportSessions(X_sReport, X_sSessions, I_sAlone);
    else SkipSessions(X_sReport, X_sSessions, "the network is not usable");
}

void CheckPlain(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary)
{
    SESSIONS sSessions{I_sConnection, ObjectName(), Bound(I_sConnection), {}};
    const bool bLogin = X_sReport.Add("login", Login(X_sReport, I_sConnection.strLoginFault));
    const SERVER sServer = LookAt(X_sReport, I_sConnection.strHost, sSessions.sSilence);
    const char *cpWhy = I_bLibrary ? nullptr : "the library is not usable";
    if (!bLogin) cpWhy = "user and password cannot be used";
    if (!sServer.bUsable) cpWhy = "the server is not usable";
    if (cpWhy == nullptr) Report(X_sReport, sSessions, RunAlone(sSessions), sServer.sAddress);
    else Skip(X_sReport, sSessions, cpWhy);
    CleanUp(X_sReport, sSessions, sServer.sAddress);
}

// The utility names the server, which is looked at after the session.
void CheckNamed(CReport &X_sReport, SESSIONS &X_sSessions)
{
    const OUTCOME sAlone = RunAlone(X_sSessions);
    const std::string strHost = ServerIn(sAlone);
    if (strHost.empty())
    {
        X_sReport.Add("network.name", NotTried("no session named a server"));
        return ReportSessions(X_sReport, X_sSessions, sAlone);
    }
    const SERVER sServer = LookAt(X_sReport, strHost, Bound(X_sSessions.sConnection));
    if (sServer.bUsable) return Report(X_sReport, X_sSessions, sAlone, sServer.sAddress);
    Skip(X_sReport, X_sSessions, "the server is not usable");
}

void CheckInformix(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                   bool I_bVariables)
{
    SESSIONS sSessions{I_sConnection, ObjectName(), TapeBound(I_sConnection), {}};
    if (CheckUtility(X_sReport, I_sConnection, I_bLibrary, I_bVariables, Bound(I_sConnection)))
        CheckNamed(X_sReport, sSessions);
    else
    {
        X_sReport.Add("network.name", NotTried("no session named a server"));
        SkipSessions(X_sReport, sSessions, "library or utility is not usable");
    }
    CleanUp(X_sReport, sSessions, {});
}

} // namespace

void Stopped()
{
    if (!bStored) return;
    fprintf(stderr, "xbsactl: stopped; what begins with \"%s\" may be left on the server\n",
            ObjectName().c_str());
}

int Run(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    CReport sReport(I_sConnection.strPassword, I_sConnection.bInformix, I_sOptions);
    const CHECKED_LIBRARY sLibrary = CheckLibrary(sReport, I_sConnection.strLibrary);
    if (!I_sOptions.strInformixDir.empty()) CheckDatabase(sReport, I_sOptions, sLibrary);
    const bool bVariables = CheckHost(sReport, I_sConnection);
    const base::CONNECTION sConnection = WithTrace(I_sConnection);
    if (sConnection.bInformix) CheckInformix(sReport, sConnection, sLibrary.bUsable, bVariables);
    else CheckPlain(sReport, sConnection, sLibrary.bUsable);
    bStored = false; // what is left is in the report
    return sReport.Finish();
}
} // namespace check
