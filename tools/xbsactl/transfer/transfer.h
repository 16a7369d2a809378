// The commands that move objects, list them, and compare them with the records; and their progress
// for others to read: a line after SIGUSR1, and the file of --status.
#ifndef XBSACTL_TRANSFER_H
#define XBSACTL_TRANSFER_H

#include <string>
#include <vector>

#include "library/library.h"

namespace transfer
{
struct OPTIONS
{
    library::OBJECT sObject;
    std::string strFile = "-";            // "-": standard input or output
    bool bJson = false;                   // JSON instead of a text
    bool bVerify = false;                 // store: read back
    bool bAll = false;                    // verify: every object of the manifest
    std::string strManifest;              // empty: none is kept
    std::vector<std::string> vecJournals; // verify: of the library, instead of the manifest
    bool bNewest = false;                 // only the newest copy of each object in the journals
    std::string strSample;                // "N/T": other N of T shares each day; empty: all
    unsigned uJobs = 1;                   // processes at once
    std::string strStatus;                // progress and result for others to read; empty: none
};

// The commands check their settings, and read the password. All throw FAILURE, also for a query
// without a match.
void Store(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);
void Restore(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);
void Query(base::CONNECTION &X_sConnection, OPTIONS &X_sOptions);
void Verify(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);

// Starts the clock and writes the file for the first time, if one is wanted. Throws FAILURE when
// it cannot be written or is another's.
void BeginStatus(const std::string &I_strCommand, const std::string &I_strName,
                 const std::string &I_strFile);

// For the thread that waits for signals. Prints one line to standard error, or none when nobody
// reads, because the thread must not wait; and rewrites the file: a failure causes one warning
// only.
void PrintStatus();
void TickStatus();

// Writes the file for the last time; the first call counts. Any thread.
void EndStatus(int I_iExit);

// The object's name in a manifest; empty for all objects.
std::string ManifestName(const base::CONNECTION &I_sConnection, const library::OBJECT &I_sObject);
} // namespace transfer

#endif
