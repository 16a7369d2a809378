#include "check/check.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>

#include "check/dialogue.h"
#include "check/probe.h"
#include "check/steps.h"
#include "check/trips.h"

namespace check
{
namespace
{
constexpr unsigned BOUND = 15; // seconds: the longest wait for one answer

std::chrono::seconds Bound(const base::CONNECTION &I_sConnection)
{
    const unsigned uTimeout = I_sConnection.uTimeout;
    return std::chrono::seconds(uTimeout == 0 ? BOUND : std::min(BOUND, uTimeout));
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

// What a session found: first what it said to the server, then what the library made of it.
void Judge(CReport &X_sReport, const base::CONNECTION &I_sConnection, CProbe &X_sProbe,
           CTrips &X_sTrips, const OUTCOME &I_sAlone)
{
    CDialogue sDialogue(X_sReport, I_sAlone);
    const bool bLeft = sDialogue.LeftObject();
    if (!I_sConnection.bInformix && bLeft) X_sTrips.vecLeft.push_back(X_sTrips.AloneName());
    if (I_sConnection.bInformix && !sDialogue.Copy().empty())
        X_sTrips.vecLeft.push_back(sDialogue.Copy());
    if (sDialogue.Report(X_sProbe.Server(), I_sConnection.bInformix)) X_sTrips.Report(I_sAlone);
    else X_sTrips.NotTried("the network is not usable");
}

FINDING Login(const CReport &I_sReport, const std::string &I_strFault)
{
    if (I_strFault.empty()) return Ok("user and password are usable");
    return Fail(I_sReport.Foreign(I_strFault),
                "give the password with XBSA_PASSWORD or --password-file; user and password have "
                "at most 52 bytes together and no \":\"");
}

void CheckPlain(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary)
{
    const std::chrono::seconds sBound = Bound(I_sConnection);
    CTrips sTrips(X_sReport, I_sConnection, ObjectName(), sBound);
    CProbe sProbe(X_sReport, I_sConnection.strHost, sBound);
    const bool bLogin = X_sReport.Add("login", Login(X_sReport, I_sConnection.strLoginFault));
    const bool bServer = sProbe.Run();
    if (bLogin && bServer && I_bLibrary)
        Judge(X_sReport, I_sConnection, sProbe, sTrips, sTrips.Alone());
    else
    {
        CDialogue::NotTried(X_sReport, !bServer  ? "an earlier step failed"
                                       : !bLogin ? "user and password cannot be used"
                                                 : "the library is not usable");
        sTrips.NotTried(bServer && bLogin ? "the library is not usable"
                                          : "the network is not usable");
    }
    CleanUp(X_sReport, I_sConnection, sProbe.Server(), sBound, sTrips.vecLeft);
}

// The utility names the server: it is looked at after the session.
void CheckNamed(CReport &X_sReport, const base::CONNECTION &I_sConnection, CTrips &X_sTrips)
{
    const OUTCOME sAlone = X_sTrips.Alone();
    const std::string strHost = CDialogue(X_sReport, sAlone).Host();
    if (strHost.empty())
    {
        X_sReport.NotTried({"network.name"}, "no session named a server");
        return X_sTrips.Report(sAlone);
    }
    CProbe sProbe(X_sReport, strHost, Bound(I_sConnection));
    if (sProbe.Run()) return Judge(X_sReport, I_sConnection, sProbe, X_sTrips, sAlone);
    CDialogue::NotTried(X_sReport, "an earlier step failed");
    X_sTrips.NotTried("the network is not usable");
}

void CheckInformix(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                   bool I_bVariables)
{
    CTrips sTrips(X_sReport, I_sConnection, ObjectName(), TapeBound(I_sConnection));
    if (!I_bLibrary)
        X_sReport.NotTried({"ini.file", "ini.key", "utility.file", "utility.query"},
                           "the library is not usable");
    if (I_bLibrary && CheckUtility(X_sReport, I_sConnection, I_bVariables, Bound(I_sConnection)))
        CheckNamed(X_sReport, I_sConnection, sTrips);
    else
    {
        X_sReport.NotTried({"network.name"}, "no session named a server");
        sTrips.NotTried(I_bLibrary ? "the utility is not usable" : "the library is not usable");
    }
    CleanUp(X_sReport, I_sConnection, {}, {}, sTrips.vecLeft);
}

int RunSteps(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
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
} // namespace

void Stopped()
{
    if (!bStored) return;
    fprintf(stderr, "xbsactl: stopped; what begins with \"%s\" may be left on the server\n",
            ObjectName().c_str());
}

int Run(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    try
    {
        return RunSteps(I_sConnection, I_sOptions);
    } catch (const std::exception &sError)
    {
        if (!I_sOptions.bNagios) throw;
        return NagiosUnknown(sError.what());
    }
}
} // namespace check
