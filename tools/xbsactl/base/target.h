// Where a file is read or replaced: a name in a folder that is held open, so that nobody can put
// another folder in its place meanwhile.
#ifndef XBSACTL_TARGET_H
#define XBSACTL_TARGET_H

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>

#include "base/descriptor.h"

namespace base
{
struct TARGET
{
    std::shared_ptr<const CDescriptor> spFolder;
    std::string strName;  // in that folder
    std::string strShown; // in messages

    int Folder() const
    {
        return spFolder->Get();
    }

    // Of the name itself, also when it is a link; nothing when it does not exist. Throws FAILURE,
    // also for what somebody else put there after target_Find.
    std::optional<struct stat> Status() const;

    // Opens the name itself: a link fails with ELOOP. -1 with errno. Throws FAILURE as above.
    int Open(int I_iFlags, mode_t I_uMode = 0) const;

    // Makes a rename in the folder last.
    void SyncFolder() const;
};

// Follows links that belong to this account or to root. Throws FAILURE for a link of anybody else,
// and for what somebody else put into a folder that others may write, like /tmp: in one with a
// sticky bit its group, else everybody.
TARGET FindTarget(const std::string &I_strFile);
} // namespace base

#endif
