#include "base/settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/errors.h"
#include "base/files.h"
#include "xbsa.h"
#include "xbsa_session.h"

namespace
{
constexpr size_t OWNER_ROOM = sizeof(BSA_ObjectOwner::bsa_ObjectOwner) - 1;
constexpr size_t NAME_ROOM = sizeof(BSA_ObjectName::objectSpaceName) - 1;
constexpr size_t PASSWORD_ROOM = 4096; // bytes of a password file that are looked at

void CheckText(const char *cpWhat, const std::string &I_strText, size_t I_uRoom)
{
    if (I_strText.empty()) throw USAGE_ERROR(std::string(cpWhat) + " is missing or empty");
    if (HasControlCharacter(I_strText))
        throw USAGE_ERROR(std::string(cpWhat) + " holds a control character");
    if (I_strText.size() > I_uRoom)
        throw USAGE_ERROR(std::string(cpWhat) + " is longer than " + std::to_string(I_uRoom) +
                          " bytes");
}

// A server drops blanks at the ends of a name, and the object would go by another one.
void CheckBlanks(const char *cpWhat, const std::string &I_strText)
{
    if (I_strText.front() == ' ' || I_strText.back() == ' ')
        throw USAGE_ERROR(std::string(cpWhat) + " begins or ends with a blank");
}

// The name is a file name in the server's folder.
void CheckFileName(const std::string &I_strName)
{
    CheckText("NAME", I_strName, NAME_ROOM);
    CheckBlanks("NAME", I_strName);
    if (I_strName.find('/') != std::string::npos)
        throw USAGE_ERROR("NAME holds a \"/\": give the folder with --path");
    if (I_strName == "." || I_strName == "..") throw USAGE_ERROR("NAME is a folder");
}

void CheckHost(const std::string &I_strHost)
{
    CheckText("--host", I_strHost, NAME_ROOM);
    const size_t uColon = I_strHost.find(':');
    if (uColon == 0 || I_strHost.find_first_of(" /@[") != std::string::npos)
        throw USAGE_ERROR("--host is not HOST or HOST:PORT (a name or an IPv4 address)");
    if (uColon == std::string::npos) return;

    const std::string strPort = I_strHost.substr(uColon + 1);
    const bool bDigits = !strPort.empty() && strPort.size() <= 5 &&
                         strPort.find_first_not_of("0123456789") == std::string::npos;
    const int iPort = bDigits ? std::stoi(strPort) : 0;
    if (iPort < 1 || iPort > 65535)
        throw USAGE_ERROR("--host: \"" + Printable(strPort) + "\" is no port from 1 to 65535");
}

void WarnOfReaders(const std::string &I_strFile)
{
    struct stat sFile
    {
    };
    if (stat(I_strFile.c_str(), &sFile) == 0 && S_ISREG(sFile.st_mode) &&
        (sFile.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        fprintf(stderr, "xbsactl: warning: password file %s is open to other accounts: chmod 600\n",
                files_Quoted(I_strFile).c_str());
}

// The first line of the file, without its line end.
std::string ReadPassword(const std::string &I_strFile)
{
    std::ifstream sFile(I_strFile, std::ios::binary);
    std::string strText(PASSWORD_ROOM, '\0');
    sFile.read(strText.data(), static_cast<std::streamsize>(strText.size()));
    WarnOfReaders(I_strFile);
    if (!sFile.is_open() || sFile.bad() || (sFile.gcount() == 0 && !sFile.eof()))
        throw FAILURE("password file \"" + I_strFile + "\" cannot be read");

    strText.resize(static_cast<size_t>(sFile.gcount()));
    strText.resize(strText.find('\n') == std::string::npos ? strText.size() : strText.find('\n'));
    if (!strText.empty() && strText.back() == '\r') strText.pop_back();
    return strText;
}

// The option wins over the variable.
std::string TakePassword(const SETTINGS &I_sSettings)
{
    if (!I_sSettings.strPasswordFile.empty()) return ReadPassword(I_sSettings.strPasswordFile);
    if (!I_sSettings.bPassword)
        throw USAGE_ERROR("no password: set the variable XBSA_PASSWORD or give --password-file");
    return I_sSettings.strPassword;
}

// The library takes user and password from one small field, divided by a colon.
void CheckLogin(const SETTINGS &I_sSettings)
{
    CheckText("--user", I_sSettings.strUser, OWNER_ROOM);
    if (HasControlCharacter(I_sSettings.strPassword))
        throw USAGE_ERROR("the password holds a control character");
    if ((I_sSettings.strUser + I_sSettings.strPassword).find(':') != std::string::npos)
        throw USAGE_ERROR("user and password must not hold a \":\"");
    const size_t uOwner = settings_Owner(I_sSettings).size();
    if (uOwner > OWNER_ROOM)
        throw USAGE_ERROR("user and password together are " + std::to_string(uOwner - OWNER_ROOM) +
                          " bytes too long: the library has room for 52");
}

// The library passes over a value that is too long without a word, and the backup would go to
// another pool or drive.
void CheckVariable(const char *cpVariable, size_t I_uRoom, bool I_bNeeded)
{
    const char *cpValue = getenv(cpVariable);
    if (cpValue == nullptr && !I_bNeeded) return;
    if (cpValue == nullptr || (I_bNeeded && *cpValue == '\0'))
        throw USAGE_ERROR(std::string("--informix needs the variable ") + cpVariable);
    if (std::string(cpValue).size() > I_uRoom)
        throw USAGE_ERROR(std::string("the variable ") + cpVariable + " is longer than " +
                          std::to_string(I_uRoom) + " bytes");
}

void CheckVariables()
{
    CheckVariable("KORVA_SERVER", sizeof(STUCT_COM_INPUT::szKORVAServer) - 1, true);
    CheckVariable("KORVA_JOB", sizeof(STUCT_COM_INPUT::szJobName) - 1, true);
    CheckVariable("KORVA_TAPE_SERVER", sizeof(STUCT_COM_INPUT::szKORVATapeServer) - 1, false);
    CheckVariable("KORVA_DRIVE", sizeof(STUCT_COM_INPUT::szDrive) - 1, false);
    CheckVariable("KORVA_POOL", sizeof(STUCT_COM_INPUT::szPool) - 1, false);
    CheckVariable("KORVA_COM_TIMEOUT", sizeof(STUCT_COM_INPUT::szCOMTimeOut) - 1, false);
}

// The utility is told the object as SPACE@NAME; a query asks for all when nothing is said.
void CheckInformix(SETTINGS &I_sSettings)
{
    if (I_sSettings.eCommand == COMMAND::QUERY)
    {
        if (I_sSettings.strName.empty()) I_sSettings.strName = "%";
        if (I_sSettings.strSpace.empty()) I_sSettings.strSpace = "%";
    }
    if (!I_sSettings.bAll) settings_CheckObject(I_sSettings);
    CheckVariables();
}

void CheckFolder(const SETTINGS &I_sSettings)
{
    CheckText("--path", I_sSettings.strPath, NAME_ROOM);
    CheckBlanks("--path", I_sSettings.strPath);
}

void CheckPlain(SETTINGS &I_sSettings)
{
    if (I_sSettings.eCommand == COMMAND::QUERY)
        throw USAGE_ERROR("query needs --informix: an FTP server keeps no catalogue");
    if (!I_sSettings.bAll) settings_CheckObject(I_sSettings);
    CheckHost(I_sSettings.strHost);
    CheckFolder(I_sSettings);
    I_sSettings.strPassword = TakePassword(I_sSettings);
    CheckLogin(I_sSettings);
}

// A login that cannot be used is one of the findings of a check.
void NoteLogin(SETTINGS &I_sSettings)
{
    try
    {
        I_sSettings.strPassword = TakePassword(I_sSettings);
        CheckLogin(I_sSettings);
    } catch (const std::runtime_error &sError)
    {
        I_sSettings.strLoginFault = sError.what();
    }
}

// The check names its objects itself.
void CheckPreflight(SETTINGS &I_sSettings)
{
    if (!I_sSettings.strSpace.empty()) throw USAGE_ERROR("--space is not for check");
    if (I_sSettings.bInformix) return;
    CheckHost(I_sSettings.strHost);
    CheckFolder(I_sSettings);
    CheckText("--user", I_sSettings.strUser, NAME_ROOM);
    NoteLogin(I_sSettings);
}

// Names are those of the manifest with --all, and each is checked in its turn.
void CheckVerify(const SETTINGS &I_sSettings)
{
    if (I_sSettings.strManifest.empty())
        throw USAGE_ERROR("verify needs --manifest: the file that store keeps with that option");
    if (I_sSettings.strName.empty() && !I_sSettings.bAll)
        throw USAGE_ERROR("verify needs NAME or --all");
    if (I_sSettings.bAll && (I_sSettings.uCopyId != 0 || !I_sSettings.strSpace.empty()))
        throw USAGE_ERROR("--all takes spaces and copies from the manifest");
}

void CheckTrace(SETTINGS &I_sSettings)
{
    const std::string &strTrace = I_sSettings.strTrace;
    if (strTrace.empty()) return;
    if (strTrace[0] < '0' || strTrace[0] > '3' || (strTrace.size() > 1 && strTrace[1] != ':'))
        throw USAGE_ERROR("--trace is not LEVEL or LEVEL:FILE with a level from 0 to 3");
    I_sSettings.iTraceLevel = strTrace[0] - '0';
    if (strTrace.size() == 1) return;

    I_sSettings.strTraceFile = strTrace.substr(2);
    CheckText("--trace: FILE", I_sSettings.strTraceFile, 4095);
}

bool NeedsServer(COMMAND I_eCommand)
{
    return I_eCommand != COMMAND::TRACE && I_eCommand != COMMAND::EXPLAIN &&
           I_eCommand != COMMAND::SETUP;
}
} // namespace

void settings_HidePassword(SETTINGS &I_sSettings)
{
    const std::string strStart = "XBSA_PASSWORD=";
    for (char **cppVariable = environ; *cppVariable != nullptr; cppVariable++)
    {
        if (strncmp(*cppVariable, strStart.c_str(), strStart.size()) != 0) continue;
        char *cpValue = *cppVariable + strStart.size();
        if (!I_sSettings.bPassword) I_sSettings.strPassword = cpValue;
        I_sSettings.bPassword = true;
        explicit_bzero(cpValue, strlen(cpValue));
    }
    unsetenv("XBSA_PASSWORD");
}

void settings_CheckObject(const SETTINGS &I_sSettings)
{
    if (!I_sSettings.bInformix) return CheckFileName(I_sSettings.strName);
    CheckText("NAME", I_sSettings.strName, NAME_ROOM);
    CheckText("--space", I_sSettings.strSpace, NAME_ROOM);
    if (I_sSettings.strSpace.find('@') != std::string::npos)
        throw USAGE_ERROR("--space holds an \"@\", which ends the space in SPACE@NAME");
}

std::string settings_Owner(const SETTINGS &I_sSettings)
{
    return "user=" + I_sSettings.strUser + ":pass=" + I_sSettings.strPassword;
}

void settings_Check(SETTINGS &I_sSettings)
{
    if (I_sSettings.strFile.empty()) throw USAGE_ERROR("FILE is empty");
    if (I_sSettings.uCopyId != 0 && I_sSettings.eCommand != COMMAND::RESTORE &&
        I_sSettings.eCommand != COMMAND::VERIFY)
        throw USAGE_ERROR("--copy-id is for restore and verify only");
    if (I_sSettings.eCommand == COMMAND::VERIFY) CheckVerify(I_sSettings);
    CheckTrace(I_sSettings);
    if (!NeedsServer(I_sSettings.eCommand)) return;
    if (I_sSettings.eCommand == COMMAND::CHECK) CheckPreflight(I_sSettings);
    else if (I_sSettings.bInformix) CheckInformix(I_sSettings);
    else CheckPlain(I_sSettings);
}
