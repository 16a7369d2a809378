// The local list of what was stored: a text file that sha256sum -c can read.
#ifndef XBSACTL_MANIFEST_H
#define XBSACTL_MANIFEST_H

#include <string>
#include <vector>

#include "transfer/transfer.h"

namespace transfer
{
struct MANIFEST_ENTRY
{
    std::string strDigest; // 64 digits in lower case
    std::string strName;   // NAME, or SPACE@NAME of an Informix session
    unsigned uCopyId = 0;  // Informix: the copy that the digest belongs to; 0: not known
};

// All entries in their order. Throws FAILURE when there is no such file or it holds a line that is
// none of a manifest.
std::vector<MANIFEST_ENTRY> ReadManifest(const std::string &I_strFile);

// Makes sure that an entry can be put into the file later; creates it. Throws FAILURE.
void PrepareManifest(const std::string &I_strFile);

// Puts the entry in the place of an earlier one of that name. Other processes may do so with
// theirs at the same time. Throws FAILURE.
void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry);
} // namespace transfer

#endif
