// What the commands of this room share: the manifest, the count of an object's bytes, the status.
#ifndef XBSACTL_TRANSFER_PARTS_H
#define XBSACTL_TRANSFER_PARTS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"
#include "transfer/transfer.h"

namespace transfer
{
constexpr int SCHEMA = 1; // of each --json; raised when a field is removed or changed

// What all commands check. Throws USAGE_ERROR, or FAILURE for the password file.
void CheckSession(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);

// The manifest is a text file that sha256sum -c can read.
struct MANIFEST_ENTRY
{
    std::string strDigest; // 64 digits in lower case; empty: the line is a comment
    std::string strName;   // NAME, or SPACE@NAME in Informix mode
    unsigned uCopyId = 0;  // Informix: the copy that the digest belongs to; 0: not known
    std::string strText;   // as it is in the file

    // Of an entry of a journal, whose digest is an XXH3-128:
    std::optional<uint64_t> uBytes{};
    std::string strFolder{}; // on the server in plain mode
};

// All entries in their order. Throws FAILURE when the file does not exist, or contains a line that
// does not belong to a manifest.
std::vector<MANIFEST_ENTRY> ReadManifest(const std::string &I_strFile);

// The last good store of each object, or of each copy, that the journals record and the options
// choose. Throws FAILURE when there is none.
std::vector<MANIFEST_ENTRY> JournalEntries(const base::CONNECTION &I_sConnection,
                                           const OPTIONS &I_sOptions);

// Replaces an earlier entry of that name, or adds the entry, and creates the file. Without a name:
// checks that this can be done later; without a file: nothing. Other processes may add entries at
// the same time. Throws FAILURE.
void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry);

struct COUNT
{
    uint64_t uBytes = 0;
    double dSeconds = 0;   // since CountStatus
    double dRate = 0;      // megabytes (10^6) a second
    std::string strDigest; // SHA-256 in hexadecimal digits
    std::string strXxh128; // XXH3-128, the same
};

// Moves the bytes of an open object up to its confirmed end: counts them for the status, hashes
// them, and draws the progress bar. I_fpMove moves a block of up to BLOCK_SIZE bytes through the
// buffer and returns its length; a shorter one is the last. Throws FAILURE.
COUNT MoveObject(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 const std::function<size_t(char *cpBlock)> &I_fpMove);

// Reads the object and returns its bytes. Throws FAILURE, also when it is not what the entry says.
uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const MANIFEST_ENTRY &I_sEntry);

// The results for the objects of a list, by their places in it.
using WORK = std::function<base::JSON(library::CSession &X_sSession, size_t I_uObject)>;
using TAKE = std::function<void(size_t I_uObject, const base::JSON &I_sVerdict)>;

// Divides the objects among that many processes, each with its own session, and takes their
// verdicts as they come. An object that no process reached gets a verdict with "error".
void RunJobs(const base::CONNECTION &I_sConnection, unsigned I_uJobs, size_t I_uObjects,
             const WORK &I_fpWork, const TAKE &I_fpTake);

// Sets what the status line shows as the current task.
void SayStatus(const std::string &I_strWhat);

// The bytes moved since the last call, in the process that moves them; adds them in another one.
uint64_t TakeMoved();
void AddStatus(uint64_t I_uBytes);

// How many objects were found the same or not.
void CountVerified(size_t I_uGood, size_t I_uBad);

// In a child process: leaves the parent's file and progress bar alone.
void LeaveStatus();

// Starts the count, and the clock of the rate, again. I_uExpected: bytes, 0 when unknown.
void CountStatus(uint64_t I_uExpected);
} // namespace transfer

#endif
