// The groups of steps that speak to no server themselves.
#ifndef XBSACTL_CHECK_STEPS_H
#define XBSACTL_CHECK_STEPS_H

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <vector>

#include "check/report.h"

namespace check
{
struct CHECKED_LIBRARY
{
    bool bUsable = false;
    std::string strPath; // of the file, without links; empty when there is none
    std::string strRow;  // for sm_versions; empty when the library did not show its version
};

// The library as a file, loaded, and by its own word.
CHECKED_LIBRARY CheckLibrary(CReport &X_sReport, const std::string &I_strLibrary);

// The files that lead the database's backup tool to the library.
void CheckDatabase(CReport &X_sReport, const OPTIONS &I_sOptions,
                   const CHECKED_LIBRARY &I_sLibrary);

// This machine: account, variables and log, and how long it waits for a server that has vanished.
// Returns whether an Informix session can be tried with the variables.
bool CheckHost(CReport &X_sReport, const base::CONNECTION &I_sConnection);

// The connection with the trace that the environment asks for, as if --trace did.
base::CONNECTION WithTrace(base::CONNECTION I_sConnection);

// The COM utility, found and asked by the library. Returns whether a session can be tried.
//   I_bVariables  the KORVA_ variables are usable: without them the utility is not asked
bool CheckUtility(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bVariables,
                  std::chrono::milliseconds I_sBound);

// What the check has left on the server: deletes the objects of plain mode on a connection of its
// own; names the copies of Informix sessions, which no client can remove.
void CleanUp(CReport &X_sReport, const base::CONNECTION &I_sConnection,
             const sockaddr_in &I_sServer, std::chrono::milliseconds I_sBound,
             const std::vector<std::string> &I_vecLeft);
} // namespace check

#endif
