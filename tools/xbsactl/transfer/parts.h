// What the commands of this room share: the manifest, the count of an object's bytes, the status.
#ifndef XBSACTL_TRANSFER_PARTS_H
#define XBSACTL_TRANSFER_PARTS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "base/json.h"
#include "transfer/transfer.h"

namespace transfer
{
constexpr int SCHEMA = 1; // of each --json; raised when a field goes or changes

// What all commands check. Throws USAGE_ERROR, or FAILURE for the password file.
void CheckSession(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions);

// The manifest is a text file that sha256sum -c can read.
struct MANIFEST_ENTRY
{
    std::string strDigest; // 64 digits in lower case; empty: the line is a comment
    std::string strName;   // NAME, or SPACE@NAME of an Informix session
    unsigned uCopyId = 0;  // Informix: the copy that the digest belongs to; 0: not known
    std::string strText;   // as it is in the file
};

// All entries in their order. Throws FAILURE when there is no such file or it holds a line that
// does not belong to a manifest.
std::vector<MANIFEST_ENTRY> ReadManifest(const std::string &I_strFile);

// Puts the entry in the place of an earlier one of that name, and creates the file. Without a name:
// makes sure that it can be done later. Other processes may do so with theirs at the same time.
// Throws FAILURE.
void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry);

struct COUNT
{
    uint64_t uBytes = 0;
    double dSeconds = 0;
    std::string strDigest; // SHA-256 in hexadecimal digits
};

// Counts, hashes and times the bytes of one object, here and for the status, and draws the
// progress bar.
class CMeter
{
  public:
    // I_uExpected: bytes of the whole object, 0 when unknown. The clock starts here. The bar is
    // drawn where it can be seen: it and trace lines on one terminal would spoil each other.
    CMeter(const base::CONNECTION &I_sConnection, uint64_t I_uExpected);
    ~CMeter();

    void Add(std::string_view I_svBytes);
    COUNT End(); // of the count and the clock; clears the bar

  private:
    void Draw();
    void Clear();

    base::CSha256 sHash;
    std::chrono::steady_clock::time_point sStart = std::chrono::steady_clock::now();
    double dDrawn = 0; // when the bar was
    uint64_t uExpected;
    COUNT sCount;
    bool bBar;
    bool bVisible = false;
};

// Reads the object to its confirmed end; I_fpTake gets the bytes. Throws FAILURE.
template <typename TAKE>
COUNT ReceiveObject(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                    BSA_ObjectDescriptor &I_sObject, const TAKE &I_fpTake)
{
    CMeter sMeter(I_sConnection, 0);
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    size_t uLength = library::BLOCK_SIZE;
    I_sSession.Get(I_sObject);
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = I_sSession.Receive(vecBlock.data());
        sMeter.Add({vecBlock.data(), uLength});
        I_fpTake(vecBlock.data(), uLength);
    }
    COUNT sCount = sMeter.End();
    I_sSession.EndData();
    return sCount;
}

// Reads the object and returns its bytes. Throws FAILURE, also when its SHA-256 is another one.
uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest);

// What the line of the status says is being done.
void SayStatus(const std::string &I_strWhat);

// Starts the count, and the clock of the rate, again. I_uExpected: bytes, 0 when unknown.
void CountStatus(uint64_t I_uExpected);

// Megabytes (10^6) a second.
inline double Rate(uint64_t I_uBytes, double I_dSeconds)
{
    return I_dSeconds > 0 ? static_cast<double>(I_uBytes) / 1e6 / I_dSeconds : 0;
}
} // namespace transfer

#endif
