// Compares stored objects with what is known of them. Nothing is written to disk.
#ifndef XBSACTL_VERIFY_H
#define XBSACTL_VERIFY_H

#include <cstdint>
#include <string>

#include "transfer/transfer.h"

namespace transfer
{
// Reads the object to its confirmed end and returns its bytes. Throws FAILURE, also when its
// SHA-256 is another one.
uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest);
} // namespace transfer

#endif
