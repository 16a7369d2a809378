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

unsigned Bound(const SETTINGS &I_sSettings)
{
    return I_sSettings.uTimeout == 0 ? BOUND : std::min(BOUND, I_sSettings.uTimeout);
}

// A KORVA server may wait for a tape before it takes an object. Without a limit nothing would ever
// be found.
unsigned TapeBound(const SETTINGS &I_sSettings)
{
    return I_sSettings.uTimeout == 0 ? SETTINGS().uTimeout : I_sSettings.uTimeout;
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

void CheckPlain(CReport &I_sReport, const SETTINGS &I_sSettings, bool I_bLibrary)
{
    const std::chrono::seconds sBound(Bound(I_sSettings));
    const std::string &strName = ObjectName();
    if (I_sSettings.strLoginFault.empty()) I_sReport.Ok("login", "user and password are usable");
    else
        I_sReport.Fail("login", I_sReport.Foreign(I_sSettings.strLoginFault),
                       "give the password with XBSA_PASSWORD or --password-file; user and password "
                       "have at most 52 bytes together and no \":\"");

    CProbe sProbe(I_sReport, I_sSettings, I_sSettings.strHost, sBound);
    CRoundTrips sTrips(I_sReport, I_sSettings, strName, sBound);
    const bool bWay = sProbe.All(strName);
    if (bWay && I_bLibrary) sTrips.Run();
    else sTrips.NotTried(bWay ? "the library is not usable" : "the network is not usable");
    std::vector<std::string> vecLeft = sTrips.Names();
    if (sProbe.LeftObject()) vecLeft.push_back(strName);
    cleanup_Objects(I_sReport, I_sSettings, sProbe.Server(), sBound, vecLeft);
}

void CheckInformix(CReport &I_sReport, const SETTINGS &I_sSettings, bool I_bLibrary,
                   bool I_bVariables)
{
    const std::chrono::seconds sBound(Bound(I_sSettings));
    const bool bUtility = check_Com(I_sReport, I_bVariables, sBound);
    CRoundTrips sTrips(I_sReport, I_sSettings, ObjectName(),
                       std::chrono::seconds(TapeBound(I_sSettings)));
    if (bUtility && I_bLibrary) sTrips.Run();
    else sTrips.NotTried(I_bLibrary ? "the utility is not usable" : "the library is not usable");
    if (sTrips.Host().empty()) I_sReport.NotTried("network.name", "no session named a server");
    else CProbe(I_sReport, I_sSettings, sTrips.Host(), sBound).Greeting();
    cleanup_Copies(I_sReport, sTrips.Copies());
}
} // namespace

void check_Stopped()
{
    if (!bStored) return;
    fprintf(stderr, "xbsactl: stopped; what begins with \"%s\" may be left on the server\n",
            ObjectName().c_str());
}

int check_Run(const SETTINGS &I_sSettings)
{
    CReport sReport(I_sSettings);
    const CHECKED_LIBRARY sLibrary = check_Library(sReport, I_sSettings);
    check_Database(sReport, I_sSettings, sLibrary);
    check_Account(sReport);
    const bool bVariables = check_Variables(sReport, I_sSettings.bInformix);
    check_Log(sReport, I_sSettings);
    check_Kernel(sReport);
    if (I_sSettings.bInformix) CheckInformix(sReport, I_sSettings, sLibrary.bUsable, bVariables);
    else CheckPlain(sReport, I_sSettings, sLibrary.bUsable);
    bStored = false; // what is left has been told
    return sReport.Finish();
}
