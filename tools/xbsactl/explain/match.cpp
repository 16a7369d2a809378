#include "explain/match.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

namespace
{
constexpr size_t SHORTEST_PART = 3; // characters of a part that is looked for

bool IsWord(char I_cChar)
{
    return std::isalnum(static_cast<unsigned char>(I_cChar)) != 0 || I_cChar == '_';
}

// Small letters, one blank between words, and none of the brackets that a line puts around values:
// an unquoted line loses them on the command line.
std::string Normal(std::string I_strText)
{
    for (char &cChar : I_strText)
    {
        const bool bBracket = cChar == '[' || cChar == ']';
        cChar = bBracket ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(cChar)));
    }
    std::istringstream sWords(I_strText);
    std::string strNormal;
    for (std::string strWord; sWords >> strWord;)
        strNormal += (strNormal.empty() ? "" : " ") + strWord;
    return strNormal;
}

// Where the piece stands in the line, not in the middle of a word: "reply: 5" is not in "reply: 530".
size_t FindPiece(const std::string &I_strLine, const std::string &I_strPiece, size_t I_uFrom)
{
    size_t uFound = I_strLine.find(I_strPiece, I_uFrom);
    while (uFound != std::string::npos)
    {
        const size_t uEnd = uFound + I_strPiece.size();
        const bool bStart =
            uFound == 0 || !IsWord(I_strPiece.front()) || !IsWord(I_strLine[uFound - 1]);
        const bool bEnd =
            uEnd == I_strLine.size() || !IsWord(I_strPiece.back()) || !IsWord(I_strLine[uEnd]);
        if (bStart && bEnd) return uFound;
        uFound = I_strLine.find(I_strPiece, uFound + 1);
    }
    return std::string::npos;
}

// The characters of the message that stand in the line, 0 when it is another message.
size_t Score(const std::string &I_strMessage, const std::string &I_strLine)
{
    static const std::string strGap = "...";
    size_t uScore = 0;
    size_t uPlace = 0;
    for (size_t uStart = 0; uStart < I_strMessage.size();)
    {
        const size_t uGap = std::min(I_strMessage.find(strGap, uStart), I_strMessage.size());
        const std::string strPiece = Normal(I_strMessage.substr(uStart, uGap - uStart));
        uStart = uGap + strGap.size();
        if (strPiece.empty()) continue;
        uPlace = FindPiece(I_strLine, strPiece, uPlace);
        if (uPlace == std::string::npos) return 0;
        uPlace += strPiece.size();
        uScore += strPiece.size();
    }
    return uScore;
}

// A server's number counts where a reply stands: at the start of the line, or behind the words that
// the library puts in front of one.
bool IsReply(const std::string &I_strLine, const std::string &I_strNumber)
{
    for (const char *cpFront : {"reply: ", "message: ", "welcome: "})
    {
        if (FindPiece(I_strLine, cpFront + I_strNumber, 0) != std::string::npos) return true;
    }
    return FindPiece(I_strLine, I_strNumber, 0) == 0;
}

// The text that is the number in a server's reply: "220-" is one, 220 alone is no failure.
std::string ReplyNumber(const CATALOGUE_ROW &I_sRow)
{
    const std::string strText = catalogue_Texts(I_sRow).front();
    return strText.substr(0, strText.find(' '));
}

size_t RowScore(const CATALOGUE_ROW &I_sRow, const std::string &I_strLine)
{
    if (I_sRow.eKind == ROW::SERVER)
        return IsReply(I_strLine, ReplyNumber(I_sRow)) ? I_strLine.size() : 0;
    size_t uBest = 0;
    for (const std::string &strText : catalogue_Texts(I_sRow))
        uBest = std::max(uBest, Score(strText, I_strLine));
    return uBest;
}

// What the server or the utility said tells more than the system's reason, and that more than the
// library's own words around it.
int Rank(ROW I_eKind)
{
    switch (I_eKind)
    {
    case ROW::SERVER:
        return 0;
    case ROW::UTILITY:
        return 1;
    case ROW::REASON:
        return 2;
    case ROW::MESSAGE:
    case ROW::HARMLESS:
        return 3;
    default:
        return 4;
    }
}

template <typename TEST> ROWS Choose(TEST I_fpTest)
{
    ROWS vecFound;
    for (const CATALOGUE_ROW &sRow : catalogue_Rows())
    {
        if (I_fpTest(sRow)) vecFound.push_back(&sRow);
    }
    return vecFound;
}
} // namespace

ROWS match_Number(const std::string &I_strText)
{
    const bool bHex = I_strText.compare(0, 2, "0x") == 0;
    const char *cpDigits = bHex ? "0123456789abcdefABCDEF" : "0123456789";
    const std::string strDigits = I_strText.substr(bHex ? 2 : 0);
    if (strDigits.empty() || strDigits.find_first_not_of(cpDigits) != std::string::npos) return {};
    const long lCode = std::strtol(strDigits.c_str(), nullptr, bHex ? 16 : 10);
    return Choose([lCode](const CATALOGUE_ROW &sRow) { return sRow.iCode == lCode; });
}

ROWS match_Line(const std::string &I_strLine)
{
    const std::string strLine = Normal(I_strLine);
    std::vector<std::pair<size_t, const CATALOGUE_ROW *>> vecScored;
    for (const CATALOGUE_ROW &sRow : catalogue_Rows())
    {
        const size_t uScore = RowScore(sRow, strLine);
        if (uScore > 0) vecScored.emplace_back(uScore, &sRow);
    }
    std::stable_sort(vecScored.begin(), vecScored.end(), [](const auto &sLeft, const auto &sRight) {
        const int iLeft = Rank(sLeft.second->eKind);
        const int iRight = Rank(sRight.second->eKind);
        return iLeft != iRight ? iLeft < iRight : sLeft.first > sRight.first;
    });
    ROWS vecFound;
    const std::pair<size_t, const CATALOGUE_ROW *> *spBest = nullptr;
    for (const auto &sScored : vecScored)
    {
        if (spBest == nullptr || Rank(spBest->second->eKind) != Rank(sScored.second->eKind))
            spBest = &sScored;
        if (sScored.first == spBest->first) vecFound.push_back(sScored.second);
    }
    return vecFound;
}

ROWS match_Part(const std::string &I_strText)
{
    const std::string strPart = Normal(I_strText);
    if (strPart.size() < SHORTEST_PART) return {};
    return Choose([&strPart](const CATALOGUE_ROW &sRow) {
        const std::vector<std::string> vecTexts = catalogue_Texts(sRow);
        return std::any_of(vecTexts.begin(), vecTexts.end(),
                           [&strPart](const std::string &strText) {
                               return Normal(strText).find(strPart) != std::string::npos;
                           });
    });
}

ROWS match_Words(const std::string &I_strText)
{
    return Choose([&I_strText](const CATALOGUE_ROW &sRow) {
        const std::string strRow = Normal(std::string(sRow.cpTexts) + " " + sRow.cpSeen + " " +
                                          sRow.cpCause + " " + sRow.cpAction);
        std::istringstream sWords(Normal(I_strText));
        bool bAll = !I_strText.empty();
        for (std::string strWord; bAll && sWords >> strWord;)
            bAll = strRow.find(strWord) != std::string::npos;
        return bAll;
    });
}
