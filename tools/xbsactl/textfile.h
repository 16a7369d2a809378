// Small text files that other processes read, or replace, at the same time.
#ifndef XBSACTL_TEXTFILE_H
#define XBSACTL_TEXTFILE_H

#include <optional>
#include <string>

// The whole text; none when there is no such file. What is no regular file, or larger than 64 MiB,
// is refused. Throws FAILURE.
std::optional<std::string> textfile_Read(const std::string &I_strFile);

// A reader finds the old text or the new one, never a part: the text goes to a temporary file
// beside the old one and takes its place, with its owner and mode. A link is followed; what is no
// regular file is refused. Throws FAILURE.
void textfile_Replace(const std::string &I_strFile, const std::string &I_strText);

#endif
