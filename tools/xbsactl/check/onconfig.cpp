// What the database's own settings mean for its backups through this library: settings.json says which
// values are faults.
#include <filesystem>
#include <fstream>
#include <regex>

#include "base/json.h"
#include "check/parts.h"
#include "check/settings_json.h"

namespace check
{
namespace
{
constexpr size_t SCRIPT = 1 << 16; // bytes of a program that are looked at
constexpr size_t LONGEST = 255;    // characters of a text that are: a match takes stack for each

struct SETTINGS
{
    const base::LINES &vecLines;
    const std::string strFolder; // the database's

    std::string Get(const std::string &I_strName) const
    {
        return DatabaseValue(vecLines, I_strName.c_str(), strFolder);
    }
};

// The first rule that a text meets as a whole, by its value or by a line of the program.
std::optional<FINDING> Fault(const base::JSON &I_sSetting, const char *cpKind,
                             const std::string &I_strText, const std::string &I_strShown)
{
    for (const base::JSON &sRule : I_sSetting.at("rules"))
        if (std::regex_match(I_strText.substr(0, LONGEST), std::regex(sRule.value(cpKind, "(?!)"))))
            return FINDING{sRule.at("status") == "fail" ? STATUS::FAIL : STATUS::WARN,
                           Text(I_strShown, ": ", sRule.at("found").get<std::string>())};
    return {};
}

// A path, or a name below the database's bin, perhaps with options.
FINDING Program(const base::JSON &I_sSetting, const SETTINGS &I_sSettings,
                const std::string &I_strValue)
{
    const auto sPath = std::filesystem::path(I_sSettings.strFolder) / "bin" /
                       I_strValue.substr(0, I_strValue.find(' '));
    std::error_code sError;
    const auto ePermissions = std::filesystem::status(sPath, sError).permissions();
    if (!std::filesystem::is_regular_file(sPath, sError)) // a pipe would be waited for
        return Fail(sPath.string() + " is not a file, or does not exist");
    if ((ePermissions & std::filesystem::perms::others_write) != std::filesystem::perms::none)
        return Warn(sPath.string() + ": everybody may write it");
    std::string strText(SCRIPT, '\n');
    std::ifstream(sPath).read(strText.data(), SCRIPT);
    for (const std::string &strLine : base::Lines(strText))
        if (const auto sFault = Fault(I_sSetting, "line", strLine, sPath)) return *sFault;
    return Ok(I_strValue);
}

FINDING Judge(const base::JSON &I_sSetting, const SETTINGS &I_sSettings)
{
    const std::string strValue = I_sSettings.Get(I_sSetting.at("setting"));
    const std::string strShown = strValue.empty() ? "not set" : strValue;
    const std::string strPartner = I_sSetting.value("partner", "");
    if (const auto sFault = Fault(I_sSetting, "value", strValue, strShown)) return *sFault;
    if (!strPartner.empty() && strValue.empty() != I_sSettings.Get(strPartner).empty())
        return Fail(Text(strShown, ", unlike ", strPartner, ": no backup can be restored"));
    if (strValue.empty() || !I_sSetting.value("program", false)) return Ok(strShown);
    return Program(I_sSetting, I_sSettings, strValue);
}

// Each process of a backup listens on a port of its own.
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
} // namespace

long CheckSettings(CReport &X_sReport, const OPTIONS &I_sOptions, const base::LINES &I_vecLines)
{
    const SETTINGS sSettings{I_vecLines, I_sOptions.strInformixDir};
    const long lStreams = atol(sSettings.Get("BAR_MAX_BACKUP").c_str());
    for (const base::JSON &sSetting : base::JSON::parse(SETTINGS_JSON))
    {
        const std::string strName = sSetting.at("setting");
        const bool bSkipped = I_sOptions.bNoLogs && sSetting.value("of_logs", false);
        const FINDING sFinding =
            bSkipped ? Ok("not looked at: --no-logs") : Judge(sSetting, sSettings);
        X_sReport.Add("database." + strName,
                      strName == "BAR_MAX_BACKUP" ? Ports(sFinding, lStreams) : sFinding);
    }
    return lStreams;
}
} // namespace check
