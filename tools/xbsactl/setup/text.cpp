#include "setup/text.h"

#include <strings.h>

#include <functional>
#include <sstream>
#include <vector>

#include "base/base.h"

namespace setup
{
namespace
{
constexpr const char *BEGIN = "# Korva XBSA: begin (written by xbsactl setup)";
constexpr const char *END = "# Korva XBSA: end";
constexpr const char *REPLACED = "#xbsa# "; // in front of a line that ours replace
constexpr const char *LIBRARY_KEY = "BAR_BSALIB_PATH";
constexpr const char *BUFFER = "BAR_XFER_BUF_SIZE";
constexpr int MOST_PAGES = 31; // of 2 KB: the most that fits into one call's 65,535 bytes

using LINES = std::vector<std::string>;

LINES Split(const std::string &I_strText)
{
    LINES vecLines;
    std::istringstream sText(I_strText);
    for (std::string strLine; std::getline(sText, strLine);) vecLines.push_back(strLine);
    return vecLines;
}

std::string Join(const LINES &I_vecLines)
{
    std::string strText;
    for (const std::string &strLine : I_vecLines) strText += strLine + '\n';
    return strText;
}

bool Sets(const std::string &I_strLine, const char *cpName)
{
    std::istringstream sWords(I_strLine);
    std::string strName;
    sWords >> strName;
    return strcasecmp(strName.c_str(), cpName) == 0;
}

std::string Value(const std::string &I_strLine)
{
    std::istringstream sWords(I_strLine);
    std::string strValue;
    sWords >> strValue >> strValue;
    return strValue;
}

bool IsGoodBuffer(const std::string &I_strLine)
{
    const std::string strValue = Value(I_strLine);
    const bool bNumber = !strValue.empty() && strValue.size() <= 2 &&
                         strValue.find_first_not_of("0123456789") == std::string::npos;
    return bNumber && std::stoi(strValue) >= 1 && std::stoi(strValue) <= MOST_PAGES;
}

size_t Count(const LINES &I_vecLines, const std::function<bool(const std::string &)> &I_fpTest)
{
    size_t uCount = 0;
    for (const std::string &strLine : I_vecLines) uCount += I_fpTest(strLine) ? 1 : 0;
    return uCount;
}

std::string BufferLine()
{
    return std::string(BUFFER) + " " + std::to_string(MOST_PAGES);
}

// Without a line for the buffer when one that fits stands elsewhere.
LINES Block(const std::string &I_strLibrary, const std::string &I_strBuffer)
{
    LINES vecBlock = {BEGIN, std::string(LIBRARY_KEY) + " " + I_strLibrary};
    if (!I_strBuffer.empty())
    {
        vecBlock.emplace_back(
            "# Pages of one call: 31 of 2 KB; where the server's pages have 4 KB, write 15");
        vecBlock.push_back(I_strBuffer);
    }
    vecBlock.emplace_back(END);
    return vecBlock;
}

bool IsReplaced(const std::string &I_strLine)
{
    return I_strLine.rfind(REPLACED, 0) == 0;
}

// Takes our block out of the lines and hands it back; empty for none.
LINES TakeBlock(LINES &I_vecLines)
{
    LINES vecBlock;
    LINES vecRest;
    bool bInside = false;
    for (const std::string &strLine : I_vecLines)
    {
        bInside = bInside || strLine == BEGIN;
        (bInside ? vecBlock : vecRest).push_back(strLine);
        if (strLine == END) bInside = false;
    }
    I_vecLines = vecRest;
    return vecBlock;
}

// The line of our block: the administrator is asked to fit the number of pages in it.
std::string OwnBuffer(const LINES &I_vecBlock)
{
    for (const std::string &strLine : I_vecBlock)
    {
        if (Sets(strLine, BUFFER) && IsGoodBuffer(strLine)) return strLine;
    }
    return "";
}

void CheckBlock(const LINES &I_vecBlock, const LINES &I_vecRest)
{
    const bool bMarks =
        Count(I_vecRest, IsReplaced) > 0 ||
        Count(I_vecRest, [](const std::string &strLine) { return strLine == END; }) > 0;
    if (I_vecBlock.empty() && !bMarks) return;
    const std::string strLibrary = I_vecBlock.size() > 1 ? Value(I_vecBlock[1]) : "";
    const std::string strBuffer = OwnBuffer(I_vecBlock);
    if (I_vecBlock != Block(strLibrary, strBuffer))
        throw base::FAILURE(std::string("the lines from \"") + BEGIN + "\" to \"" + END +
                            "\" in it were edited since");
    if (Count(I_vecRest, [](const std::string &strLine) { return Sets(strLine, LIBRARY_KEY); }) > 0)
        throw base::FAILURE(std::string(LIBRARY_KEY) +
                            " was set again outside of the lines of setup");
    if (!strBuffer.empty() &&
        Count(I_vecRest, [](const std::string &strLine) { return Sets(strLine, BUFFER); }) > 0)
        throw base::FAILURE(std::string(BUFFER) + " was set again outside of the lines of setup");
}

// Takes what setup wrote out of the lines, and hands its block back. Throws FAILURE.
LINES Restore(LINES &I_vecLines)
{
    LINES vecBlock = TakeBlock(I_vecLines);
    CheckBlock(vecBlock, I_vecLines);
    for (std::string &strLine : I_vecLines)
    {
        if (IsReplaced(strLine)) strLine.erase(0, std::string(REPLACED).size());
    }
    return vecBlock;
}
} // namespace

std::string Onconfig(const std::string &I_strText, const std::string &I_strLibrary)
{
    LINES vecLines = Split(I_strText);
    const LINES vecOld = Restore(vecLines);
    const auto fpLibrary = [](const std::string &strLine) { return Sets(strLine, LIBRARY_KEY); };
    const auto fpBuffer = [](const std::string &strLine) { return Sets(strLine, BUFFER); };
    const auto fpGood = [](const std::string &strLine) {
        return Sets(strLine, BUFFER) && IsGoodBuffer(strLine);
    };
    const auto fpOurs = [&I_strLibrary](const std::string &strLine) {
        return Sets(strLine, LIBRARY_KEY) && Value(strLine) == I_strLibrary;
    };
    const bool bBuffer = Count(vecLines, fpGood) != 1 || Count(vecLines, fpBuffer) != 1;
    if (!bBuffer && Count(vecLines, fpOurs) == 1 && Count(vecLines, fpLibrary) == 1)
        return vecOld.empty() ? I_strText : Join(vecLines);

    for (std::string &strLine : vecLines)
    {
        if (fpLibrary(strLine) || (bBuffer && fpBuffer(strLine))) strLine.insert(0, REPLACED);
    }
    const std::string strOwn = OwnBuffer(vecOld);
    const std::string strBuffer = strOwn.empty() ? BufferLine() : strOwn;
    return Join(vecLines) + Join(Block(I_strLibrary, bBuffer ? strBuffer : ""));
}

std::string OnconfigWithout(const std::string &I_strText)
{
    LINES vecLines = Split(I_strText);
    return Restore(vecLines).empty() ? I_strText : Join(vecLines);
}

std::string Versions(const std::string &I_strText, const std::string &I_strRow)
{
    const LINES vecLines = Split(I_strText);
    const auto fpRow = [&I_strRow](const std::string &strLine) {
        return base::Printable(strLine) == I_strRow;
    };
    if (Count(vecLines, fpRow) > 0) return I_strText;
    return Join(vecLines) + I_strRow + '\n';
}

std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow)
{
    LINES vecRest;
    for (const std::string &strLine : Split(I_strText))
    {
        if (strLine != I_strRow) vecRest.push_back(strLine);
    }
    return Join(vecRest);
}

std::string Logrotate(const std::string &I_strFolder, const std::string &I_strOwner)
{
    return "# Made by xbsactl setup --logrotate. A process keeps the log that it opened until it "
           "ends, so the "
           "log\n"
           "# is renamed and compressed one turn later; copytruncate would lose the lines that "
           "are\n"
           "# written between the copy and the cut.\n\"" +
           I_strFolder +
           "/xbsa*.log\" {\n"
           "    su " +
           I_strOwner +
           "\n"
           "    weekly\n"
           "    maxsize 100M\n"
           "    rotate 8\n"
           "    missingok\n"
           "    notifempty\n"
           "    nocreate\n"
           "    compress\n"
           "    delaycompress\n"
           "}\n";
}
} // namespace setup
