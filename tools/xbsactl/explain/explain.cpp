#include "explain/explain.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "base/base.h"
#include "explain/table.h"

namespace explain
{
namespace
{
constexpr size_t LINE_WIDTH = 78;
constexpr size_t TEXT_WIDTH = 48; // of the short list's first column

// The remedy; I_strPorts takes its place in it.
std::string Remedy(const ROW &I_sRow, const std::string &I_strPorts)
{
    static const std::string strPlace = "{ports}";
    std::string strRemedy = I_sRow.strRemedy;
    const size_t uPlace = strRemedy.find(strPlace);
    if (uPlace != std::string::npos) strRemedy.replace(uPlace, strPlace.size(), I_strPorts);
    return strRemedy;
}

// What a firewall must let in: " (net.ipv4.ip_local_port_range: 32768 to 60999)" on most machines.
std::string LocalPorts()
{
    const std::string strChosen = base::Variable("KORVA_PORT_RANGE");
    if (!strChosen.empty()) return " (KORVA_PORT_RANGE: " + strChosen + ")";
    std::ifstream sFile("/proc/sys/net/ipv4/ip_local_port_range");
    std::string strFirst;
    std::string strLast;
    sFile >> strFirst >> strLast;
    return " (net.ipv4.ip_local_port_range: " + strFirst + " to " + strLast + ")";
}

// Breaks the text between words; the lines after the first are indented as the label is wide.
void PrintWrapped(const std::string &I_strLabel, const std::string &I_strText)
{
    std::istringstream sWords(I_strText);
    std::string strLine = I_strLabel;
    for (std::string strWord; sWords >> strWord;)
    {
        if (strLine.size() + strWord.size() > LINE_WIDTH && strLine.size() > I_strLabel.size())
        {
            std::cout << strLine << '\n';
            strLine = std::string(I_strLabel.size(), ' ');
        }
        else if (strLine.size() > I_strLabel.size()) strLine += ' ';
        strLine += strWord;
    }
    if (!I_strText.empty()) std::cout << strLine << '\n';
}

void PrintRows(const ROWS &I_vecRows)
{
    for (const ROW *spRow : I_vecRows)
    {
        if (spRow != I_vecRows.front()) std::cout << '\n';
        for (const std::string &strText : spRow->vecTexts) std::cout << strText << '\n';
        PrintWrapped("  means:  ", spRow->strMeaning);
        PrintWrapped("  cause:  ", spRow->strCause);
        PrintWrapped("  remedy: ", Remedy(*spRow, LocalPorts()));
    }
}

template <typename PRINT_ROW>
void PrintSections(const char *cpMark, const char *cpHead, PRINT_ROW I_fpPrint)
{
    for (const SECTION &sSection : SECTIONS)
    {
        std::cout << cpMark << sSection.cpTitle << '\n' << cpHead;
        for (const ROW &sRow : Rows())
            if (sRow.spSection == &sSection) I_fpPrint(sRow);
    }
}

void PrintShort(const ROW &I_sRow)
{
    std::string strText = I_sRow.vecTexts.at(0);
    if (strText.size() >= TEXT_WIDTH) strText = strText.substr(0, TEXT_WIDTH - 4) + "...";
    strText.resize(TEXT_WIDTH, ' ');
    std::cout << strText << I_sRow.strMeaning << '\n';
}

void PrintMarkdownRow(const ROW &I_sRow)
{
    const char *cpBreak = "| `";
    for (const std::string &strText : I_sRow.vecTexts)
    {
        std::cout << cpBreak << strText << '`';
        cpBreak = "<br>`";
    }
    std::cout << " | " << I_sRow.strMeaning << " | " << I_sRow.strCause << " | "
              << Remedy(I_sRow, "") << " |\n";
}

void PrintMarkdown()
{
    std::cout
        << "# Return codes and messages\n\n"
           "Made by `xbsactl explain --markdown`; `xbsactl explain TEXT` finds a row from a "
           "number, part\nof a message, or a whole line of a log. `...` stands for what "
           "differs from case to case.\nAfter a failure the call returns 3, unless the row has "
           "another code.\n";
    PrintSections("\n## ",
                  "\n| text | what it means | usual cause | what to do |\n|---|---|---|---|\n",
                  PrintMarkdownRow);
}

void Explain(const std::string &I_strText)
{
    if (std::none_of(I_strText.begin(), I_strText.end(),
                     [](unsigned char cChar) { return std::isalnum(cChar) != 0; }))
        throw base::USAGE_ERROR("explain: there is no word in the text");
    ROWS vecRows = FindNumber(I_strText);
    const ROW *spLine = FindLine(I_strText);
    if (vecRows.empty() && spLine != nullptr) vecRows.push_back(spLine);
    if (vecRows.empty()) vecRows = FindWords(I_strText, false);
    if (vecRows.empty())
    {
        vecRows = FindWords(I_strText, true);
        if (vecRows.empty())
            throw base::FAILURE("nothing is known about \"" + base::Printable(I_strText) +
                                "\"; try fewer words, a number, or no text for the whole list");
        fputs("xbsactl: no message has this text; these entries mention its words\n", stderr);
    }
    PrintRows(vecRows);
}

// Null for a line that reports no failure.
const ROW *FindFailure(const std::string &I_strLine, MODE I_eMode)
{
    const ROW *spRow = FindLine((I_eMode == MODE::INFORMIX ? "Informix mode: " : "") + I_strLine);
    const bool bNothing = spRow != nullptr && spRow->strRemedy.rfind("nothing", 0) == 0;
    return bNothing ? nullptr : spRow;
}
} // namespace

void Run(const OPTIONS &I_sOptions)
{
    std::string strText;
    for (const std::string &strWord : I_sOptions.vecTexts) strText += strWord + " ";
    if (I_sOptions.bMarkdown && !strText.empty())
        throw base::USAGE_ERROR("explain: --markdown prints all, leave the text out");
    if (!strText.empty()) return Explain(strText.substr(0, strText.size() - 1));
    if (I_sOptions.bMarkdown) return PrintMarkdown();
    PrintSections("== ", "", PrintShort);
    std::cout << "\nCause and remedy: xbsactl explain CODE, or (part of) a message or log line\n";
}

std::string Meaning(const std::string &I_strLine, MODE I_eMode)
{
    const ROW *spRow = FindFailure(I_strLine, I_eMode);
    return spRow != nullptr ? spRow->strMeaning : "";
}

std::string Hint(const std::string &I_strLine, MODE I_eMode)
{
    const ROW *spRow = FindFailure(I_strLine, I_eMode);
    return spRow != nullptr ? Remedy(*spRow, LocalPorts()) : "";
}
} // namespace explain
