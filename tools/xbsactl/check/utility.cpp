#include <strings.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "check/steps.h"
#include "library/library.h"
#include "xbsa_session.h"

namespace check
{
namespace
{
#define INI_FILE "/etc/korva2000.ini"
#define INI_KEY "SM_BIN_KORVA"
#define INI_EXAMPLE INI_KEY "=/folder/of/the/utility"

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

// The library's own search. In a child, which is rid of the library afterwards.
void FindUtility(const std::string &I_strLibrary, const SAY &I_fpSay)
{
    std::array<char, PATH_MAX> szPath{};
    unsigned uSize = szPath.size();
    if (LIBRARY_SYMBOL(library::Load(I_strLibrary), find_com_intf)(szPath.data(), &uSize) == 0)
        I_fpSay("path", szPath.data());
}

// "Dumping memory: [72 65 70 6C 79 3D 4F 4B 0A  ... ]" holds up to 16 bytes of an answer.
std::string Undumped(const std::string &I_strLine)
{
    const std::string strBegin = "Dumping memory: [";
    std::string strText;
    if (I_strLine.compare(0, strBegin.size(), strBegin) != 0) return strText;
    std::istringstream sHex(I_strLine.substr(strBegin.size(), 3 * 16));
    for (unsigned uByte = 0; sHex >> std::hex >> uByte;) strText += static_cast<char>(uByte);
    return strText;
}

// A query for a copy that does not exist: the answer is OK and names none. In a child.
void Query(const base::CONNECTION &I_sConnection, const SAY &I_fpSay)
{
    const auto fpListener = [&I_fpSay](const std::string &I_strLine) {
        I_fpSay("trace", I_strLine);
    };
    library::CSession(I_sConnection, fpListener).Copies({"xbsactl-check", "none", 0});
}

// What the utility printed, whatever the library made of it.
std::string AnswerIn(const OUTCOME &I_sOutcome)
{
    std::string strText;
    for (const EVENT &sEvent : I_sOutcome.vecEvents)
        if (sEvent.strName == "trace") strText += Undumped(sEvent.strValue);
    return strText;
}

std::string ValueIn(const std::string &I_strText, const std::string &I_strKey)
{
    std::istringstream sLines(I_strText);
    for (std::string strLine; std::getline(sLines, strLine);)
        if (strLine.compare(0, I_strKey.size() + 1, I_strKey + "=") == 0)
            return base::Printable(strLine.substr(I_strKey.size() + 1));
    return "";
}

class CUtility
{
  public:
    CUtility(const CReport &I_sReport, const base::CONNECTION &I_sConnection, bool I_bVariables,
             std::chrono::milliseconds I_sBound)
        : sReport(I_sReport), sConnection(I_sConnection), bVariables(I_bVariables), sBound(I_sBound)
    {
    }

    FINDING IniFile()
    {
        if (access(INI_FILE, R_OK) == 0) return Ok(INI_FILE);
        return Fail(base::SystemFailure(INI_FILE).what(),
                    "make it, readable for everybody, with the line " INI_EXAMPLE);
    }

    FINDING IniKey()
    {
        const OUTCOME sFound = CChild([this](const SAY &I_fpSay) {
                                   FindUtility(sConnection.strLibrary, I_fpSay);
                               }).Wait(sBound);
        strPath = sFound.Value("path");
        const std::string strFolder = std::filesystem::path(strPath).parent_path();
        if (!strPath.empty() && strPath[0] == '/') return Ok(INI_KEY "=" + strFolder);
        return Fail(strPath.empty() ? "no usable " INI_KEY " in " INI_FILE ", keys:" + IniKeys()
                                    : "\"" + strFolder + "\" is not an absolute path",
                    "write " INI_EXAMPLE " into " INI_FILE
                    ", capitals as they are, in at most 510 bytes");
    }

    FINDING File()
    {
        std::error_code sError;
        const std::filesystem::file_status sStatus = std::filesystem::status(strPath, sError);
        if (!std::filesystem::exists(sStatus))
            return Fail(strPath + ": " + sError.message(),
                        "install the utility there, or correct " INI_KEY " in " INI_FILE);
        if (std::filesystem::is_regular_file(sStatus) && access(strPath.c_str(), X_OK) == 0)
            return Ok(strPath);
        return Fail(strPath + " is not executable for this account", "chmod a+x " + strPath);
    }

    FINDING Answer()
    {
        if (!bVariables) return NotTried("variables are missing or too long");
        const OUTCOME sOutcome =
            RunChild(sBound, [this](const SAY &I_fpSay) { Query(sConnection, I_fpSay); });
        const std::string strText = AnswerIn(sOutcome);
        const std::string strReply = ValueIn(strText, "reply");
        if (sOutcome.strFailure.empty()) return Ok("answers reply=" + strReply);
        if (strText.empty()) return Silent(sOutcome.strFailure);
        if (strReply.empty())
            return Fail("no reply: " + sReport.Foreign(strText),
                        "run " + strPath + " -q by hand: is it the utility, and complete?");
        const std::string strMessage = ValueIn(strText, "message");
        return Fail("answers reply=" + sReport.Foreign(strReply) + ": " +
                        (strMessage.empty() ? "no message" : sReport.Foreign(strMessage)),
                    "correct what the message names: KORVA_SERVER, KORVA_JOB, or the server's "
                    "list of hosts and accounts");
    }

  private:
    FINDING Silent(const std::string &I_strFailure) const
    {
        return Fail("nothing printed: " + sReport.Foreign(I_strFailure),
                    "run " + strPath + " -q by hand and see what it waits for, or complains of");
    }

    const CReport &sReport;
    const base::CONNECTION &sConnection;
    bool bVariables;
    std::chrono::milliseconds sBound;
    std::string strPath;
};
} // namespace

bool CheckUtility(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bVariables,
                  std::chrono::milliseconds I_sBound)
{
    CUtility sUtility(X_sReport, I_sConnection, I_bVariables, I_sBound);
    return Climb<CUtility>(X_sReport, sUtility,
                           {{"ini.file", &CUtility::IniFile},
                            {"ini.key", &CUtility::IniKey},
                            {"utility.file", &CUtility::File},
                            {"utility.query", &CUtility::Answer}}) &&
           I_bVariables;
}
} // namespace check
