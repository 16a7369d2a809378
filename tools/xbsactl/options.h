// The command line: every command, its options and help.
#ifndef XBSACTL_OPTIONS_H
#define XBSACTL_OPTIONS_H

#include <CLI/CLI.hpp>

#include "settings.h"

void options_Add(CLI::App &I_sApp, SETTINGS &I_sSettings);

#endif
