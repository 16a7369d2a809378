#include <filesystem>
#include <fstream>

#include "check/parts.h"
#include "library/library.h"

namespace check
{
namespace
{
#define INI_FILE "/etc/korva2000.ini"
#define INI_KEY "SM_BIN_KORVA"

// The names that the INI file sets.
std::string IniKeys()
{
    std::ifstream sFile(INI_FILE);
    std::string strKeys;
    for (std::string strLine; std::getline(sFile, strLine);)
        if (strLine.find('=') != std::string::npos)
            strKeys += " " + strLine.substr(0, strLine.find('='));
    return strKeys.empty() ? " none" : strKeys;
}

// What the utility printed, even if the library rejected it: a line of the trace has 16 bytes of
// it, "Dumping memory: [72 65 70 6C 79 3D 4F 4B 0A   ...".
std::string PrintedIn(const OUTCOME &I_sOutcome)
{
    constexpr size_t DUMPED = 48; // characters of them
    std::string strText;
    for (const EVENT &sEvent : I_sOutcome.vecEvents)
    {
        const auto strDump = base::After(sEvent.strValue, "Dumping memory: [");
        std::istringstream sHex(strDump.value_or("").substr(0, DUMPED));
        for (unsigned uByte = 0; sHex >> std::hex >> uByte;) strText += static_cast<char>(uByte);
    }
    return strText;
}

FINDING IniFile()
{
    if (access(INI_FILE, R_OK) == 0) return Ok(INI_FILE);
    return Fail(base::SystemFailure(INI_FILE).what());
}

FINDING IniKey(const std::string &I_strPath)
{
    const std::string strFolder = std::filesystem::path(I_strPath).parent_path();
    if (I_strPath.starts_with('/')) return Ok(INI_KEY "=" + strFolder);
    return Fail(I_strPath.empty() ? "no usable " INI_KEY " in " INI_FILE ", keys:" + IniKeys()
                                  : Text("\"", strFolder, "\" is not an absolute path"));
}

FINDING File(const std::string &I_strPath)
{
    std::error_code sError;
    const std::filesystem::file_status sStatus = std::filesystem::status(I_strPath, sError);
    if (!std::filesystem::exists(sStatus)) return Fail(I_strPath + ": " + sError.message());
    if (std::filesystem::is_regular_file(sStatus) && access(I_strPath.c_str(), X_OK) == 0)
        return Ok(I_strPath);
    return Fail(I_strPath + " is not executable for this account", "chmod a+x " + I_strPath);
}

FINDING Answer(const CReport &I_sReport, const OUTCOME &I_sOutcome)
{
    const std::string strText = I_sReport.Foreign(PrintedIn(I_sOutcome));
    const std::string strReply = I_sReport.Foreign(ValueIn(I_sOutcome, "reply"));
    const std::string strMessage = I_sReport.Foreign(ValueIn(I_sOutcome, "message"));
    const std::string strFound = "answered reply=" + strReply;
    if (I_sOutcome.strFailure.empty()) return Ok(strFound);
    if (!strReply.empty())
        return Fail(strFound + ": " + (strMessage.empty() ? "no message" : strMessage));
    if (!strText.empty()) return Fail("no reply, but printed: " + strText);
    return Fail("no reply, nothing printed: " + I_sOutcome.strFailure);
}
} // namespace

std::string ValueIn(const OUTCOME &I_sOutcome, const std::string &I_strKey)
{
    std::istringstream sLines(PrintedIn(I_sOutcome));
    for (std::string strLine; std::getline(sLines, strLine);)
        if (const auto strValue = base::After(strLine, I_strKey + "=")) return *strValue;
    return "";
}

bool CheckUtility(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                  bool I_bVariables, std::chrono::milliseconds I_sBound)
{
    std::string strPath;
    const auto fpKey = [&] {
        const OUTCOME sFound = RunChild(I_sBound, [&](const SAY &fpSay) {
            fpSay("path", library::UtilityPath(library::Load(I_sConnection.strLibrary)));
        });
        return IniKey(strPath = sFound.Value("path"));
    };
    const auto fpAnswer = [&] {
        if (!I_bVariables) return NotTried("variables are missing or too long");
        const auto fpQuery = [&](const SAY &fpSay) {
            const auto fpListener = [&](const std::string &strLine) { fpSay("trace", strLine); };
            // Of a copy that does not exist: the answer is OK and names none.
            library::CSession(I_sConnection, fpListener).Copies({"xbsactl-check", "none", 0});
        };
        return Answer(X_sReport, RunChild(I_sBound, fpQuery));
    };
    const STEPS vecSteps = {{"ini.file", IniFile},
                            {"ini.key", fpKey},
                            {"utility.file", [&] { return File(strPath); }},
                            {"utility.query", fpAnswer}};
    return X_sReport.Climb(vecSteps, I_bLibrary ? "" : "the library is not usable") && I_bVariables;
}
} // namespace check
