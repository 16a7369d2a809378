#include "base/base.h"

#include <strings.h>

#include <sstream>

namespace base
{
namespace
{
std::string Unquoted(const std::string &I_strText)
{
    const char *cpBlanks = " \t\r\"'";
    const size_t uFirst = I_strText.find_first_not_of(cpBlanks);
    if (uFirst == std::string::npos) return "";
    return I_strText.substr(uFirst, I_strText.find_last_not_of(cpBlanks) - uFirst + 1);
}

// Name and value; empty for a comment.
std::pair<std::string, std::string> Setting(const std::string &I_strLine)
{
    std::istringstream sWords(I_strLine.substr(0, I_strLine.find('#')));
    std::string strName;
    std::string strRest;
    sWords >> strName;
    std::getline(sWords, strRest);
    return {strName, Unquoted(strRest)};
}

LINES Fields(const std::string &I_strRow)
{
    LINES vecFields;
    std::istringstream sRow(I_strRow);
    for (std::string strField; std::getline(sRow, strField, '|');)
        vecFields.push_back(Unquoted(strField));
    while (!vecFields.empty() && vecFields.back().empty()) vecFields.pop_back();
    if (!vecFields.empty()) vecFields.erase(vecFields.begin());
    return vecFields;
}
} // namespace

LINES Lines(const std::string &I_strText)
{
    LINES vecLines;
    std::istringstream sText(I_strText);
    for (std::string strLine; std::getline(sText, strLine);) vecLines.push_back(strLine);
    return vecLines;
}

std::string OnconfigName(const std::string &I_strName)
{
    const std::string strName = I_strName.empty() ? Variable("ONCONFIG") : I_strName;
    return strName.empty() ? "onconfig" : strName;
}

bool Sets(const std::string &I_strLine, const char *cpName)
{
    return strcasecmp(Setting(I_strLine).first.c_str(), cpName) == 0;
}

std::string Value(const std::string &I_strLine)
{
    return Setting(I_strLine).second;
}

bool IsSameRow(const std::string &I_strRow, const std::string &I_strOther)
{
    return Fields(I_strRow) == Fields(I_strOther);
}
} // namespace base
