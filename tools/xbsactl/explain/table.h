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

// In the order of the page. The server's words say most, then the step of a check, the utility, the
// system's reason, and the library's own words around them.
inline constexpr SECTION SECTIONS[] = {
    {"return_code", "Return codes", 8},
    {"database", "Failed calls, as the database reports them", 7},
    {"exit_code", "Exit codes of xbsactl", 9},
    {"server", "Replies of the server", 1},
    {"check", "Steps of xbsactl check", 2},
    {"utility", "Answers of the COM utility", 3},
    {"reason", "Reasons that the system gives", 4},
    {"message", "Messages of the library", 5},
    {"harmless", "Lines that look worse than they are", 6},
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
