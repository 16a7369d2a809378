// Hooks the library into a database server. Returns the exit code.
#ifndef XBSACTL_SETUP_H
#define XBSACTL_SETUP_H

#include "base/settings.h"

int setup_Run(const SETTINGS &I_sSettings);

#endif
