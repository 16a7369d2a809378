#include "explain/explain.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>

#include "base/base.h"
#include "base/json.h"
#include "explain/messages_json.h"

namespace explain
{
namespace
{
constexpr size_t PART_WIDTH = 69;    // of what follows a label
constexpr size_t TEXT_WIDTH = 48;    // of the short list's first column
constexpr size_t SHORTEST_WORDS = 3; // characters; shorter words match too many rows

// ---- the rows

struct ROW
{
    std::string strSection;            // its title
    int iRank;                         // of the section: 1 is the most specific
    bool bAnchored;                    // its texts begin a line, or follow a colon
    std::vector<std::string> vecTexts; // "..." stands for anything
    std::string strMeaning;
    std::string strCause;
    std::string strRemedy; // imperative, as it follows "hint: "
};

using ROWS = std::vector<const ROW *>;

const std::vector<ROW> &Rows()
{
    static const std::vector<ROW> vecRows = [] {
        std::vector<ROW> vecRead;
        for (const base::JSON &sSection : base::JSON::parse(MESSAGES_JSON))
            for (const base::JSON &sRow : sSection.at("rows"))
                vecRead.push_back({sSection.at("title"), sSection.at("rank"),
                                   sSection.value("anchored", false), sRow.at("texts"),
                                   sRow.at("meaning"), sRow.at("cause"), sRow.at("remedy")});
        return vecRead;
    }();
    return vecRows;
}

template <typename TEST> ROWS Choose(TEST I_fpTest)
{
    ROWS vecFound;
    for (const ROW &sRow : Rows())
        if (I_fpTest(sRow)) vecFound.push_back(&sRow);
    return vecFound;
}

std::string Remedy(const ROW &I_sRow)
{
    static const std::string strPlace = "{ports}";
    std::string strRemedy = I_sRow.strRemedy;
    const size_t uPlace = strRemedy.find(strPlace);
    if (uPlace != std::string::npos) strRemedy.replace(uPlace, strPlace.size(), base::LocalPorts());
    return strRemedy;
}

// ---- how they are found

// Small letters and digits with one blank between words, and a colon as a separate word; the
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

std::string AllTexts(const ROW &I_sRow)
{
    std::string strAll;
    for (const std::string &strText : I_sRow.vecTexts) strAll += strText + "|";
    return strAll;
}

// Rows with that number in one of their texts, given as 17, 0x11 or 425.
ROWS FindNumber(const std::string &I_strText)
{
    if (I_strText.find_first_not_of("0123456789abcdefx") != std::string::npos ||
        std::isdigit(static_cast<unsigned char>(I_strText[0])) == 0)
        return {};
    return Choose([&](const ROW &sRow) {
        return Normal(AllTexts(sRow), true).find(" " + I_strText + " ") != std::string::npos;
    });
}

// Rows that contain each word: in one of their texts, or anywhere.
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

// What a line must look like, the best first: by the rank of the row's kind, then the longest.
using PATTERNS = std::multimap<std::pair<int, std::ptrdiff_t>, std::pair<std::string, const ROW *>>;

void AddPattern(PATTERNS &X_mapPatterns, const ROW &I_sRow, const std::string &I_strText)
{
    std::string strGlob = "*" + Normal(I_strText, true);
    if (strGlob.ends_with("* ")) strGlob.pop_back();
    X_mapPatterns.insert({{I_sRow.iRank, -std::ssize(strGlob)}, {strGlob + "*", &I_sRow}});
}

// A server's number counts only where a reply begins, after a colon or at the start of the line,
// and so does a step of a check.
PATTERNS AllPatterns()
{
    PATTERNS mapPatterns;
    for (const ROW &sRow : Rows())
        for (const std::string &strText : sRow.vecTexts)
        {
            const bool bReply = strText[0] >= '1' && strText[0] <= '5';
            AddPattern(mapPatterns, sRow, (sRow.bAnchored ? ": " : "") + strText);
            for (const char *cpEnd : {"", "-..."}) // of several lines
                if (bReply) AddPattern(mapPatterns, sRow, ": " + strText.substr(0, 3) + cpEnd);
        }
    return mapPatterns;
}

// The row with the longest text that the line contains, of the best rank that has any; or null.
const ROW *FindLine(const std::string &I_strLine)
{
    static const PATTERNS mapPatterns = AllPatterns();
    const std::string strLine = " :" + Normal(I_strLine, false);
    for (const auto &[_, sPattern] : mapPatterns)
        if (fnmatch(sPattern.first.c_str(), strLine.c_str(), 0) == 0) return sPattern.second;
    return nullptr;
}

// ---- how they are shown

void PrintPart(std::string_view I_svLabel, const std::string &I_strText)
{
    if (!I_strText.empty())
        std::cout << I_svLabel << base::Wrapped(I_strText, PART_WIDTH, I_svLabel.size()) << '\n';
}

void PrintRows(const ROWS &I_vecRows)
{
    for (const ROW *spRow : I_vecRows)
    {
        if (spRow != I_vecRows.front()) std::cout << '\n';
        for (const std::string &strText : spRow->vecTexts) std::cout << strText << '\n';
        PrintPart("  means:  ", spRow->strMeaning);
        PrintPart("  cause:  ", spRow->strCause);
        PrintPart("  remedy: ", Remedy(*spRow));
    }
}

void PrintAll()
{
    std::string strSection;
    for (const ROW &sRow : Rows())
    {
        std::string strText = sRow.vecTexts.at(0);
        if (strText.size() >= TEXT_WIDTH) strText = strText.substr(0, TEXT_WIDTH - 4) + "...";
        strText.resize(TEXT_WIDTH, ' ');
        if (sRow.strSection != strSection) std::cout << "== " << sRow.strSection << '\n';
        strSection = sRow.strSection;
        std::cout << strText << sRow.strMeaning << '\n';
    }
    std::cout
        << "\nFor cause and remedy: xbsactl explain CODE, or (part of) a message or log line\n";
}

void Explain(const std::string &I_strText)
{
    if (std::ranges::none_of(I_strText, [](unsigned char cChar) { return std::isalnum(cChar); }))
        throw base::USAGE_ERROR("explain: the text contains no word");
    ROWS vecRows = FindNumber(I_strText);
    const ROW *spLine = FindLine(I_strText);
    if (vecRows.empty() && spLine != nullptr) vecRows.push_back(spLine);
    if (vecRows.empty()) vecRows = FindWords(I_strText, false);
    if (vecRows.empty())
    {
        vecRows = FindWords(I_strText, true);
        if (vecRows.empty())
            throw base::FAILURE("no entry for \"" + base::Printable(I_strText) +
                                "\"; try fewer words, a number, or no text for the whole list");
        fputs("xbsactl: no message has this text; these entries contain its words\n", stderr);
    }
    PrintRows(vecRows);
}
} // namespace

void Run(const std::vector<std::string> &I_vecTexts)
{
    std::string strText;
    for (const std::string &strWord : I_vecTexts) strText += strWord + " ";
    if (strText.empty()) return PrintAll();
    Explain(strText.substr(0, strText.size() - 1));
}

ADVICE Advice(const std::string &I_strLine, bool I_bInformix)
{
    const ROW *spRow = FindLine((I_bInformix ? "Informix mode: " : "") + I_strLine);
    if (spRow == nullptr || spRow->strRemedy.starts_with("nothing")) return {};
    return {spRow->strMeaning, Remedy(*spRow)};
}
} // namespace explain
