// How setup changes the texts of a database's files. Touches no file.
#include <algorithm>
#include <cstdlib>

#include "setup/parts.h"

namespace setup
{
namespace
{
constexpr const char *BEGIN = "# Korva XBSA: begin (written by xbsactl setup)";
constexpr const char *END = "# Korva XBSA: end";
constexpr const char *PAGES = // as earlier versions wrote it: another text would count as edited
    "# Pages of one call: 31 of 2 KB; where the server's pages have 4 KB, write 15";
constexpr const char *REPLACED = "#xbsa# "; // marks a line that ours replace
constexpr const char *BUFFER = "BAR_XFER_BUF_SIZE";
constexpr int MOST_PAGES = 31; // of 2 KB: the most that fits into one call's 65,535 bytes

std::string Join(const base::LINES &I_vecLines)
{
    std::string strText;
    for (const std::string &strLine : I_vecLines) strText += strLine + '\n';
    return strText;
}

// The line that sets the name; empty when no line does, or several do.
std::string OnlyLine(const base::LINES &I_vecLines, const char *cpName)
{
    const auto fpSets = [=](const std::string &strLine) { return base::Sets(strLine, cpName); };
    const auto sLine = std::ranges::find_if(I_vecLines, fpSets);
    return std::ranges::count_if(I_vecLines, fpSets) == 1 ? *sLine : "";
}

// The line for the buffer when it is the only one, and fits; else empty.
std::string GoodBuffer(const base::LINES &I_vecLines)
{
    const std::string strLine = OnlyLine(I_vecLines, BUFFER);
    const std::string strValue = base::Value(strLine);
    const int iPages = std::atoi(strValue.c_str());
    const bool bFits = iPages >= 1 && iPages <= MOST_PAGES && strValue == std::to_string(iPages);
    return bFits ? strLine : "";
}

// Without a line for the buffer when one that fits is elsewhere.
base::LINES Block(const std::string &I_strLibrary, const std::string &I_strBuffer)
{
    base::LINES vecBlock = {BEGIN, std::string(base::LIBRARY_KEY) + " " + I_strLibrary};
    if (!I_strBuffer.empty()) vecBlock.insert(vecBlock.end(), {PAGES, I_strBuffer});
    vecBlock.emplace_back(END);
    return vecBlock;
}

void CheckBlock(const base::LINES &I_vecLines, const base::LINES &I_vecBlock)
{
    const auto fpMark = [](const auto &strLine) {
        return strLine == END || strLine.starts_with(REPLACED);
    };
    if (I_vecBlock.empty() && std::ranges::none_of(I_vecLines, fpMark)) return;
    const std::string strLibrary = I_vecBlock.size() > 1 ? base::Value(I_vecBlock[1]) : "";
    if (I_vecBlock != Block(strLibrary, GoodBuffer(I_vecBlock)) ||
        std::ranges::count(I_vecLines, BEGIN) > 1)
        throw base::FileFailure("the lines from \"", BEGIN, "\" to \"", END,
                                "\" were edited since");
    for (const char *cpName : {base::LIBRARY_KEY, BUFFER})
        if (!OnlyLine(I_vecBlock, cpName).empty() && OnlyLine(I_vecLines, cpName).empty())
            throw base::FileFailure(cpName, " was set again outside the lines of setup");
}

// Removes our block from the lines and returns it; empty for none.
base::LINES TakeBlock(base::LINES &X_vecLines)
{
    const auto sBegin = std::ranges::find(X_vecLines, BEGIN);
    const auto sEnd = std::find(sBegin, X_vecLines.end(), END);
    const auto sRest = sEnd == X_vecLines.end() ? sEnd : sEnd + 1;
    base::LINES vecBlock(sBegin, sRest);
    CheckBlock(X_vecLines, vecBlock);
    X_vecLines.erase(sBegin, sRest);
    return vecBlock;
}

// Restores the lines that ours replaced; those of the library after a mark, to keep ours.
void Restore(base::LINES &X_vecLines, const char *cpLibraryMark)
{
    for (std::string &strLine : X_vecLines)
        if (strLine.starts_with(REPLACED))
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
    const bool bBuffer = GoodBuffer(vecLines).empty();
    if (!bBuffer && base::Value(OnlyLine(vecLines, base::LIBRARY_KEY)) == I_strLibrary)
        return vecOld.empty() ? I_strText : Join(vecLines);

    for (std::string &strLine : vecLines)
        if (base::Sets(strLine, base::LIBRARY_KEY) || (bBuffer && base::Sets(strLine, BUFFER)))
            strLine.insert(0, REPLACED);
    const std::string strOwn = GoodBuffer(vecOld); // the comment asks to adapt the number
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
