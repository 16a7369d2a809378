#include "check/com.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/base.h"
#include "check/child.h"
#include "check/host.h"

namespace
{
#define INI_FILE "/etc/korva2000.ini"
#define INI_KEY "SM_BIN_KORVA"
#define INI_EXAMPLE INI_KEY "=/folder/of/the/utility"
constexpr const char *UTILITY = "olm_com_interface";

constexpr size_t LONGEST_INI_LINE = 510; // bytes: more of a line is not read
constexpr size_t LONGEST_ANSWER = 32768; // bytes

std::string Trimmed(const std::string &I_strText)
{
    const size_t uFirst = I_strText.find_first_not_of(' ');
    if (uFirst == std::string::npos) return "";
    return I_strText.substr(uFirst, I_strText.find_last_not_of(" \r") - uFirst + 1);
}

struct KEY_VALUE
{
    bool bKey = false;
    std::string strKey;
    std::string strValue;
};

KEY_VALUE Split(const std::string &I_strLine)
{
    const size_t uEqual = I_strLine.find('=');
    if (uEqual == std::string::npos) return {};
    return {true, Trimmed(I_strLine.substr(0, uEqual)), Trimmed(I_strLine.substr(uEqual + 1))};
}

// What the INI file says.
struct INI
{
    bool bFound = false;
    bool bCut = false; // the line is longer than what is read
    std::string strFolder;
    std::string strOthers; // the keys that are there
};

INI ReadIni(std::istream &I_sFile)
{
    INI sIni;
    for (std::string strLine; !sIni.bFound && std::getline(I_sFile, strLine);)
    {
        const KEY_VALUE sPair = Split(strLine);
        if (!sPair.bKey) continue;
        if (sPair.strKey != INI_KEY) sIni.strOthers += " " + sPair.strKey;
        else sIni = {true, strLine.size() > LONGEST_INI_LINE, sPair.strValue, ""};
    }
    return sIni;
}

// Becomes the utility, with its messages on the pipe as well.
[[noreturn]] void Execute(const std::string &I_strPath, int I_iPipe)
{
    std::vector<std::string> vecWords = {
        I_strPath, "-q",       "-C", check_Variable("KORVA_SERVER"),
        "-I",      "informix", "-j", check_Variable("KORVA_JOB"),
        "-s",      "NULL",     "--", "xbsactl-check@none"};
    std::vector<char *> vecArguments;
    vecArguments.reserve(vecWords.size() + 1);
    for (std::string &strWord : vecWords) vecArguments.push_back(strWord.data());
    vecArguments.push_back(nullptr);
    dup2(I_iPipe, STDOUT_FILENO);
    dup2(I_iPipe, STDERR_FILENO);
    execv(I_strPath.c_str(), vecArguments.data());
    dprintf(STDOUT_FILENO, "%s\n", base::SystemFailure("it cannot be run").what());
    _exit(127);
}

std::string ReadPipe(int I_iPipe)
{
    std::string strText;
    std::array<char, 4096> acPiece{};
    ssize_t iGot = 1;
    while (iGot > 0 && strText.size() < LONGEST_ANSWER)
    {
        iGot = read(I_iPipe, acPiece.data(), acPiece.size());
        if (iGot > 0) strText.append(acPiece.data(), static_cast<size_t>(iGot));
    }
    return strText;
}

// A query for a copy that does not exist: the answer is OK and names none. Runs in a child.
RESULT Query(const std::string &I_strPath)
{
    std::array<int, 2> aiPipe{};
    if (pipe(aiPipe.data()) == -1) throw base::SystemFailure("a pipe");
    const pid_t iUtility = fork();
    if (iUtility == -1) throw base::SystemFailure("a child process");
    if (iUtility == 0) Execute(I_strPath, aiPipe[1]);
    close(aiPipe[1]);
    const std::string strText = ReadPipe(aiPipe[0]);
    close(aiPipe[0]);
    int iStatus = 0;
    waitpid(iUtility, &iStatus, 0);
    const std::string strEnd = WIFSIGNALED(iStatus)
                                   ? "signal " + std::to_string(WTERMSIG(iStatus))
                                   : "exit code " + std::to_string(WEXITSTATUS(iStatus));
    return {{"text", strText}, {"end", strEnd}};
}

bool IsWord(std::string I_strText, const std::string &I_strWord)
{
    for (char &cChar : I_strText)
        cChar = static_cast<char>(toupper(static_cast<unsigned char>(cChar)));
    return I_strText == I_strWord;
}

class CUtility
{
  public:
    CUtility(CReport &I_sReport, std::chrono::milliseconds I_sBound)
        : sReport(I_sReport), sBound(I_sBound)
    {
    }

    bool IniFile()
    {
        std::ifstream sFile(INI_FILE);
        if (!sFile)
        {
            sReport.Fail("ini.file", base::SystemFailure(INI_FILE).what(),
                         "make it, readable for everybody, with the line " INI_EXAMPLE);
            return false;
        }
        sReport.Ok("ini.file", INI_FILE);
        sIni = ReadIni(sFile);
        return true;
    }

    bool IniKey()
    {
        std::string strFault;
        if (!sIni.bFound)
            strFault = std::string("no " INI_KEY " in " INI_FILE) +
                       ", keys:" + (sIni.strOthers.empty() ? " none" : sIni.strOthers);
        else if (sIni.bCut)
            strFault = "the line is longer than " + std::to_string(LONGEST_INI_LINE);
        else if (sIni.strFolder.empty() || sIni.strFolder[0] != '/')
            strFault = "\"" + sIni.strFolder + "\" is no absolute path";
        if (strFault.empty()) sReport.Ok("ini.key", INI_KEY "=" + sIni.strFolder);
        else
            sReport.Fail("ini.key", strFault,
                         "write " INI_EXAMPLE " into " INI_FILE ", capitals as they are");
        return strFault.empty();
    }

    bool File()
    {
        strPath = sIni.strFolder + (sIni.strFolder.back() == '/' ? "" : "/") + UTILITY;
        struct stat sFile
        {
        };
        if (stat(strPath.c_str(), &sFile) == -1)
        {
            sReport.Fail("utility.file", base::SystemFailure(strPath).what(),
                         "install the utility there, or correct " INI_KEY " in " INI_FILE);
            return false;
        }
        if (S_ISREG(sFile.st_mode) && access(strPath.c_str(), X_OK) == 0)
        {
            sReport.Ok("utility.file", strPath);
            return true;
        }
        sReport.Fail("utility.file", strPath + " is not executable for this account",
                     "chmod a+x " + strPath);
        return false;
    }

    bool Answer()
    {
        RESULT sAnswer;
        try
        {
            sAnswer = CChild([this] { return Query(strPath); }).Wait(sBound);
        } catch (const base::FAILURE &sError)
        {
            sReport.Fail("utility.query", sError.what(),
                         "run " + strPath + " -q by hand and see what it waits for");
            return false;
        }
        return Judge(sAnswer.at("text"), sAnswer.at("end"));
    }

  private:
    bool Judge(const std::string &I_strText, const std::string &I_strEnd)
    {
        std::string strReply;
        std::string strMessage;
        std::istringstream sLines(I_strText);
        for (std::string strLine; std::getline(sLines, strLine);)
        {
            const KEY_VALUE sPair = Split(strLine);
            if (sPair.strKey == "reply") strReply = sPair.strValue;
            if (sPair.strKey == "message") strMessage = sPair.strValue;
        }
        if (IsWord(strReply, "OK"))
        {
            sReport.Ok("utility.query", "answers reply=OK");
            return true;
        }
        if (strReply.empty())
            sReport.Fail("utility.query",
                         "no reply (" + I_strEnd + "): " +
                             (I_strText.empty() ? "nothing printed" : sReport.Foreign(I_strText)),
                         "run " + strPath + " -q by hand: is it the utility, and complete?");
        else
            sReport.Fail("utility.query",
                         "answers reply=" + sReport.Foreign(strReply) + ": " +
                             (strMessage.empty() ? "no message" : sReport.Foreign(strMessage)),
                         "correct what the message names: KORVA_SERVER, KORVA_JOB, or the server's "
                         "list of hosts and accounts");
        return false;
    }

    CReport &sReport;
    std::chrono::milliseconds sBound;
    INI sIni;
    std::string strPath;
};

} // namespace

bool check_Com(CReport &I_sReport, bool I_bVariables, std::chrono::milliseconds I_sBound)
{
    struct UTILITY_STEP
    {
        const char *cpName;
        bool (CUtility::*fpRun)();
    };
    constexpr std::array<UTILITY_STEP, 4> STEPS = {{{"ini.file", &CUtility::IniFile},
                                                    {"ini.key", &CUtility::IniKey},
                                                    {"utility.file", &CUtility::File},
                                                    {"utility.query", &CUtility::Answer}}};
    CUtility sUtility(I_sReport, I_sBound);
    bool bGoing = true;
    for (const UTILITY_STEP &sStep : STEPS)
    {
        if (!bGoing) I_sReport.NotTried(sStep.cpName, "an earlier step failed");
        else if (sStep.fpRun == &CUtility::Answer && !I_bVariables)
        {
            I_sReport.NotTried(sStep.cpName, "variables are missing or too long");
            bGoing = false;
        }
        else bGoing = (sUtility.*sStep.fpRun)();
    }
    return bGoing;
}
