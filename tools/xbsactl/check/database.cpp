// The files that lead the database to this library, and what its own settings mean for its backups.
#include <filesystem>
#include <fstream>
#include <regex>
#include <system_error>

#include "base/json.h"
#include "check/parts.h"
#include "check/settings_json.h"

namespace check
{
namespace
{
constexpr off_t LARGEST = 1 << 20; // bytes of a file of the database
constexpr size_t SCRIPT = 1 << 16; // bytes of a program that are read
constexpr size_t LONGEST = 255;    // characters of a text that are matched: each takes stack

FINDING Row(const std::string &I_strFile, const base::LINES &I_vecLines,
            const std::string &I_strRow)
{
    for (const std::string &strLine : I_vecLines)
        if (base::IsSameRow(strLine, I_strRow))
            return Ok(Text(I_strFile, ": \"", base::Printable(strLine), "\""));
    return Fail(I_strFile + " has no row for this library",
                Text("add the line \"", I_strRow, "\"; any leading number works"));
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
                         ": the database uses the library at its default path"),
                    strNext + ", so that it uses this library");
    if (I_strValue[0] != '/')
        return Fail(strFound + " is a relative path",
                    strNext + ": an absolute path, because the database runs in its own directory");
    if (std::filesystem::equivalent(I_strValue, I_strLibrary, sError)) return Ok(strFound);
    return Fail(strFound + " is not this library (" + I_strLibrary + ")", strNext);
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

// The lines of the configuration file.
struct SETTINGS
{
    base::LINES vecLines;
    const std::string &strFolder; // the database's
};

// The last line counts. The database knows its own directory by name.
std::string Get(const SETTINGS &I_sSettings, const std::string &I_strName)
{
    const std::string strVariable = "$INFORMIXDIR";
    std::string strValue;
    for (const std::string &strLine : I_sSettings.vecLines)
        if (base::Sets(strLine, I_strName.c_str())) strValue = base::Value(strLine);
    if (strValue.starts_with(strVariable))
        strValue.replace(0, strVariable.size(), I_sSettings.strFolder);
    return strValue;
}

// Of settings.json, which lists faulty values: the first rule that matches a whole text, by its
// value or by a line of the program.
std::optional<FINDING> Fault(const base::JSON &I_sSetting, const char *cpKind,
                             const std::string &I_strText, const std::string &I_strShown)
{
    for (const base::JSON &sRule : I_sSetting.at("rules"))
        if (std::regex_match(I_strText.substr(0, LONGEST), std::regex(sRule.value(cpKind, "(?!)"))))
            return FINDING{sRule.at("status") == "fail" ? STATUS::FAIL : STATUS::WARN,
                           Text(I_strShown, ": ", sRule.at("found").get<std::string>())};
    return {};
}

// A path, or a name in the database's bin directory, perhaps with options.
FINDING Program(const base::JSON &I_sSetting, const SETTINGS &I_sSettings,
                const std::string &I_strValue)
{
    const auto sPath = std::filesystem::path(I_sSettings.strFolder) / "bin" /
                       I_strValue.substr(0, I_strValue.find(' '));
    std::error_code sError;
    const auto ePermissions = std::filesystem::status(sPath, sError).permissions();
    if (!std::filesystem::is_regular_file(sPath, sError)) // to open a pipe may wait for ever
        return Fail(sPath.string() + " is not a file, or does not exist");
    if ((ePermissions & std::filesystem::perms::others_write) != std::filesystem::perms::none)
        return Warn(sPath.string() + ": everybody may write to it");
    std::string strText(SCRIPT, '\0');
    std::ifstream sFile(sPath);
    strText.resize(static_cast<size_t>(sFile.read(strText.data(), SCRIPT).gcount()));
    for (const std::string &strLine : base::Lines(strText))
        if (const auto sFault = Fault(I_sSetting, "line", strLine, sPath)) return *sFault;
    return Ok(I_strValue);
}

FINDING Judge(const base::JSON &I_sSetting, const SETTINGS &I_sSettings)
{
    const std::string strValue = Get(I_sSettings, I_sSetting.at("setting"));
    const std::string strShown = strValue.empty() ? "not set" : strValue;
    const std::string strPartner = I_sSetting.value("partner", "");
    if (const auto sFault = Fault(I_sSetting, "value", strValue, strShown)) return *sFault;
    if (!strPartner.empty() && strValue.empty() != Get(I_sSettings, strPartner).empty())
        return Fail(Text(strShown, ", unlike ", strPartner, ": no backup can be restored"));
    if (strValue.empty() || !I_sSetting.value("program", false)) return Ok(strShown);
    return Program(I_sSetting, I_sSettings, strValue);
}

// Each process of a backup listens on its own port.
FINDING Ports(FINDING I_sFinding, long I_lProcesses)
{
    std::istringstream sRange(base::Variable("KORVA_PORT_RANGE"));
    long lFirst = 0;
    long lLast = 0; // with the "-" before it
    sRange >> lFirst >> lLast;
    const long lPorts = 1 - lLast - lFirst;
    if (!sRange || lPorts >= I_lProcesses) return I_sFinding;
    return Fail(Text(I_lProcesses, " processes, but KORVA_PORT_RANGE has ", lPorts, " ports"));
}

long CheckSettings(CReport &X_sReport, const OPTIONS &I_sOptions, const SETTINGS &I_sSettings)
{
    const long lStreams = atol(Get(I_sSettings, "BAR_MAX_BACKUP").c_str());
    for (const base::JSON &sSetting : base::JSON::parse(SETTINGS_JSON))
    {
        const std::string strName = sSetting.at("setting");
        const bool bSkipped = I_sOptions.bNoLogs && sSetting.value("of_logs", false);
        const FINDING sFinding = bSkipped ? Ok("skipped: --no-logs") : Judge(sSetting, I_sSettings);
        X_sReport.Add("database." + strName,
                      strName == "BAR_MAX_BACKUP" ? Ports(sFinding, lStreams) : sFinding);
    }
    return lStreams;
}
} // namespace

long CheckDatabase(CReport &X_sReport, const OPTIONS &I_sOptions, const CHECKED_LIBRARY &I_sLibrary)
{
    SETTINGS sSettings{{}, I_sOptions.strInformixDir};
    const std::string strFolder = I_sOptions.strInformixDir + "/etc/";
    const std::string strVersions = strFolder + "sm_versions";
    const std::string strFile = strFolder + base::OnconfigName(I_sOptions.strOnconfig);
    const std::string &strRow = I_sLibrary.strRow;
    const auto fpRow = [&](const auto &vecLines) { return Row(strVersions, vecLines, strRow); };
    const auto fpPath = [&](const auto &vecLines) {
        sSettings.vecLines = vecLines;
        return Path(strFile, Get(sSettings, base::LIBRARY_KEY), I_sLibrary.strPath);
    };
    std::error_code sError;
    if (!std::filesystem::is_directory(I_sOptions.strInformixDir, sError))
    {
        X_sReport.Add("database.directory",
                      Fail(I_sOptions.strInformixDir + " is not a directory"));
        return 0;
    }
    X_sReport.Add("database.sm_versions", strRow.empty()
                                              ? NotTried("the library did not report its version")
                                              : InFile(strVersions, fpRow));
    X_sReport.Add("database.onconfig", InFile(strFile, fpPath));
    return sSettings.vecLines.empty() ? 0 : CheckSettings(X_sReport, I_sOptions, sSettings);
}
} // namespace check
