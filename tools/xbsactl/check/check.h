// The pre-flight of the way to the server: each step with its finding and, when not ok, the next
// step in plain words. Returns the exit code.
#ifndef XBSACTL_CHECK_H
#define XBSACTL_CHECK_H

#include "base/settings.h"

// Tells what a check that a signal ends may leave on the server.
void check_Stopped();

int check_Run(const SETTINGS &I_sSettings);

#endif
