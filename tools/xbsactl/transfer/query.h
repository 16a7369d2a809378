// The command that lists stored copies. Throws FAILURE, "no match" when there is none.
#ifndef XBSACTL_QUERY_H
#define XBSACTL_QUERY_H

#include "base/settings.h"

void query_Run(const SETTINGS &I_sSettings);

#endif
