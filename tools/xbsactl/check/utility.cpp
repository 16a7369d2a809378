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

// A query for a copy that does not exist: the answer is OK and names none.
void Query(const base::CONNECTION &I_sConnection, const SAY &I_fpSay)
{
    const auto fpListener = [&](const std::string &strLine) { I_fpSay("trace", strLine); };
    library::CSession(I_sConnection, fpListener).Copies({"xbsactl-check", "none", 0});
}

// What the utility printed, whatever the library made of it: a line of the trace has 16 bytes of it,
// "Dumping memory: [72 65 70 6C 79 3D 4F 4B 0A   ...".
std::string PrintedIn(const OUTCOME &I_sOutcome)
{
    constexpr size_t DUMPED = 48; // characters of them
    const std::string strBegin = "Dumping memory: [";
    std::string strText;
    for (const EVENT &sEvent : I_sOutcome.vecEvents)
    {
        const char *cpDump = After(sEvent.strValue, strBegin);
        std::istringstream sHex(cpDump != nullptr ? std::string(cpDump).substr(0, DUMPED) : "");
        for (unsigned uByte = 0; sHex >> std::hex >> uByte;) strText += static_cast<char>(uByte);
    }
    return strText;
}

struct UTILITY
{
    const CReport &sReport;
    const base::CONNECTION &sConnection;
    bool bVariables;
    std::chrono::milliseconds sBound;
    std::string strPath{};

    FINDING IniFile()
    {
        if (access(INI_FILE, R_OK) == 0) return Ok(INI_FILE);
        return Fail(base::SystemFailure(INI_FILE).what());
    }

    FINDING IniKey()
    {
        const auto fpFind = [this](const SAY &fpSay) {
            fpSay("path", library::UtilityPath(library::Load(sConnection.strLibrary)));
        };
        strPath = RunChild(sBound, fpFind).Value("path");
        const std::string strFolder = std::filesystem::path(strPath).parent_path();
        if (!strPath.empty() && strPath[0] == '/') return Ok(INI_KEY "=" + strFolder);
        return Fail(strPath.empty() ? "no usable " INI_KEY " in " INI_FILE ", keys:" + IniKeys()
                                    : Text("\"", strFolder, "\" is not an absolute path"));
    }

    FINDING File()
    {
        std::error_code sError;
        const std::filesystem::file_status sStatus = std::filesystem::status(strPath, sError);
        if (!std::filesystem::exists(sStatus)) return Fail(strPath + ": " + sError.message());
        if (std::filesystem::is_regular_file(sStatus) && access(strPath.c_str(), X_OK) == 0)
            return Ok(strPath);
        return Fail(strPath + " is not executable for this account", "chmod a+x " + strPath);
    }

    FINDING Answer()
    {
        if (!bVariables) return NotTried("variables are missing or too long");
        const OUTCOME sOutcome =
            RunChild(sBound, [this](const SAY &fpSay) { Query(sConnection, fpSay); });
        const std::string strText = PrintedIn(sOutcome);
        const std::string strReply = sReport.Foreign(ValueIn(sOutcome, "reply"));
        const std::string strMessage = sReport.Foreign(ValueIn(sOutcome, "message"));
        if (sOutcome.strFailure.empty()) return Ok("answers reply=" + strReply);
        if (strReply.empty())
            return Fail("no reply, " + (strText.empty() ? "nothing printed: " + sOutcome.strFailure
                                                        : "but: " + sReport.Foreign(strText)));
        return Fail(
            Text("answers reply=", strReply, ": ", strMessage.empty() ? "no message" : strMessage));
    }
};
} // namespace

std::string ValueIn(const OUTCOME &I_sOutcome, const std::string &I_strKey)
{
    std::istringstream sLines(PrintedIn(I_sOutcome));
    for (std::string strLine; std::getline(sLines, strLine);)
        if (const char *cpValue = After(strLine, I_strKey + "=")) return cpValue;
    return "";
}

bool CheckUtility(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                  bool I_bVariables, std::chrono::milliseconds I_sBound)
{
    UTILITY sUtility{X_sReport, I_sConnection, I_bVariables, I_sBound};
    const bool bGood = X_sReport.Climb({{"ini.file", [&] { return sUtility.IniFile(); }},
                                        {"ini.key", [&] { return sUtility.IniKey(); }},
                                        {"utility.file", [&] { return sUtility.File(); }},
                                        {"utility.query", [&] { return sUtility.Answer(); }}},
                                       I_bLibrary ? "" : "the library is not usable");
    return bGood && I_bVariables;
}
} // namespace check
