// What was stored, according to the library's journals: a reader, for other rooms too, and the
// report on the last good copy of each object. And what runs right now.
#ifndef XBSACTL_REPORT_H
#define XBSACTL_REPORT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace report
{
// A line of a journal.
struct ENTRY
{
    int64_t iTime = 0; // seconds since 1970, at the end of the object
    long lProcess = 0;
    bool bInformix = false;
    bool bStore = false; // else a restore
    bool bGood = false;
    std::string strSpace; // in the bytes that the server knows
    std::string strPath;
    unsigned uCopyId = 0;
    uint64_t uBytes = 0;
    double dSeconds = 0;
    std::string strError;
    std::string strDigest; // XXH3-128 in 32 digits
    std::string strText;   // the JSON
};

// As shown: SPACE@PATH, in plain mode the name with its directory.
std::string Name(const ENTRY &I_sEntry);

// Calls the function for each entry of the journals and of the rotated ones beside them, which
// logrotate names FILE.1, FILE-20261126 and so on, compressed or not. Warns of lines that it cannot
// use. Needs memory for one line only. Throws FAILURE.
void ReadJournals(const std::vector<std::string> &I_vecFiles,
                  const std::function<void(ENTRY &&)> &I_fpTake);

struct OPTIONS
{
    std::vector<std::string> vecJournals;
    std::vector<std::string> vecSpaces; // none: all
    uint64_t uMaxAge = 0;               // seconds; 0: any
    uint64_t uMinSize = 0;              // bytes
    std::string strPrometheus;          // empty: no file is written
    std::string strActLog;              // of the database; empty: none
    bool bJson = false;                 // JSON instead of a table
    bool bNagios = false;               // one line and the exit codes of a monitoring plug-in
};

int Run(const OPTIONS &I_sOptions); // returns the exit code

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
