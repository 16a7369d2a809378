// The database's set-up: the files that lead its backup tool to the library.
#ifndef XBSACTL_CHECK_DATABASE_H
#define XBSACTL_CHECK_DATABASE_H

#include "check/library.h"

// Looks into the folder that --informixdir names.
void check_Database(CReport &I_sReport, const std::string &I_strInformixDir,
                    const CHECKED_LIBRARY &I_sLibrary);

#endif
