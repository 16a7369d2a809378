// What setup makes of the texts of a database's files, without touching a file.
#ifndef XBSACTL_SETUP_TEXT_H
#define XBSACTL_SETUP_TEXT_H

#include <string>

namespace setup
{
// The onconfig with our lines at its end. Lines that they replace become comments. Unchanged when
// it says the same already.
std::string Onconfig(const std::string &I_strText, const std::string &I_strLibrary);

// The onconfig without our lines, and with what they replaced. Throws FAILURE when our lines were
// edited, or are contradicted outside of them: then nobody can tell what the reader wants.
std::string OnconfigWithout(const std::string &I_strText);

// sm_versions with our row, and without it.
std::string Versions(const std::string &I_strText, const std::string &I_strRow);
std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow);

// The rotation of the logs in a folder, with the account and group that own it.
std::string Logrotate(const std::string &I_strFolder, const std::string &I_strOwner);
} // namespace setup

#endif
