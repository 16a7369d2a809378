// The texts of a database's folder that name its library, for who reads and who changes them.
#ifndef XBSACTL_DATABASE_H
#define XBSACTL_DATABASE_H

#include <string>
#include <vector>

namespace base
{
constexpr const char *LIBRARY_KEY = "BAR_BSALIB_PATH";

using LINES = std::vector<std::string>;
LINES Lines(const std::string &I_strText);

// Of the configuration file: I_strName, the variable ONCONFIG, or "onconfig".
std::string OnconfigName(const std::string &I_strName);

// Whether a line of it sets that name, in capitals or not, and to what, without quotes and the
// comment after a "#".
bool Sets(const std::string &I_strLine, const char *cpName);
std::string Value(const std::string &I_strLine);

// Whether two rows of sm_versions are the same library's: the leading number is the database's own
// matter, and so is a "|" at the end.
bool IsSameRow(const std::string &I_strRow, const std::string &I_strOther);
} // namespace base

#endif
