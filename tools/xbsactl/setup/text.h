// What setup makes of the texts of a database's files, without touching a file.
#ifndef XBSACTL_SETUP_TEXT_H
#define XBSACTL_SETUP_TEXT_H

#include <string>

// The onconfig with our lines at its end. Lines that they replace become comments. Unchanged when
// it says the same already.
std::string setuptext_Onconfig(const std::string &I_strText, const std::string &I_strLibrary);

// The onconfig without our lines, and with what they replaced. Throws FAILURE when our lines were
// edited, or are contradicted outside of them: then nobody can tell what the reader wants.
std::string setuptext_OnconfigWithout(const std::string &I_strText);

// sm_versions with our row, and without it.
std::string setuptext_Versions(const std::string &I_strText, const std::string &I_strRow);
std::string setuptext_VersionsWithout(const std::string &I_strText, const std::string &I_strRow);

// The rotation of the logs in a folder, with the account and group that own it.
std::string setuptext_Logrotate(const std::string &I_strFolder, const std::string &I_strOwner);

#endif
