// Tests the way to the server before a backup: each step with its finding and, when not ok, what to
// do. Returns the exit code.
#ifndef XBSACTL_CHECK_H
#define XBSACTL_CHECK_H

#include "base/base.h"

namespace check
{
struct OPTIONS
{
    std::string strInformixDir; // the database's directory; empty: it is not checked
    std::string strOnconfig;    // name of its configuration file; empty: ONCONFIG, else "onconfig"
    bool bNoLogs = false;       // the database's logs are not backed up, on purpose
    bool bJson = false;         // JSON instead of lines
    bool bNagios = false;       // one line and the exit codes of a monitoring plug-in
};

// Prints what a check that a signal ends may leave on the server.
void Stopped();

// Prints the line for --nagios when the check cannot be run, and why. Returns the exit code.
int NagiosUnknown(std::string I_strReason);

int Run(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions);
} // namespace check

#endif
