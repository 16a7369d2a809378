// Small text files that other processes read, or replace, at the same time.
#ifndef XBSACTL_TEXTFILE_H
#define XBSACTL_TEXTFILE_H

#include <optional>
#include <string>

#include "base/target.h"

namespace base
{
constexpr off_t TEXT_LARGEST = off_t{64} << 20; // bytes, far above any text of ours

// The whole text; none when there is no such file. What is not a regular file, or larger than the
// limit, is refused. The path's links are followed, the target's are refused. Throws FAILURE.
std::optional<std::string> ReadText(const std::string &I_strFile, off_t I_iLargest);
std::optional<std::string> ReadText(const TARGET &I_sTarget, off_t I_iLargest);

// A reader finds the old text or the new one, never a part. Throws FAILURE.
void ReplaceText(const TARGET &I_sTarget, const std::string &I_strText, bool I_bExact);
} // namespace base

#endif
