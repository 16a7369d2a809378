// Files below a database's folder: read, replaced whole, with owner, group and mode kept.
#ifndef XBSACTL_SETUP_FILES_H
#define XBSACTL_SETUP_FILES_H

#include <sys/types.h>

#include <optional>
#include <string>

struct PLACE
{
    std::string strFolder;   // the database's folder
    std::string strOnconfig; // below it
    uid_t uOwner = 0;        // of the onconfig, for new files
    gid_t uGroup = 0;
};

std::string setupfiles_Path(const PLACE &I_sPlace, const std::string &I_strFile);

bool setupfiles_Exists(const std::string &I_strPath);

// Content of a file or target of a link; nothing when it does not exist. Throws FAILURE, also for
// an onconfig and the like that is a link: what lies behind it is another's.
std::optional<std::string> setupfiles_Content(const PLACE &I_sPlace, const std::string &I_strFile,
                                              bool I_bLink);

std::string setupfiles_Hash(const std::string &I_strContent);

// A new file gets the owner of the onconfig. All of these throw FAILURE.
void setupfiles_WriteFile(const PLACE &I_sPlace, const std::string &I_strFile,
                          const std::string &I_strText);
void setupfiles_WriteLink(const PLACE &I_sPlace, const std::string &I_strFile,
                          const std::string &I_strTarget);
void setupfiles_Remove(const std::string &I_strPath); // no failure when it is gone already

// The copy takes the file's place.
void setupfiles_MoveBack(const PLACE &I_sPlace, const std::string &I_strCopy,
                         const std::string &I_strFile);

#endif
