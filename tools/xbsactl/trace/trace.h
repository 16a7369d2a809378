// The reader of trace logs.
#ifndef XBSACTL_TRACELOG_H
#define XBSACTL_TRACELOG_H

#include "base/settings.h"

void tracelog_Run(const SETTINGS &I_sSettings);

#endif
