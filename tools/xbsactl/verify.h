// Compares stored objects with the manifest. Returns the exit code.
#ifndef XBSACTL_VERIFY_H
#define XBSACTL_VERIFY_H

#include "settings.h"

int verify_Run(const SETTINGS &I_sSettings);

#endif
