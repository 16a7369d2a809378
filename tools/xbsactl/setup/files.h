// Files below a database's folder: read, replaced whole, with owner, group and mode kept. Nothing
// outside of the folder is touched. All of these throw FAILURE.
#ifndef XBSACTL_SETUP_FILES_H
#define XBSACTL_SETUP_FILES_H

#include <optional>
#include <string>

#include "setup/place.h"

namespace setup
{
constexpr off_t SETUP_LARGEST = 1 << 20; // bytes of an onconfig and the like

bool Exists(const PLACE &I_sPlace, const std::string &I_strFile);

// Content of a file or target of a link; nothing when it does not exist. An onconfig and the like
// that is a link is refused: what it leads to is another's.
std::optional<std::string> Content(const PLACE &I_sPlace, const std::string &I_strFile,
                                   bool I_bLink, off_t I_iLargest = SETUP_LARGEST);

// What another account owns could be neither kept as a copy nor replaced without a new owner.
void RefuseForeign(const PLACE &I_sPlace, const std::string &I_strFile);

std::string Hash(const std::string &I_strContent);

void WriteFile(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strText);
void WriteLink(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strTarget);
void Remove(const PLACE &I_sPlace,
            const std::string &I_strFile); // no failure when it is gone already

// The file gets a second name.
void Copy(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strCopy);

// The copy takes the file's place.
void MoveBack(const PLACE &I_sPlace, const std::string &I_strCopy, const std::string &I_strFile);
} // namespace setup

#endif
