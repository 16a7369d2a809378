// What was stored and what runs right now.
#ifndef XBSACTL_REPORT_H
#define XBSACTL_REPORT_H

namespace report
{
struct TOP_OPTIONS
{
    bool bOnce = false;
    bool bJson = false;     // JSON instead of a table
    unsigned uInterval = 2; // seconds
};

// Shows the processes of this host that have the library loaded, until it is stopped or once.
// Returns the exit code.
int Top(const TOP_OPTIONS &I_sOptions);
} // namespace report

#endif
