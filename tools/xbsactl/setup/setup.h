// Hooks the library into a database server, and reverts that.
#ifndef XBSACTL_SETUP_H
#define XBSACTL_SETUP_H

#include <string>

namespace setup
{
struct OPTIONS
{
    std::string strInformixDir; // the database's directory
    std::string strOnconfig;    // name of the configuration file; empty: ONCONFIG, else "onconfig"
    std::string strLibrary;     // empty: the default search
    bool bDryRun = false;
    bool bYes = false; // without asking
    bool bUndo = false;
    bool bLogrotate = false; // print the rotation of the logs, and nothing else
};

// Returns the exit code.
int Run(const OPTIONS &I_sOptions);
} // namespace setup

#endif
