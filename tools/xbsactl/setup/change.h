// Changes files so that they can be put back: the old file stays beside the new one as a copy, and a
// journal tells what was done.
#ifndef XBSACTL_SETUP_CHANGE_H
#define XBSACTL_SETUP_CHANGE_H

#include <optional>
#include <string>
#include <vector>

#include "setup/files.h"
#include "setup/journal.h"

namespace setup
{
constexpr const char *SETUP_VERSIONS = "etc/sm_versions";
constexpr const char *SETUP_LOGROTATE = "etc/xbsa.logrotate"; // earlier versions made it

struct CHANGE
{
    std::string strFile;                  // below the database's folder
    bool bLink = false;                   // a symbolic link; its target is the content
    std::optional<std::string> strBefore; // nothing: it does not exist
    std::string strAfter;
};

// Makes all of the changes or, when one fails, none, and throws FAILURE.
void Apply(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<CHANGE> &I_vecChanges);

// What undoing one record means; planned for all before the first is done.
struct UNDO
{
    RECORD sRecord;
    std::optional<std::string> strText; // the text to write: the file was edited since
    bool bPutBack = false;              // the copy takes the file's place, or the new file goes
};

// Throws FAILURE when a file was edited where we changed it.
std::vector<UNDO> PlanUndo(const PLACE &I_sPlace, const JOURNAL &I_sJournal);

void TakeBackAll(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<UNDO> &I_vecUndo);
} // namespace setup

#endif
