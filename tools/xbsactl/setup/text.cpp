// What setup makes of the texts of a database's files, without touching a file.
#include <algorithm>
#include <cstdlib>

#include "setup/parts.h"

namespace setup
{
namespace
{
constexpr const char *BEGIN = "# Korva XBSA: begin (written by xbsactl setup)";
constexpr const char *END = "# Korva XBSA: end";
constexpr const char *REPLACED = "#xbsa# "; // before a line that ours replace
constexpr const char *BUFFER = "BAR_XFER_BUF_SIZE";
constexpr int MOST_PAGES = 31; // of 2 KB: the most that fits into one call's 65,535 bytes

std::string Join(const base::LINES &I_vecLines)
{
    std::string strText;
    for (const std::string &strLine : I_vecLines) strText += strLine + '\n';
    return strText;
}

bool IsGoodBuffer(const std::string &I_strLine)
{
    const std::string strValue = base::Value(I_strLine);
    const int iPages = std::atoi(strValue.c_str());
    return base::Sets(I_strLine, BUFFER) && iPages >= 1 && iPages <= MOST_PAGES &&
           strValue == std::to_string(iPages);
}

long Count(const base::LINES &I_vecLines, const char *cpName)
{
    return std::ranges::count_if(
        I_vecLines, [=](const std::string &strLine) { return base::Sets(strLine, cpName); });
}

// Without a line for the buffer when one that fits is elsewhere.
base::LINES Block(const std::string &I_strLibrary, const std::string &I_strBuffer)
{
    base::LINES vecBlock = {BEGIN, std::string(base::LIBRARY_KEY) + " " + I_strLibrary};
    if (!I_strBuffer.empty())
        vecBlock.insert(
            vecBlock.end(),
            {"# Pages of one call: 31 of 2 KB; where the server's pages have 4 KB, write 15",
             I_strBuffer});
    vecBlock.emplace_back(END);
    return vecBlock;
}

// The line of our block: the administrator is asked to fit the number of pages in it.
std::string OwnBuffer(const base::LINES &I_vecBlock)
{
    const auto sLine = std::ranges::find_if(I_vecBlock, IsGoodBuffer);
    return sLine != I_vecBlock.end() ? *sLine : "";
}

bool IsReplaced(const std::string &I_strLine)
{
    return I_strLine.starts_with(REPLACED);
}

void CheckBlock(const base::LINES &I_vecBlock, const base::LINES &I_vecRest)
{
    if (I_vecBlock.empty() && std::ranges::none_of(I_vecRest, IsReplaced) &&
        std::ranges::count(I_vecRest, END) == 0)
        return;
    const std::string strLibrary = I_vecBlock.size() > 1 ? base::Value(I_vecBlock[1]) : "";
    if (I_vecBlock != Block(strLibrary, OwnBuffer(I_vecBlock)) ||
        std::ranges::count(I_vecRest, BEGIN) > 0)
        throw base::FileFailure("the lines from \"", BEGIN, "\" to \"", END,
                                "\" in it were edited since");
    for (const char *cpName : {base::LIBRARY_KEY, BUFFER})
        if (Count(I_vecBlock, cpName) > 0 && Count(I_vecRest, cpName) > 0)
            throw base::FileFailure(cpName, " was set again outside of the lines of setup");
}

// Takes our block out of the lines and hands it back; empty for none.
base::LINES TakeBlock(base::LINES &X_vecLines)
{
    const auto sBegin = std::ranges::find(X_vecLines, BEGIN);
    const auto sEnd = std::find(sBegin, X_vecLines.end(), END);
    const auto sRest = sEnd == X_vecLines.end() ? sEnd : sEnd + 1;
    base::LINES vecBlock(sBegin, sRest);
    X_vecLines.erase(sBegin, sRest);
    CheckBlock(vecBlock, X_vecLines);
    return vecBlock;
}

// Puts the lines that ours replaced back; those of the library after a mark, to keep ours.
void Restore(base::LINES &X_vecLines, const char *cpLibraryMark)
{
    for (std::string &strLine : X_vecLines)
        if (IsReplaced(strLine))
        {
            strLine.erase(0, std::string_view(REPLACED).size());
            if (base::Sets(strLine, base::LIBRARY_KEY)) strLine.insert(0, cpLibraryMark);
        }
}
} // namespace

std::string OnconfigWith(const std::string &I_strText, const std::string &I_strLibrary)
{
    base::LINES vecLines = base::Lines(I_strText);
    const base::LINES vecOld = TakeBlock(vecLines);
    Restore(vecLines, "");
    const auto fpOurs = [&I_strLibrary](const std::string &strLine) {
        return base::Sets(strLine, base::LIBRARY_KEY) && base::Value(strLine) == I_strLibrary;
    };
    const bool bBuffer =
        std::ranges::count_if(vecLines, IsGoodBuffer) != 1 || Count(vecLines, BUFFER) != 1;
    if (!bBuffer && std::ranges::any_of(vecLines, fpOurs) &&
        Count(vecLines, base::LIBRARY_KEY) == 1)
        return vecOld.empty() ? I_strText : Join(vecLines);

    for (std::string &strLine : vecLines)
        if (base::Sets(strLine, base::LIBRARY_KEY) || (bBuffer && base::Sets(strLine, BUFFER)))
            strLine.insert(0, REPLACED);
    const std::string strOwn = OwnBuffer(vecOld);
    const std::string strBuffer = strOwn.empty() ? base::Text(BUFFER, ' ', MOST_PAGES) : strOwn;
    return Join(vecLines) + Join(Block(I_strLibrary, bBuffer ? strBuffer : ""));
}

std::string OnconfigWithout(const std::string &I_strText, const std::string &I_strLibrary,
                            std::string &X_strKept)
{
    base::LINES vecLines = base::Lines(I_strText);
    const base::LINES vecBlock = TakeBlock(vecLines);
    if (vecBlock.empty()) return I_strText;
    const bool bKept = !I_strLibrary.empty() && base::Value(vecBlock[1]) != I_strLibrary;
    Restore(vecLines, bKept ? "# " : "");
    if (bKept) vecLines.push_back(X_strKept = vecBlock[1]);
    return Join(vecLines);
}

std::string VersionsWith(const std::string &I_strText, const std::string &I_strRow)
{
    const base::LINES vecLines = base::Lines(I_strText);
    const auto fpRow = [&](const auto &strLine) { return base::IsSameRow(strLine, I_strRow); };
    return std::ranges::any_of(vecLines, fpRow) ? I_strText : Join(vecLines) + I_strRow + '\n';
}

std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow)
{
    base::LINES vecLines = base::Lines(I_strText);
    std::erase(vecLines, I_strRow);
    return Join(vecLines);
}
} // namespace setup
