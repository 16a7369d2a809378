// The knowledge base of failures: what a message, reply or code means, its usual cause, its remedy.
#ifndef XBSACTL_EXPLAIN_H
#define XBSACTL_EXPLAIN_H

#include <string>
#include <vector>

namespace explain
{
// The command. Throws USAGE_ERROR, and FAILURE when nothing is known about the text.
//   I_vecTexts  what to explain, in words; none: print all rows in short
void Run(const std::vector<std::string> &I_vecTexts);

struct ADVICE
{
    std::string strMeaning; // a sentence
    std::string strHint;    // what to do
};

// Of the row that says most about a line of a trace or an error text. Empty when no row does, and
// for a line that reports no failure. In Informix mode a refused login has another remedy.
ADVICE Advice(const std::string &I_strLine, bool I_bInformix);
} // namespace explain

#endif
