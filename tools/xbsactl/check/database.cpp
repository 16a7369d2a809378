#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "check/steps.h"

namespace check
{
namespace
{
constexpr const char *PATH_KEY = "BAR_BSALIB_PATH";
constexpr off_t LARGEST = 1 << 20; // bytes of a file of the database

std::string Unquoted(const std::string &I_strText)
{
    const char *cpBlanks = " \t\r\"'";
    const size_t uFirst = I_strText.find_first_not_of(cpBlanks);
    if (uFirst == std::string::npos) return "";
    return I_strText.substr(uFirst, I_strText.find_last_not_of(cpBlanks) - uFirst + 1);
}

// The fields of a row; its leading number is the database's own matter, and so is a "|" at its end.
std::vector<std::string> Fields(const std::string &I_strRow)
{
    std::vector<std::string> vecFields;
    std::istringstream sRow(I_strRow);
    for (std::string strField; std::getline(sRow, strField, '|');)
        vecFields.push_back(Unquoted(strField));
    while (!vecFields.empty() && vecFields.back().empty()) vecFields.pop_back();
    if (!vecFields.empty()) vecFields.erase(vecFields.begin());
    return vecFields;
}

// Throws FAILURE.
std::istringstream Read(const std::string &I_strFile)
{
    const std::optional<std::string> strText = base::ReadText(I_strFile, LARGEST);
    if (strText) return std::istringstream(*strText);
    throw base::FAILURE(I_strFile + ": " + std::generic_category().message(ENOENT));
}

FINDING Row(const std::string &I_strFile, const std::string &I_strRow)
{
    if (I_strRow.empty()) return NotTried("the library shows no version");
    try
    {
        std::istringstream sFile = Read(I_strFile);
        for (std::string strLine; std::getline(sFile, strLine);)
            if (Fields(strLine) == Fields(I_strRow))
                return Ok(I_strFile + ": \"" + Unquoted(strLine) + "\"");
    } catch (const base::FAILURE &sError)
    {
        return Fail(sError.what(), "make the file, with the line \"" + I_strRow + "\"");
    }
    return Fail(I_strFile + " has no row for this library",
                "add the line \"" + I_strRow + "\"; another leading number will do, too");
}

std::string OnconfigFile(const OPTIONS &I_sOptions)
{
    const char *cpName = getenv("ONCONFIG");
    std::string strName = cpName != nullptr && *cpName != '\0' ? cpName : "onconfig";
    if (!I_sOptions.strOnconfig.empty()) strName = I_sOptions.strOnconfig;
    return I_sOptions.strInformixDir + "/etc/" + strName;
}

// The last line counts. After a "#" comes a comment. The database knows its own folder by name.
std::string LibraryPath(std::istream &I_sFile, const std::string &I_strFolder)
{
    std::string strValue;
    for (std::string strLine; std::getline(I_sFile, strLine);)
    {
        std::istringstream sWords(strLine.substr(0, strLine.find('#')));
        std::string strKey;
        std::string strRest;
        sWords >> strKey;
        std::getline(sWords, strRest);
        if (strKey == PATH_KEY) strValue = Unquoted(strRest);
    }
    const std::string strVariable = "$INFORMIXDIR";
    if (strValue.compare(0, strVariable.size(), strVariable) == 0)
        strValue.replace(0, strVariable.size(), I_strFolder);
    return strValue;
}

FINDING Path(const std::string &I_strFile, const std::string &I_strValue,
             const std::string &I_strLibrary)
{
    const std::string strFound = I_strFile + ": " + PATH_KEY + " " + I_strValue;
    const std::string strNext =
        "set " + std::string(PATH_KEY) + " " + I_strLibrary + " in " + I_strFile;
    std::error_code sError;
    if (I_strLibrary.empty() && (I_strValue.empty() || I_strValue[0] == '/'))
        return NotTried("there is no library to compare with");
    if (I_strValue.empty())
        return Warn(I_strFile + " does not set " + PATH_KEY +
                        ": the database takes the library of its default path",
                    strNext + ", so that it is this one");
    if (I_strValue[0] != '/')
        return Fail(strFound + " is a relative path",
                    strNext + ": an absolute path, whatever folder the database runs in");
    if (!std::filesystem::equivalent(I_strValue, I_strLibrary, sError))
        return Fail(strFound + " is not this library, " + I_strLibrary, strNext);
    return Ok(strFound);
}

FINDING Onconfig(const OPTIONS &I_sOptions, const std::string &I_strLibrary)
{
    const std::string strFile = OnconfigFile(I_sOptions);
    try
    {
        std::istringstream sFile = Read(strFile);
        return Path(strFile, LibraryPath(sFile, I_sOptions.strInformixDir), I_strLibrary);
    } catch (const base::FAILURE &sError)
    {
        return Fail(sError.what(),
                    "correct --informixdir, or give the file's name with --onconfig or ONCONFIG");
    }
}
} // namespace

void CheckDatabase(CReport &X_sReport, const OPTIONS &I_sOptions, const CHECKED_LIBRARY &I_sLibrary)
{
    X_sReport.Add("database.sm_versions",
                  Row(I_sOptions.strInformixDir + "/etc/sm_versions", I_sLibrary.strRow));
    X_sReport.Add("database.onconfig", Onconfig(I_sOptions, I_sLibrary.strPath));
}
} // namespace check
