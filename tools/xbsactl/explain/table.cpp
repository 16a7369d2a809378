#include "explain/table.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "base/json.h"
#include "explain/messages_json.h"

namespace explain
{
namespace
{
constexpr size_t SHORTEST_WORDS = 3; // characters; fewer are in every second row

const SECTION &SectionOf(const std::string &I_strKind)
{
    for (const SECTION &sSection : SECTIONS)
        if (I_strKind == sSection.cpKind) return sSection;
    throw std::out_of_range("messages.json: unknown kind " + I_strKind);
}

std::vector<ROW> ReadRows()
{
    std::vector<ROW> vecRows;
    for (const base::JSON &sRow : base::JSON::parse(MESSAGES_JSON))
        vecRows.push_back({&SectionOf(sRow.at("kind")), sRow.at("texts"), sRow.at("meaning"),
                           sRow.at("cause"), sRow.at("remedy")});
    return vecRows;
}

// Small letters and digits with one blank between words, and a colon as a word of its own; the
// gaps of a row's text become "*". Punctuation differs between the library, a trace and a shell.
std::string Normal(const std::string &I_strText, bool I_bGaps)
{
    std::string strNormal = " ";
    for (size_t uAt = 0; uAt < I_strText.size(); ++uAt)
    {
        const auto ucChar = static_cast<unsigned char>(I_strText[uAt]);
        if (I_bGaps && I_strText.compare(uAt, 3, "...") == 0)
        {
            if (strNormal.back() == ' ') strNormal.pop_back();
            strNormal += '*';
            uAt += 2;
        }
        else if (std::isalnum(ucChar) != 0 || ucChar == '_' || ucChar == '-')
            strNormal += static_cast<char>(std::tolower(ucChar));
        else if (ucChar == ':') strNormal += " : ";
        else strNormal += ' ';
    }
    strNormal += ' ';
    const auto fpBlanks = [](char cLeft, char cRight) { return cLeft == ' ' && cRight == ' '; };
    strNormal.erase(std::unique(strNormal.begin(), strNormal.end(), fpBlanks), strNormal.end());
    return strNormal;
}

struct PATTERN
{
    const ROW *spRow;
    std::string strGlob;
    size_t uLength;
};

PATTERN Pattern(const ROW &I_sRow, const std::string &I_strText)
{
    std::string strNormal = Normal(I_strText, true);
    if (strNormal.size() > 2 && strNormal[strNormal.size() - 2] == '*') strNormal.pop_back();
    return {&I_sRow, "*" + strNormal + "*", strNormal.size()};
}

// A server's number counts only where a reply begins, after a colon or at the start of the line, and
// so does a step of a check.
std::vector<PATTERN> AllPatterns()
{
    std::vector<PATTERN> vecPatterns;
    for (const ROW &sRow : Rows())
        for (const std::string &strText : sRow.vecTexts)
        {
            const bool bReply = strText[0] >= '1' && strText[0] <= '5';
            const bool bStep = sRow.spSection->cpKind == std::string_view("check");
            vecPatterns.push_back(Pattern(sRow, (bStep ? ": " : "") + strText));
            for (const char *cpEnd : {"", "-..."}) // of several lines
                if (bReply)
                    vecPatterns.push_back(Pattern(sRow, ": " + strText.substr(0, 3) + cpEnd));
        }
    std::stable_sort(vecPatterns.begin(), vecPatterns.end(),
                     [](const PATTERN &sLeft, const PATTERN &sRight) {
                         return std::make_pair(sLeft.spRow->spSection->iRank, sRight.uLength) <
                                std::make_pair(sRight.spRow->spSection->iRank, sLeft.uLength);
                     });
    return vecPatterns;
}

std::string AllTexts(const ROW &I_sRow)
{
    std::string strAll;
    for (const std::string &strText : I_sRow.vecTexts) strAll += strText + "|";
    return strAll;
}

template <typename TEST> ROWS Choose(TEST I_fpTest)
{
    ROWS vecFound;
    for (const ROW &sRow : Rows())
        if (I_fpTest(sRow)) vecFound.push_back(&sRow);
    return vecFound;
}
} // namespace

const std::vector<ROW> &Rows()
{
    static const std::vector<ROW> vecRows = ReadRows();
    return vecRows;
}

ROWS FindNumber(const std::string &I_strText)
{
    if (I_strText.find_first_not_of("0123456789abcdefx") != std::string::npos ||
        std::isdigit(static_cast<unsigned char>(I_strText[0])) == 0)
        return {};
    return Choose([&](const ROW &sRow) {
        return Normal(AllTexts(sRow), true).find(" " + I_strText + " ") != std::string::npos;
    });
}

const ROW *FindLine(const std::string &I_strLine)
{
    static const std::vector<PATTERN> vecPatterns = AllPatterns();
    const std::string strLine = " :" + Normal(I_strLine, false);
    for (const PATTERN &sPattern : vecPatterns)
        if (fnmatch(sPattern.strGlob.c_str(), strLine.c_str(), 0) == 0) return sPattern.spRow;
    return nullptr;
}

ROWS FindWords(const std::string &I_strWords, bool I_bAnywhere)
{
    if (I_strWords.size() < SHORTEST_WORDS) return {};
    return Choose([&](const ROW &sRow) {
        std::string strRow = AllTexts(sRow);
        if (I_bAnywhere) strRow += sRow.strMeaning + sRow.strCause + sRow.strRemedy;
        strRow = Normal(strRow, false);
        std::istringstream sWords(Normal(I_strWords, false));
        return std::all_of(
            std::istream_iterator<std::string>(sWords), {},
            [&](const std::string &strWord) { return strRow.find(strWord) != std::string::npos; });
    });
}
} // namespace explain
