// The library as a file, loaded, and by its own word; and what the database must know of it.
#ifndef XBSACTL_CHECK_LIBRARY_H
#define XBSACTL_CHECK_LIBRARY_H

#include <string>

#include "base/base.h"
#include "check/report.h"

struct CHECKED_LIBRARY
{
    bool bUsable = false;
    std::string strPath; // of the file, without links; empty when there is none
    std::string strRow;  // for sm_versions; empty when the library did not tell
};

CHECKED_LIBRARY check_Library(CReport &I_sReport, const base::CONNECTION &I_sConnection);

#endif
