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

template <typename TEST> long Count(const base::LINES &I_vecLines, const TEST &I_fpTest)
{
    return std::count_if(I_vecLines.begin(), I_vecLines.end(), I_fpTest);
}

long Count(const base::LINES &I_vecLines, const char *cpName)
{
    return Count(I_vecLines,
                 [=](const std::string &strLine) { return base::Sets(strLine, cpName); });
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

bool IsReplaced(const std::string &I_strLine)
{
    return I_strLine.rfind(REPLACED, 0) == 0;
}

// Takes our block out of the lines and hands it back; empty for none.
base::LINES TakeBlock(base::LINES &X_vecLines)
{
    base::LINES vecBlock;
    base::LINES vecRest;
    bool bInside = false;
    for (const std::string &strLine : X_vecLines)
    {
        bInside = bInside || strLine == BEGIN;
        (bInside ? vecBlock : vecRest).push_back(strLine);
        if (strLine == END) bInside = false;
    }
    X_vecLines = vecRest;
    return vecBlock;
}

// The line of our block: the administrator is asked to fit the number of pages in it.
std::string OwnBuffer(const base::LINES &I_vecBlock)
{
    const auto sLine = std::find_if(I_vecBlock.begin(), I_vecBlock.end(), IsGoodBuffer);
    return sLine != I_vecBlock.end() ? *sLine : "";
}

void CheckBlock(const base::LINES &I_vecBlock, const base::LINES &I_vecRest)
{
    const auto fpMark = [](const std::string &strLine) {
        return IsReplaced(strLine) || strLine == END;
    };
    if (I_vecBlock.empty() && Count(I_vecRest, fpMark) == 0) return;
    const std::string strLibrary = I_vecBlock.size() > 1 ? base::Value(I_vecBlock[1]) : "";
    const std::string strBuffer = OwnBuffer(I_vecBlock);
    if (I_vecBlock != Block(strLibrary, strBuffer))
        throw base::FileFailure(std::string("the lines from \"") + BEGIN + "\" to \"" + END +
                                "\" in it were edited since");
    for (const char *cpName : {base::LIBRARY_KEY, BUFFER})
        if (Count(I_vecBlock, cpName) > 0 && Count(I_vecRest, cpName) > 0)
            throw base::FileFailure(std::string(cpName) +
                                    " was set again outside of the lines of setup");
}

// Takes what setup wrote out of the lines, and hands its block back. The replaced line of a setting
// that is kept stays a comment.
base::LINES Restore(base::LINES &X_vecLines, const char *cpKept = nullptr)
{
    base::LINES vecBlock = TakeBlock(X_vecLines);
    CheckBlock(vecBlock, X_vecLines);
    for (std::string &strLine : X_vecLines)
    {
        if (!IsReplaced(strLine)) continue;
        strLine.erase(0, std::string(REPLACED).size());
        if (cpKept != nullptr && base::Sets(strLine, cpKept)) strLine.insert(0, "# ");
    }
    return vecBlock;
}
} // namespace

std::string OnconfigWith(const std::string &I_strText, const std::string &I_strLibrary)
{
    base::LINES vecLines = base::Lines(I_strText);
    const base::LINES vecOld = Restore(vecLines);
    const auto fpOurs = [&I_strLibrary](const std::string &strLine) {
        return base::Sets(strLine, base::LIBRARY_KEY) && base::Value(strLine) == I_strLibrary;
    };
    const bool bBuffer = Count(vecLines, IsGoodBuffer) != 1 || Count(vecLines, BUFFER) != 1;
    if (!bBuffer && Count(vecLines, fpOurs) == 1 && Count(vecLines, base::LIBRARY_KEY) == 1)
        return vecOld.empty() ? I_strText : Join(vecLines);

    for (std::string &strLine : vecLines)
        if (base::Sets(strLine, base::LIBRARY_KEY) || (bBuffer && base::Sets(strLine, BUFFER)))
            strLine.insert(0, REPLACED);
    const std::string strOwn = OwnBuffer(vecOld);
    const std::string strBuffer =
        strOwn.empty() ? BUFFER + (" " + std::to_string(MOST_PAGES)) : strOwn;
    return Join(vecLines) + Join(Block(I_strLibrary, bBuffer ? strBuffer : ""));
}

std::string OnconfigWithout(const std::string &I_strText, const std::string &I_strLibrary,
                            std::string &X_strKept)
{
    base::LINES vecLines = base::Lines(I_strText);
    base::LINES vecRest = vecLines;
    const base::LINES vecBlock = Restore(vecRest);
    if (vecBlock.empty()) return I_strText;
    if (I_strLibrary.empty() || base::Value(vecBlock[1]) == I_strLibrary) return Join(vecRest);
    X_strKept = vecBlock[1];
    Restore(vecLines, base::LIBRARY_KEY);
    return Join(vecLines) + X_strKept + '\n';
}

std::string VersionsWith(const std::string &I_strText, const std::string &I_strRow)
{
    const base::LINES vecLines = base::Lines(I_strText);
    const auto fpRow = [&](const auto &strLine) { return base::IsSameRow(strLine, I_strRow); };
    return Count(vecLines, fpRow) > 0 ? I_strText : Join(vecLines) + I_strRow + '\n';
}

std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow)
{
    base::LINES vecLines = base::Lines(I_strText);
    vecLines.erase(std::remove(vecLines.begin(), vecLines.end(), I_strRow), vecLines.end());
    return Join(vecLines);
}
} // namespace setup
