// The knowledge base of failures: what a message, reply or code means, its usual cause, its remedy.
#ifndef XBSACTL_EXPLAIN_H
#define XBSACTL_EXPLAIN_H

#include <string>
#include <vector>

namespace explain
{
struct OPTIONS
{
    std::vector<std::string> vecTexts; // what to explain, in words; none: print all rows in short
    bool bMarkdown = false;            // print all rows as a page of the documentation
};

// The command. Throws USAGE_ERROR, and FAILURE when nothing is known about the text.
void Run(const OPTIONS &I_sOptions);

enum class MODE
{
    PLAIN,
    INFORMIX // a refused login has another remedy there
};

// Of the row that says most about a line of a trace or an error text. Both are empty when no row
// does, and for a line that reports no failure.
std::string Meaning(const std::string &I_strLine, MODE I_eMode = MODE::PLAIN); // a sentence
std::string Hint(const std::string &I_strLine, MODE I_eMode = MODE::PLAIN);    // what to do
} // namespace explain

#endif
