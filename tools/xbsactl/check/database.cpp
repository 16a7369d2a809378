#include <cstdlib>
#include <filesystem>
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

FINDING Row(const std::string &I_strFile, std::istream &I_sFile, const std::string &I_strRow)
{
    for (std::string strLine; std::getline(I_sFile, strLine);)
        if (Fields(strLine) == Fields(I_strRow))
            return Ok(Text(I_strFile, ": \"", Unquoted(strLine), "\""));
    return Fail(I_strFile + " has no row for this library",
                Text("add the line \"", I_strRow, "\"; another leading number will do, too"));
}

// The last line counts. After a "#" comes a comment. The database knows its own folder by name.
std::string LibraryPath(std::istream &I_sFile, const std::string &I_strFolder)
{
    const std::string strVariable = "$INFORMIXDIR";
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
    if (strValue.rfind(strVariable, 0) == 0) strValue.replace(0, strVariable.size(), I_strFolder);
    return strValue;
}

FINDING Path(const std::string &I_strFile, const std::string &I_strValue,
             const std::string &I_strLibrary)
{
    const std::string strFound = Text(I_strFile, ": ", PATH_KEY, " ", I_strValue);
    const std::string strNext = Text("set ", PATH_KEY, " ", I_strLibrary, " in ", I_strFile);
    std::error_code sError;
    if (I_strLibrary.empty() && (I_strValue.empty() || I_strValue[0] == '/'))
        return NotTried("there is no library to compare with");
    if (I_strValue.empty())
        return Warn(Text(I_strFile, " does not set ", PATH_KEY,
                         ": the database takes the library of its default path"),
                    strNext + ", so that it is this one");
    if (I_strValue[0] != '/')
        return Fail(strFound + " is a relative path",
                    strNext + ": an absolute path, whatever folder the database runs in");
    if (std::filesystem::equivalent(I_strValue, I_strLibrary, sError)) return Ok(strFound);
    return Fail(strFound + " is not this library, " + I_strLibrary, strNext);
}

using JUDGE = std::function<FINDING(std::istream &I_sFile)>;

FINDING InFile(const std::string &I_strFile, const std::string &I_strNext, const JUDGE &I_fpJudge)
{
    try
    {
        const std::optional<std::string> strText = base::ReadText(I_strFile, LARGEST);
        std::istringstream sText(strText.value_or(""));
        if (strText) return I_fpJudge(sText);
        return Fail(I_strFile + ": " + std::generic_category().message(ENOENT), I_strNext);
    } catch (const base::FAILURE &sError)
    {
        return Fail(sError.what(), I_strNext);
    }
}
} // namespace

void CheckDatabase(CReport &X_sReport, const OPTIONS &I_sOptions, const CHECKED_LIBRARY &I_sLibrary)
{
    const std::string strFolder = I_sOptions.strInformixDir + "/etc/";
    const std::string strVersions = strFolder + "sm_versions";
    const std::string &strRow = I_sLibrary.strRow;
    const JUDGE fpRow = [&](std::istream &sFile) { return Row(strVersions, sFile, strRow); };
    X_sReport.Add(
        "database.sm_versions",
        strRow.empty()
            ? NotTried("the library shows no version")
            : InFile(strVersions, "make the file, with the line \"" + strRow + "\"", fpRow));

    const char *cpName = getenv("ONCONFIG");
    std::string strName = cpName != nullptr && *cpName != '\0' ? cpName : "onconfig";
    if (!I_sOptions.strOnconfig.empty()) strName = I_sOptions.strOnconfig;
    const std::string strFile = strFolder + strName;
    const JUDGE fpPath = [&](std::istream &sFile) {
        return Path(strFile, LibraryPath(sFile, I_sOptions.strInformixDir), I_sLibrary.strPath);
    };
    X_sReport.Add(
        "database.onconfig",
        InFile(strFile, "correct --informixdir, or give the file's name with --onconfig", fpPath));
}
} // namespace check
