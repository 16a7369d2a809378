#include "check/check.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>

#include "check/cleanup.h"
#include "check/com.h"
#include "check/database.h"
#include "check/host.h"
#include "check/library.h"
#include "check/network.h"
#include "check/report.h"
#include "check/roundtrip.h"

namespace
{
constexpr unsigned BOUND = 15; // seconds: the longest wait for one answer

unsigned Bound(const base::CONNECTION &I_sConnection)
{
    return I_sConnection.uTimeout == 0 ? BOUND : std::min(BOUND, I_sConnection.uTimeout);
}

// A KORVA server may wait for a tape before it takes an object. Without a limit nothing would ever
// be found.
unsigned TapeBound(const base::CONNECTION &I_sConnection)
{
    return I_sConnection.uTimeout == 0 ? base::CONNECTION().uTimeout : I_sConnection.uTimeout;
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

void CheckPlain(CReport &I_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary)
{
    const std::chrono::seconds sBound(Bound(I_sConnection));
    const std::string &strName = ObjectName();
    if (I_sConnection.strLoginFault.empty()) I_sReport.Ok("login", "user and password are usable");
    else
        I_sReport.Fail("login", I_sReport.Foreign(I_sConnection.strLoginFault),
                       "give the password with XBSA_PASSWORD or --password-file; user and password "
                       "have at most 52 bytes together and no \":\"");

    CProbe sProbe(I_sReport, I_sConnection, I_sConnection.strHost, sBound);
    CRoundTrips sTrips(I_sReport, I_sConnection, strName, sBound);
    const bool bWay = sProbe.All(strName);
    if (bWay && I_bLibrary) sTrips.Run();
    else sTrips.NotTried(bWay ? "the library is not usable" : "the network is not usable");
    std::vector<std::string> vecLeft = sTrips.Names();
    if (sProbe.LeftObject()) vecLeft.push_back(strName);
    cleanup_Objects(I_sReport, I_sConnection, sProbe.Server(), sBound, vecLeft);
}

void CheckInformix(CReport &I_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                   bool I_bVariables)
{
    const std::chrono::seconds sBound(Bound(I_sConnection));
    const bool bUtility = check_Com(I_sReport, I_bVariables, sBound);
    CRoundTrips sTrips(I_sReport, I_sConnection, ObjectName(),
                       std::chrono::seconds(TapeBound(I_sConnection)));
    if (bUtility && I_bLibrary) sTrips.Run();
    else sTrips.NotTried(I_bLibrary ? "the utility is not usable" : "the library is not usable");
    if (sTrips.Host().empty()) I_sReport.NotTried("network.name", "no session named a server");
    else CProbe(I_sReport, I_sConnection, sTrips.Host(), sBound).Greeting();
    cleanup_Copies(I_sReport, sTrips.Copies());
}
} // namespace

void check::Stopped()
{
    if (!bStored) return;
    fprintf(stderr, "xbsactl: stopped; what begins with \"%s\" may be left on the server\n",
            ObjectName().c_str());
}

int check::Run(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    CReport sReport(I_sConnection, I_sOptions.bJson);
    const CHECKED_LIBRARY sLibrary = check_Library(sReport, I_sConnection);
    check_Database(sReport, I_sOptions.strInformixDir, sLibrary);
    check_Account(sReport);
    const bool bVariables = check_Variables(sReport, I_sConnection.bInformix);
    check_Log(sReport, I_sConnection);
    check_Kernel(sReport);
    if (I_sConnection.bInformix)
        CheckInformix(sReport, I_sConnection, sLibrary.bUsable, bVariables);
    else CheckPlain(sReport, I_sConnection, sLibrary.bUsable);
    bStored = false; // what is left has been told
    return sReport.Finish();
}
