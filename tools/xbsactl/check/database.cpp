#include "check/database.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <system_error>
#include <vector>

#include "base/base.h"

namespace
{
constexpr const char *ROW_STEP = "database.sm_versions";
constexpr const char *PATH_STEP = "database.onconfig";
constexpr const char *PATH_KEY = "BAR_BSALIB_PATH";
constexpr off_t LARGEST = 1 << 20; // bytes of a file of the database

std::string Unquoted(const std::string &I_strText)
{
    const char *cpBlanks = " \t\r\"'";
    const size_t uFirst = I_strText.find_first_not_of(cpBlanks);
    if (uFirst == std::string::npos) return "";
    return I_strText.substr(uFirst, I_strText.find_last_not_of(cpBlanks) - uFirst + 1);
}

// The fields of a row; the number in front is the database's own matter, and so is a "|" at the end.
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

// Returns why the file cannot be read; empty when it was.
std::string Read(const std::string &I_strFile, std::istringstream &O_sText)
{
    try
    {
        const std::optional<std::string> strText = base::ReadText(I_strFile, LARGEST);
        O_sText.str(strText.value_or(""));
        return strText ? "" : I_strFile + ": " + std::generic_category().message(ENOENT);
    } catch (const base::FAILURE &sFailure)
    {
        return sFailure.what();
    }
}

void CheckRow(CReport &I_sReport, const std::string &I_strFile, const std::string &I_strRow)
{
    if (I_strRow.empty()) return I_sReport.NotTried(ROW_STEP, "the library tells no version");
    std::istringstream sFile;
    const std::string strFault = Read(I_strFile, sFile);
    if (!strFault.empty())
        return I_sReport.Fail(ROW_STEP, strFault,
                              "make the file, with the line \"" + I_strRow + "\"");
    for (std::string strLine; std::getline(sFile, strLine);)
        if (Fields(strLine) == Fields(I_strRow))
            return I_sReport.Ok(ROW_STEP, I_strFile + ": \"" + Unquoted(strLine) + "\"");
    I_sReport.Fail(ROW_STEP, I_strFile + " has no row for this library",
                   "add the line \"" + I_strRow + "\"; another number in front will do, too");
}

std::string OnconfigFile(const std::string &I_strFolder)
{
    const char *cpName = getenv("ONCONFIG");
    return I_strFolder + "/etc/" + (cpName != nullptr && *cpName != '\0' ? cpName : "onconfig");
}

// The last line counts. What stands behind a "#" is a comment.
std::string ReadKey(std::istream &I_sFile)
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
    return strValue;
}

bool IsSameFile(const std::string &I_strOne, const std::string &I_strOther)
{
    struct stat sOne
    {
    };
    struct stat sOther
    {
    };
    return stat(I_strOne.c_str(), &sOne) == 0 && stat(I_strOther.c_str(), &sOther) == 0 &&
           sOne.st_dev == sOther.st_dev && sOne.st_ino == sOther.st_ino;
}

void CheckPath(CReport &I_sReport, const std::string &I_strFile, const std::string &I_strValue,
               const std::string &I_strLibrary)
{
    const std::string strFound = I_strFile + ": " + PATH_KEY + " " + I_strValue;
    const std::string strNext =
        "set " + std::string(PATH_KEY) + " " + I_strLibrary + " in " + I_strFile;
    if (I_strValue.empty())
        return I_sReport.Warn(PATH_STEP,
                              I_strFile + " does not set " + PATH_KEY +
                                  ": the database takes the library of its default path",
                              strNext + ", so that it is this one");
    if (I_strValue[0] != '/')
        return I_sReport.Fail(PATH_STEP, strFound + " is a relative path",
                              strNext + ": an absolute path, whatever folder the database runs in");
    if (!IsSameFile(I_strValue, I_strLibrary))
        return I_sReport.Fail(PATH_STEP, strFound + " is not this library, " + I_strLibrary,
                              strNext);
    I_sReport.Ok(PATH_STEP, strFound);
}

// The database knows its own folder by name.
std::string Expanded(std::string I_strValue, const std::string &I_strFolder)
{
    const std::string strVariable = "$INFORMIXDIR";
    if (I_strValue.compare(0, strVariable.size(), strVariable) == 0)
        I_strValue.replace(0, strVariable.size(), I_strFolder);
    return I_strValue;
}

void CheckOnconfig(CReport &I_sReport, const std::string &I_strFolder,
                   const std::string &I_strLibrary)
{
    const std::string strFile = OnconfigFile(I_strFolder);
    std::istringstream sFile;
    const std::string strFault = Read(strFile, sFile);
    if (!strFault.empty())
        return I_sReport.Fail(PATH_STEP, strFault,
                              "correct --informixdir, or set ONCONFIG to the file's name");
    const std::string strValue = Expanded(ReadKey(sFile), I_strFolder);
    if (I_strLibrary.empty() && (strValue.empty() || strValue[0] == '/'))
        return I_sReport.NotTried(PATH_STEP, "there is no library to compare with");
    CheckPath(I_sReport, strFile, strValue, I_strLibrary);
}
} // namespace

void check_Database(CReport &I_sReport, const std::string &I_strInformixDir,
                    const CHECKED_LIBRARY &I_sLibrary)
{
    if (I_strInformixDir.empty()) return;
    CheckRow(I_sReport, I_strInformixDir + "/etc/sm_versions", I_sLibrary.strRow);
    CheckOnconfig(I_sReport, I_strInformixDir, I_sLibrary.strPath);
}
