// The commands that move an object, on either road. Both throw FAILURE.
#ifndef XBSACTL_TRANSFER_H
#define XBSACTL_TRANSFER_H

#include "base/settings.h"

void transfer_Store(const SETTINGS &I_sSettings);
void transfer_Restore(const SETTINGS &I_sSettings);

#endif
