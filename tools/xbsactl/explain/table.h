// The rows of the knowledge base, and how they are found.
#ifndef XBSACTL_EXPLAIN_TABLE_H
#define XBSACTL_EXPLAIN_TABLE_H

#include <string>
#include <vector>

namespace explain
{
// What says most about a failure comes first: the words of server and utility, then the system's
// reason, then the library's own words around them.
enum class KIND
{
    SERVER,  // its replies
    UTILITY, // answers of the COM utility
    REASON,  // the system's text
    MESSAGE, // the library's own
    HARMLESS,
    DATABASE, // a call that failed, as the database reports it
    RETURN_CODE,
    EXIT_CODE // of xbsactl
};

struct ROW
{
    KIND eKind;
    std::vector<std::string> vecTexts; // "..." stands for anything
    std::string strMeaning;
    std::string strCause;
    std::string strRemedy; // imperative, as it follows "hint: "
};

using ROWS = std::vector<const ROW *>;

const std::vector<ROW> &Rows(); // of messages.json

// Rows with that number in one of their texts, given as 17, 0x11 or 425.
ROWS FindNumber(const std::string &I_strText);

// The row with the longest text that the line contains, of the first kind that has any; or null.
const ROW *FindLine(const std::string &I_strLine);

// Rows that contain each word: in one of their texts, or anywhere.
ROWS FindWords(const std::string &I_strWords, bool I_bAnywhere);
} // namespace explain

#endif
