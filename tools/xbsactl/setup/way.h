// Who could make a database's path lead to another folder.
#ifndef XBSACTL_SETUP_WAY_H
#define XBSACTL_SETUP_WAY_H

#include <sys/types.h>

#include <string>

namespace setup
{
// Throws FAILURE for a link on the way that belongs to neither root nor the folder's owner.
void CheckLinks(const std::string &I_strFolder, uid_t I_uOwner);

// For a path that is walked again later: also for folders on the way that others own or may write.
void CheckAll(const std::string &I_strFolder, uid_t I_uOwner);
} // namespace setup

#endif
