// The COM utility: the INI file that names it, and whether it answers.
#ifndef XBSACTL_CHECK_COM_H
#define XBSACTL_CHECK_COM_H

#include <chrono>

#include "check/report.h"

// Returns whether a session can be tried.
//   I_bVariables  the KORVA_ variables are usable: without them the utility is not asked
bool check_Com(CReport &I_sReport, bool I_bVariables, std::chrono::milliseconds I_sBound);

#endif
