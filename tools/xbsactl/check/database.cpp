#include <algorithm>
#include <filesystem>
#include <system_error>

#include "check/parts.h"

namespace check
{
namespace
{
constexpr off_t LARGEST = 1 << 20; // bytes of a file of the database

FINDING Row(const std::string &I_strFile, const base::LINES &I_vecLines,
            const std::string &I_strRow)
{
    for (const std::string &strLine : I_vecLines)
        if (base::IsSameRow(strLine, I_strRow))
            return Ok(Text(I_strFile, ": \"", base::Printable(strLine), "\""));
    return Fail(I_strFile + " has no row for this library",
                Text("add the line \"", I_strRow, "\"; another leading number will do, too"));
}

FINDING Path(const std::string &I_strFile, const std::string &I_strValue,
             const std::string &I_strLibrary)
{
    const std::string strFound = Text(I_strFile, ": ", base::LIBRARY_KEY, " ", I_strValue);
    const std::string strNext =
        Text("set ", base::LIBRARY_KEY, " ", I_strLibrary, " in ", I_strFile);
    std::error_code sError;
    if (I_strLibrary.empty() && (I_strValue.empty() || I_strValue[0] == '/'))
        return NotTried("there is no library to compare with");
    if (I_strValue.empty())
        return Warn(Text(I_strFile, " does not set ", base::LIBRARY_KEY,
                         ": the database takes the library of its default path"),
                    strNext + ", so that it is this one");
    if (I_strValue[0] != '/')
        return Fail(strFound + " is a relative path",
                    strNext + ": an absolute path, whatever folder the database runs in");
    if (std::filesystem::equivalent(I_strValue, I_strLibrary, sError)) return Ok(strFound);
    return Fail(strFound + " is not this library, " + I_strLibrary, strNext);
}

FINDING InFile(const std::string &I_strFile,
               const std::function<FINDING(const base::LINES &)> &I_fpJudge)
{
    try
    {
        const std::optional<std::string> strText = base::ReadText(I_strFile, LARGEST);
        if (strText) return I_fpJudge(base::Lines(*strText));
        return Fail(I_strFile + ": " + std::generic_category().message(ENOENT));
    } catch (const base::FAILURE &sError)
    {
        return Fail(sError.what());
    }
}
} // namespace

// The last line counts. The database knows its own folder by name.
std::string DatabaseValue(const base::LINES &I_vecLines, const char *cpName,
                          const std::string &I_strFolder)
{
    const std::string strVariable = "$INFORMIXDIR";
    std::string strValue;
    for (const std::string &strLine : I_vecLines)
        if (base::Sets(strLine, cpName)) strValue = base::Value(strLine);
    if (strValue.starts_with(strVariable)) strValue.replace(0, strVariable.size(), I_strFolder);
    return strValue;
}

long CheckDatabase(CReport &X_sReport, const OPTIONS &I_sOptions, const CHECKED_LIBRARY &I_sLibrary)
{
    base::LINES vecSettings;
    const std::string strFolder = I_sOptions.strInformixDir + "/etc/";
    const std::string strVersions = strFolder + "sm_versions";
    const std::string strFile = strFolder + base::OnconfigName(I_sOptions.strOnconfig);
    const std::string &strRow = I_sLibrary.strRow;
    const auto fpRow = [&](const auto &vecLines) { return Row(strVersions, vecLines, strRow); };
    const auto fpPath = [&](const auto &vecLines) {
        vecSettings = vecLines;
        return Path(strFile, DatabaseValue(vecLines, base::LIBRARY_KEY, I_sOptions.strInformixDir),
                    I_sLibrary.strPath);
    };
    std::error_code sError;
    if (!std::filesystem::is_directory(I_sOptions.strInformixDir, sError))
    {
        X_sReport.Add("database.folder", Fail(I_sOptions.strInformixDir + " is not a directory"));
        return 0;
    }
    X_sReport.Add("database.sm_versions", strRow.empty() ? NotTried("the library shows no version")
                                                         : InFile(strVersions, fpRow));
    X_sReport.Add("database.onconfig", InFile(strFile, fpPath));
    return vecSettings.empty() ? 0 : CheckSettings(X_sReport, I_sOptions, vecSettings);
}
} // namespace check
