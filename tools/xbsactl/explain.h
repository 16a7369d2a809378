// The catalogue of return codes and messages.
#ifndef XBSACTL_EXPLAIN_H
#define XBSACTL_EXPLAIN_H

#include <string>

#include "settings.h"

void explain_Run(const SETTINGS &I_sSettings);

// What a line of the trace means and what to do, in one sentence; empty when it is not known.
std::string explain_Hint(const std::string &I_strLine);

#endif
