// What setup makes of the texts of a database's files, without touching a file.
#include <strings.h>

#include <algorithm>
#include <sstream>

#include "setup/parts.h"

namespace setup
{
namespace
{
constexpr const char *BEGIN = "# Korva XBSA: begin (written by xbsactl setup)";
constexpr const char *END = "# Korva XBSA: end";
constexpr const char *REPLACED = "#xbsa# "; // before a line that ours replace
constexpr const char *LIBRARY_KEY = "BAR_BSALIB_PATH";
constexpr const char *BUFFER = "BAR_XFER_BUF_SIZE";
constexpr int MOST_PAGES = 31; // of 2 KB: the most that fits into one call's 65,535 bytes

std::string Join(const LINES &I_vecLines)
{
    std::string strText;
    for (const std::string &strLine : I_vecLines) strText += strLine + '\n';
    return strText;
}

bool IsGoodBuffer(const std::string &I_strLine)
{
    const std::string strValue = Value(I_strLine);
    const bool bNumber = !strValue.empty() && strValue.size() <= 2 &&
                         strValue.find_first_not_of("0123456789") == std::string::npos;
    return Sets(I_strLine, BUFFER) && bNumber && std::stoi(strValue) >= 1 &&
           std::stoi(strValue) <= MOST_PAGES;
}

template <typename TEST> long Count(const LINES &I_vecLines, const TEST &I_fpTest)
{
    return std::count_if(I_vecLines.begin(), I_vecLines.end(), I_fpTest);
}

long CountOf(const LINES &I_vecLines, const char *cpName)
{
    return Count(I_vecLines, [=](const std::string &strLine) { return Sets(strLine, cpName); });
}

// Without a line for the buffer when one that fits is elsewhere.
LINES Block(const std::string &I_strLibrary, const std::string &I_strBuffer)
{
    LINES vecBlock = {BEGIN, std::string(LIBRARY_KEY) + " " + I_strLibrary};
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
LINES TakeBlock(LINES &X_vecLines)
{
    LINES vecBlock;
    LINES vecRest;
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
std::string OwnBuffer(const LINES &I_vecBlock)
{
    const auto sLine = std::find_if(I_vecBlock.begin(), I_vecBlock.end(), IsGoodBuffer);
    return sLine != I_vecBlock.end() ? *sLine : "";
}

void CheckBlock(const LINES &I_vecBlock, const LINES &I_vecRest)
{
    const auto fpMark = [](const std::string &strLine) {
        return IsReplaced(strLine) || strLine == END;
    };
    if (I_vecBlock.empty() && Count(I_vecRest, fpMark) == 0) return;
    const std::string strLibrary = I_vecBlock.size() > 1 ? Value(I_vecBlock[1]) : "";
    const std::string strBuffer = OwnBuffer(I_vecBlock);
    if (I_vecBlock != Block(strLibrary, strBuffer))
        throw base::FileFailure(std::string("the lines from \"") + BEGIN + "\" to \"" + END +
                                "\" in it were edited since");
    for (const char *cpName : {LIBRARY_KEY, BUFFER})
        if (CountOf(I_vecBlock, cpName) > 0 && CountOf(I_vecRest, cpName) > 0)
            throw base::FileFailure(std::string(cpName) +
                                    " was set again outside of the lines of setup");
}

// Takes what setup wrote out of the lines, and hands its block back. The replaced line of a setting
// that is kept stays a comment.
LINES Restore(LINES &X_vecLines, const char *cpKept = nullptr)
{
    LINES vecBlock = TakeBlock(X_vecLines);
    CheckBlock(vecBlock, X_vecLines);
    for (std::string &strLine : X_vecLines)
    {
        if (!IsReplaced(strLine)) continue;
        strLine.erase(0, std::string(REPLACED).size());
        if (cpKept != nullptr && Sets(strLine, cpKept)) strLine.insert(0, "# ");
    }
    return vecBlock;
}
} // namespace

LINES Split(const std::string &I_strText)
{
    LINES vecLines;
    std::istringstream sText(I_strText);
    for (std::string strLine; std::getline(sText, strLine);) vecLines.push_back(strLine);
    return vecLines;
}

bool Sets(const std::string &I_strLine, const char *cpName)
{
    std::string strName;
    std::istringstream(I_strLine) >> strName;
    return strcasecmp(strName.c_str(), cpName) == 0;
}

std::string Value(const std::string &I_strLine)
{
    std::string strName;
    std::string strValue;
    std::istringstream(I_strLine) >> strName >> strValue;
    return strValue;
}

std::string OnconfigWith(const std::string &I_strText, const std::string &I_strLibrary)
{
    LINES vecLines = Split(I_strText);
    const LINES vecOld = Restore(vecLines);
    const auto fpOurs = [&I_strLibrary](const std::string &strLine) {
        return Sets(strLine, LIBRARY_KEY) && Value(strLine) == I_strLibrary;
    };
    const bool bBuffer = Count(vecLines, IsGoodBuffer) != 1 || CountOf(vecLines, BUFFER) != 1;
    if (!bBuffer && Count(vecLines, fpOurs) == 1 && CountOf(vecLines, LIBRARY_KEY) == 1)
        return vecOld.empty() ? I_strText : Join(vecLines);

    for (std::string &strLine : vecLines)
        if (Sets(strLine, LIBRARY_KEY) || (bBuffer && Sets(strLine, BUFFER)))
            strLine.insert(0, REPLACED);
    const std::string strOwn = OwnBuffer(vecOld);
    const std::string strBuffer =
        strOwn.empty() ? BUFFER + (" " + std::to_string(MOST_PAGES)) : strOwn;
    return Join(vecLines) + Join(Block(I_strLibrary, bBuffer ? strBuffer : ""));
}

std::string OnconfigWithout(const std::string &I_strText, const std::string &I_strLibrary,
                            std::string &X_strKept)
{
    LINES vecLines = Split(I_strText);
    LINES vecRest = vecLines;
    const LINES vecBlock = Restore(vecRest);
    if (vecBlock.empty()) return I_strText;
    if (I_strLibrary.empty() || Value(vecBlock[1]) == I_strLibrary) return Join(vecRest);
    X_strKept = vecBlock[1];
    Restore(vecLines, LIBRARY_KEY);
    return Join(vecLines) + X_strKept + '\n';
}

std::string VersionsWith(const std::string &I_strText, const std::string &I_strRow)
{
    const LINES vecLines = Split(I_strText);
    const auto fpRow = [&](const std::string &strLine) {
        return base::Printable(strLine) == I_strRow;
    };
    return Count(vecLines, fpRow) > 0 ? I_strText : Join(vecLines) + I_strRow + '\n';
}

std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow)
{
    LINES vecLines = Split(I_strText);
    vecLines.erase(std::remove(vecLines.begin(), vecLines.end(), I_strRow), vecLines.end());
    return Join(vecLines);
}
} // namespace setup
