// Changes files of a database so that they can be put back: each change is whole or not there, the
// old file stays beside it as a copy, and a journal tells what was done.
#ifndef XBSACTL_SETUP_FILES_H
#define XBSACTL_SETUP_FILES_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct CHANGE
{
    std::string strFile;                  // below the database's folder
    bool bLink = false;                   // a symbolic link; its target is the content
    std::optional<std::string> strBefore; // nothing: it does not exist
    std::string strAfter;
};

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

struct PLACE
{
    std::string strFolder;   // the database's folder
    std::string strOnconfig; // below it
    uid_t uOwner = 0;        // of the onconfig, for new files
    gid_t uGroup = 0;
};

// Content of a file or target of a link; nothing when it does not exist. Throws FAILURE, also for
// an onconfig and the like that is a link: what lies behind it is another's.
std::optional<std::string> setupfiles_Content(const PLACE &I_sPlace, const std::string &I_strFile,
                                              bool I_bLink);

std::string setupfiles_Hash(const std::string &I_strContent);

JOURNAL setupfiles_ReadJournal(const PLACE &I_sPlace);

// Makes all of the changes or, when one fails, none, and throws FAILURE.
void setupfiles_Apply(const PLACE &I_sPlace, JOURNAL I_sJournal,
                      const std::vector<CHANGE> &I_vecChanges);

// What undoing one record means; planned for all before the first is done.
struct UNDO
{
    RECORD sRecord;
    std::optional<std::string> strText; // the text to write: the file was edited since
    bool bPutBack = false;              // the copy takes the file's place, or the new file goes
};

// Throws FAILURE when a file was edited where we changed it.
std::vector<UNDO> setupfiles_PlanUndo(const PLACE &I_sPlace, const JOURNAL &I_sJournal);

void setupfiles_Undo(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<UNDO> &I_vecUndo);

#endif
