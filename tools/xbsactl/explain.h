// The catalogue of return codes and messages.
#ifndef XBSACTL_EXPLAIN_H
#define XBSACTL_EXPLAIN_H

#include "settings.h"

void explain_Run(const SETTINGS &I_sSettings);

#endif
