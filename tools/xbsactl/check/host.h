// This machine: the account, the variables and the log of the process that runs the library.
#ifndef XBSACTL_CHECK_HOST_H
#define XBSACTL_CHECK_HOST_H

#include "base/base.h"
#include "check/report.h"

// The value of an environment variable; "" when it is not set.
const char *check_Variable(const char *cpName);

void check_Account(CReport &I_sReport);

// Returns whether an Informix session can be tried with them.
bool check_Variables(CReport &I_sReport, bool I_bInformix);

// How long this system waits for a server that has vanished.
void check_Kernel(CReport &I_sReport);

void check_Log(CReport &I_sReport, const base::CONNECTION &I_sConnection);

#endif
