// A database's folder, and the account that its files belong to.
#ifndef XBSACTL_SETUP_PLACE_H
#define XBSACTL_SETUP_PLACE_H

#include <memory>
#include <string>

#include "base/base.h"
#include "setup/setup.h"

namespace setup
{
struct PLACE
{
    std::string strFolder;   // absolute
    std::string strOnconfig; // below it
    std::shared_ptr<const base::CDescriptor>
        spEtc; // both are held open: what is swapped on the way to
    std::shared_ptr<const base::CDescriptor>
        spLib; // them later changes nothing. Null: there is no lib
};

// Finds the files and becomes the account that owns the onconfig, for good, when root runs: what
// it does not own is not written, and whatever it puts in the way is met with its own rights.
// Throws FAILURE and USAGE_ERROR.
PLACE Enter(const OPTIONS &I_sOptions);

// The file's path, for messages.
std::string PathOf(const PLACE &I_sPlace, const std::string &I_strFile);

// Whether the link belongs there. Prints a line when it cannot be made: the onconfig names the
// library, so that it is a convenience.
bool MayWriteLib(const PLACE &I_sPlace);

// The text for logrotate. Nothing of it comes from a file that the folder's owner can write.
std::string Rotation(const OPTIONS &I_sOptions);
} // namespace setup

#endif
