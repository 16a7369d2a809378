// The groups of steps, in the order of a check.
#ifndef XBSACTL_CHECK_STEPS_H
#define XBSACTL_CHECK_STEPS_H

#include <netinet/in.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "check/child.h"
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

// "" when it is not set.
std::string Variable(const char *cpName);

// This machine: account, variables and log, and how long it waits for a server that has vanished.
// The connection gets the trace that the environment asks for, as if --trace did. Returns whether an
// Informix session can be tried with the variables.
bool CheckHost(CReport &X_sReport, base::CONNECTION &X_sConnection);

// The COM utility, found and asked by the library. Returns whether a session can be tried.
//   I_bVariables  the KORVA_ variables are usable: without them the utility is not asked
bool CheckUtility(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                  bool I_bVariables, std::chrono::milliseconds I_sBound);

// What only a direct look shows: both ways of the name look-up, and every line of the greeting, of
// which the library reads the first. Returns the address when a session can be tried.
//   I_strHost  HOST[:PORT]
std::optional<sockaddr_in> LookAt(CReport &X_sReport, const std::string &I_strHost,
                                  std::chrono::milliseconds I_sBound);

struct SESSIONS
{
    CReport &sReport;
    base::CONNECTION sConnection;
    std::chrono::milliseconds sSilence; // the longest wait
    std::string strName;                // begins the name of each object
    std::vector<std::string> vecLeft{}; // on the server, perhaps: names, or Informix copy ids
};

// An object there and back through the library. Its trace comes as events of the name "trace".
OUTCOME RunAlone(SESSIONS &X_sSessions);

// HOST:PORT that the utility named in that session; empty for none.
std::string ServerIn(const OUTCOME &I_sAlone);

// The steps network.login to network.end: what that session said to the server and heard from it.
// Returns whether none failed.
//   I_strWhy  why they cannot be tried; empty: they can
bool ReportDialogue(SESSIONS &X_sSessions, const OUTCOME &I_sAlone, const sockaddr_in &I_sServer,
                    const std::string &I_strWhy);

// What the library made of it; when all is well, two sessions at once as well.
void ReportSessions(SESSIONS &X_sSessions, const OUTCOME &I_sAlone, const std::string &I_strWhy);

// Deletes what plain mode has left on the server, on a connection of its own; names the copies of
// Informix sessions, which no client can remove.
void CleanUp(const SESSIONS &I_sSessions, const sockaddr_in &I_sServer);
} // namespace check

#endif
