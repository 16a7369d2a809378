// The catalogue of return codes and messages.
#ifndef XBSACTL_EXPLAIN_H
#define XBSACTL_EXPLAIN_H

#include <string>
#include <vector>

namespace explain
{
struct OPTIONS
{
    std::vector<std::string> vecTexts; // none: all
    bool bMarkdown = false;
};

// Prints what the catalogue knows about the text, all of it without one. Throws FAILURE when it
// knows nothing.
void Run(const OPTIONS &I_sOptions);
} // namespace explain

// For a line of a trace: what it means and what to do, or "" when it tells of no failure.
std::string explain_Hint(const std::string &I_strLine);

#endif
