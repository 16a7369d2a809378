// The commands that move objects, list them, and compare them with what is known of them; and what
// is under way, for others to read: a line when SIGUSR1 asks for it, and the file of --status.
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
    bool bNewest = false;                 // the newest copy of each object of the journals alone
    std::string strSample;                // "N/T": another N of T shares each night; empty: all
    unsigned uJobs = 1;                   // processes at once
    std::string strStatus;                // progress and result for others to read; empty: none
};

// The commands check their settings, and take the password. All throw FAILURE; "no match" of a
// query is one.
void Store(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);
void Restore(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);
void Query(base::CONNECTION &X_sConnection, OPTIONS &X_sOptions);
void Verify(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);

// Starts the clock and writes the file for the first time, if one is wanted. Throws FAILURE when
// it cannot be written or is another's.
void BeginStatus(const std::string &I_strCommand, const std::string &I_strName,
                 const std::string &I_strFile);

// For stop.h's thread. One line to standard error, none when nobody reads there, for it must not
// wait; and the file once more: failures are warned of once, and end nothing.
void PrintStatus();
void TickStatus();

// Writes the file for the last time; the first call counts. Any thread.
void EndStatus(int I_iExit);

// The name under which the object stands in a manifest; empty for all objects.
std::string ManifestName(const base::CONNECTION &I_sConnection, const library::OBJECT &I_sObject);
} // namespace transfer

#endif
