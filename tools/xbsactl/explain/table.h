// The rows of the knowledge base, and how they are found.
#ifndef XBSACTL_EXPLAIN_TABLE_H
#define XBSACTL_EXPLAIN_TABLE_H

#include <string>
#include <vector>

namespace explain
{
// A kind of rows, which is a part of the page.
struct SECTION
{
    const char *cpKind; // in messages.json
    const char *cpTitle;
    int iRank; // 1: says most about a failure
};

// In the order of the page. The words of server and utility say most, then the system's reason, then
// the library's own words around them.
inline constexpr SECTION SECTIONS[] = {
    {"return_code", "Return codes", 7},
    {"database", "Failed calls, as the database reports them", 6},
    {"exit_code", "Exit codes of xbsactl", 8},
    {"server", "Replies of the server", 1},
    {"utility", "Answers of the COM utility", 2},
    {"reason", "Reasons that the system gives", 3},
    {"message", "Messages of the library", 4},
    {"harmless", "Lines that look worse than they are", 5},
};

struct ROW
{
    const SECTION *spSection;
    std::vector<std::string> vecTexts; // "..." stands for anything
    std::string strMeaning;
    std::string strCause;
    std::string strRemedy; // imperative, as it follows "hint: "
};

using ROWS = std::vector<const ROW *>;

const std::vector<ROW> &Rows(); // of messages.json

// Rows with that number in one of their texts, given as 17, 0x11 or 425.
ROWS FindNumber(const std::string &I_strText);

// The row with the longest text that the line contains, of the best rank that has any; or null.
const ROW *FindLine(const std::string &I_strLine);

// Rows that contain each word: in one of their texts, or anywhere.
ROWS FindWords(const std::string &I_strWords, bool I_bAnywhere);
} // namespace explain

#endif
