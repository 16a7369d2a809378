// What setup changed in a database's folder, so that it can be put back.
#ifndef XBSACTL_SETUP_JOURNAL_H
#define XBSACTL_SETUP_JOURNAL_H

#include <string>
#include <vector>

#include "setup/files.h"

namespace setup
{
constexpr const char *SETUP_COPY = ".before-xbsa";    // end of a copy's name, before its number
constexpr const char *SETUP_LINK = "lib/ibsad001.so"; // where ON-Bar looks without BAR_BSALIB_PATH

// A file that an earlier run changed. Contents are kept as SHA-256.
struct RECORD
{
    std::string strFile;
    std::string strCopy;   // the old file, below the database's folder; empty: there was none
    std::string strBefore; // empty: there was none
    std::string
        strAfter; // something that no content has: edited since, an earlier text is no match
};

struct JOURNAL
{
    std::string strRow; // of sm_versions
    std::vector<RECORD> vecRecords;

    const RECORD *Find(const std::string &I_strFile) const;
};

JOURNAL ReadJournal(const PLACE &I_sPlace);

// One without records is removed.
void WriteJournal(const PLACE &I_sPlace, const JOURNAL &I_sJournal);
} // namespace setup

#endif
