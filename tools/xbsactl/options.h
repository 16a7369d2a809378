// The command line: every command, its options and help.
#ifndef XBSACTL_OPTIONS_H
#define XBSACTL_OPTIONS_H

#include <optional>

#include "base/settings.h"

// Returns the exit code when nothing is left to do, after help and after an error.
std::optional<int> options_Parse(int argc, char **argv, SETTINGS &I_sSettings);

#endif
