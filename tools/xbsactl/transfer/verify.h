// Compares stored objects with what is known of them. Nothing is written to disk.
#ifndef XBSACTL_VERIFY_H
#define XBSACTL_VERIFY_H

#include <cstdint>
#include <string>

#include "base/settings.h"
#include "library/session.h"

// Reads the object to its confirmed end and returns its bytes. Throws FAILURE, also when its
// SHA-256 is another one.
uint64_t verify_Compare(CSession &I_sSession, const SETTINGS &I_sSettings,
                        BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest);

// The command verify. Returns the exit code.
int verify_Run(const SETTINGS &I_sSettings);

#endif
