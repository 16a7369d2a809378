// The library as a database has to know it.
#ifndef XBSACTL_SETUP_GUEST_H
#define XBSACTL_SETUP_GUEST_H

#include <string>

namespace setup
{
struct GUEST
{
    std::string strPath; // absolute
    std::string strRow;  // of sm_versions
};

// Loads it, empty for the one that belongs to the tool, and asks it. Throws FAILURE.
GUEST FindGuest(const std::string &I_strLibrary);

// Prints a line for each part of the path that is closed to some account: the database's must be
// able to reach the library.
void WarnOfClosedPath(const std::string &I_strLibrary);
} // namespace setup

#endif
