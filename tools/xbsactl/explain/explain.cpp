#include "explain/explain.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <sstream>

#include "base/base.h"
#include "explain/match.h"

namespace
{
constexpr size_t LINE_WIDTH = 78;
constexpr size_t TEXT_WIDTH = 48; // of the table's first column

struct SECTION
{
    ROW eKind;
    const char *cpTitle;
};

constexpr SECTION SECTIONS[] = {
    {ROW::RETURN_CODE, "Return codes"},
    {ROW::DATABASE, "Failed calls, as the database tells them"},
    {ROW::EXIT_CODE, "Exit codes of xbsactl"},
    {ROW::SERVER, "Replies of the server"},
    {ROW::UTILITY, "Answers of the COM utility"},
    {ROW::REASON, "Reasons that the system gives"},
    {ROW::MESSAGE, "Messages of the library"},
    {ROW::HARMLESS, "Lines that look worse than they are"},
};

std::string CodeText(const CATALOGUE_ROW &I_sRow)
{
    if (I_sRow.eKind != ROW::RETURN_CODE || I_sRow.iCode == NO_CODE) return "";
    std::ostringstream sText;
    sText << I_sRow.iCode << ", 0x" << std::hex << I_sRow.iCode;
    return sText.str();
}

// Breaks the text between words; the lines after the first are indented as the label is wide.
void PrintWrapped(const std::string &I_strLabel, const std::string &I_strText)
{
    std::istringstream sWords(I_strText);
    std::string strLine = I_strLabel;
    for (std::string strWord; sWords >> strWord;)
    {
        const bool bFirst = strLine.size() == I_strLabel.size();
        if (!bFirst && strLine.size() + 1 + strWord.size() > LINE_WIDTH)
        {
            std::cout << strLine << '\n';
            strLine = std::string(I_strLabel.size(), ' ') + strWord;
            continue;
        }
        strLine += (bFirst ? "" : " ") + strWord;
    }
    std::cout << strLine << '\n';
}

void PrintRow(const CATALOGUE_ROW &I_sRow)
{
    const std::string strCode = CodeText(I_sRow);
    for (const std::string &strText : catalogue_Texts(I_sRow)) std::cout << strText << '\n';
    if (!strCode.empty()) PrintWrapped("  code:   ", strCode);
    PrintWrapped("  means:  ", I_sRow.cpSeen);
    PrintWrapped("  cause:  ", I_sRow.cpCause);
    PrintWrapped("  action: ", I_sRow.cpAction);
}

void PrintRows(const ROWS &I_vecRows)
{
    bool bFirst = true;
    for (const CATALOGUE_ROW *spRow : I_vecRows)
    {
        if (!bFirst) std::cout << '\n';
        PrintRow(*spRow);
        bFirst = false;
    }
}

void PrintTableRow(const CATALOGUE_ROW &I_sRow)
{
    std::string strText = catalogue_Texts(I_sRow).front();
    const std::string strCode = CodeText(I_sRow);
    if (!strCode.empty()) strText += " (" + strCode + ")";
    if (strText.size() >= TEXT_WIDTH) strText = strText.substr(0, TEXT_WIDTH - 4) + "...";
    strText.resize(TEXT_WIDTH, ' ');
    std::cout << strText << I_sRow.cpSeen << '\n';
}

void PrintTable()
{
    for (const SECTION &sSection : SECTIONS)
    {
        if (&sSection != std::begin(SECTIONS)) std::cout << '\n';
        std::cout << "== " << sSection.cpTitle << '\n';
        for (const CATALOGUE_ROW &sRow : catalogue_Rows())
        {
            if (sRow.eKind == sSection.eKind) PrintTableRow(sRow);
        }
    }
    std::cout << "\nCause and remedy: xbsactl explain CODE, or (part of) a message or log line\n";
}

void PrintMarkdownRow(const CATALOGUE_ROW &I_sRow)
{
    const std::string strCode = CodeText(I_sRow);
    const char *cpBreak = "| ";
    for (const std::string &strText : catalogue_Texts(I_sRow))
    {
        std::cout << cpBreak << '`' << strText << '`';
        if (!strCode.empty() && cpBreak[0] == '|') std::cout << " (" << strCode << ')';
        cpBreak = "<br>";
    }
    std::cout << " | " << I_sRow.cpSeen << " | " << I_sRow.cpCause << " | " << I_sRow.cpAction
              << " |\n";
}

void PrintMarkdown()
{
    std::cout << "# Return codes and messages\n\n"
                 "Made by `xbsactl explain --markdown`; `xbsactl explain TEXT` finds a row from a "
                 "number, part\nof a message, or a whole line of a log. `...` stands for what "
                 "differs from case to case.\n";
    for (const SECTION &sSection : SECTIONS)
    {
        std::cout << "\n## " << sSection.cpTitle
                  << "\n\n| text | what it means | usual cause | what to do |\n|---|---|---|---|\n";
        for (const CATALOGUE_ROW &sRow : catalogue_Rows())
        {
            if (sRow.eKind == sSection.eKind) PrintMarkdownRow(sRow);
        }
    }
}

std::string Joined(const std::vector<std::string> &I_vecTexts)
{
    std::string strAll;
    for (const std::string &strText : I_vecTexts) strAll += (strAll.empty() ? "" : " ") + strText;
    return strAll;
}

bool HasWord(const std::string &I_strText)
{
    return std::any_of(I_strText.begin(), I_strText.end(),
                       [](unsigned char cChar) { return std::isalnum(cChar) != 0; });
}

void Explain(const std::string &I_strText)
{
    if (!HasWord(I_strText)) throw base::USAGE_ERROR("explain: there is no word in the text");
    ROWS vecRows = match_Number(I_strText);
    if (vecRows.empty()) vecRows = match_Line(I_strText);
    if (vecRows.empty()) vecRows = match_Part(I_strText);
    if (vecRows.empty())
    {
        vecRows = match_Words(I_strText);
        if (vecRows.empty())
            throw base::FAILURE("nothing is known about \"" + base::Printable(I_strText) +
                                "\"; try fewer words, a number, or no text for the whole list");
        fputs("xbsactl: no message has this text; these entries mention its words\n", stderr);
    }
    PrintRows(vecRows);
}

bool IsFailure(const CATALOGUE_ROW &I_sRow)
{
    const bool bNormal =
        I_sRow.eKind == ROW::RETURN_CODE && (I_sRow.iCode == 0 || I_sRow.iCode == 18);
    return I_sRow.eKind != ROW::HARMLESS && !bNormal;
}
} // namespace

void explain::Run(const explain::OPTIONS &I_sOptions)
{
    const std::string strText = Joined(I_sOptions.vecTexts);
    if (I_sOptions.bMarkdown && !I_sOptions.vecTexts.empty())
        throw base::USAGE_ERROR("explain: --markdown prints all, leave the text out");
    if (I_sOptions.bMarkdown) PrintMarkdown();
    else if (I_sOptions.vecTexts.empty()) PrintTable();
    else Explain(strText);
}

std::string explain_Hint(const std::string &I_strLine)
{
    const ROWS vecRows = match_Line(I_strLine);
    if (vecRows.empty() || !IsFailure(*vecRows.front())) return "";
    const CATALOGUE_ROW &sRow = *vecRows.front();
    const std::string strAction = sRow.cpAction;
    return std::string(sRow.cpSeen) + (strAction == "-" ? "" : " " + strAction);
}
