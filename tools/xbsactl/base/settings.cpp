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

namespace base
{
namespace
{
constexpr size_t OWNER_ROOM = sizeof(BSA_ObjectOwner::bsa_ObjectOwner) - 1;
constexpr size_t PASSWORD_ROOM = 4096; // bytes of a password file that are looked at

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
                Quoted(I_strFile).c_str());
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
std::string TakePassword(const CONNECTION &I_sConnection)
{
    if (!I_sConnection.strPasswordFile.empty()) return ReadPassword(I_sConnection.strPasswordFile);
    if (!I_sConnection.bPassword)
        throw USAGE_ERROR("no password: set the variable XBSA_PASSWORD or give --password-file");
    return I_sConnection.strPassword;
}

// The library takes user and password from one small field, divided by a colon.
void CheckLogin(const CONNECTION &I_sConnection)
{
    CheckText("--user", I_sConnection.strUser, OWNER_ROOM);
    if (HasControlCharacter(I_sConnection.strPassword))
        throw USAGE_ERROR("the password holds a control character");
    if ((I_sConnection.strUser + I_sConnection.strPassword).find(':') != std::string::npos)
        throw USAGE_ERROR("user and password must not hold a \":\"");
    const size_t uOwner = Owner(I_sConnection).size();
    if (uOwner > OWNER_ROOM)
        throw USAGE_ERROR("user and password together are " + std::to_string(uOwner - OWNER_ROOM) +
                          " bytes too long: the library has room for 52");
}

// The library passes over a value that is too long without a word, and the backup would go to
// another pool or drive.
void CheckVariable(const VARIABLE &I_sVariable)
{
    const char *cpValue = getenv(I_sVariable.cpName);
    if (cpValue == nullptr && !I_sVariable.bNeeded) return;
    if (cpValue == nullptr || (I_sVariable.bNeeded && *cpValue == '\0'))
        throw USAGE_ERROR(std::string("--informix needs the variable ") + I_sVariable.cpName);
    if (std::string(cpValue).size() > I_sVariable.uRoom)
        throw USAGE_ERROR(std::string("the variable ") + I_sVariable.cpName + " is longer than " +
                          std::to_string(I_sVariable.uRoom) + " bytes");
}

void CheckFolder(const CONNECTION &I_sConnection)
{
    CheckText("--path", I_sConnection.strPath, NAME_ROOM);
    CheckBlanks("--path", I_sConnection.strPath);
}

} // namespace

void CheckText(const char *cpWhat, const std::string &I_strText, size_t I_uRoom)
{
    if (I_strText.empty()) throw USAGE_ERROR(std::string(cpWhat) + " is missing or empty");
    if (HasControlCharacter(I_strText))
        throw USAGE_ERROR(std::string(cpWhat) + " holds a control character");
    if (I_strText.size() > I_uRoom)
        throw USAGE_ERROR(std::string(cpWhat) + " is longer than " + std::to_string(I_uRoom) +
                          " bytes");
}

void CheckBlanks(const char *cpWhat, const std::string &I_strText)
{
    if (I_strText.front() == ' ' || I_strText.back() == ' ')
        throw USAGE_ERROR(std::string(cpWhat) + " begins or ends with a blank");
}

void HidePassword(CONNECTION &X_sConnection)
{
    const std::string strStart = "XBSA_PASSWORD=";
    for (char **cppVariable = environ; *cppVariable != nullptr; cppVariable++)
    {
        if (strncmp(*cppVariable, strStart.c_str(), strStart.size()) != 0) continue;
        char *cpValue = *cppVariable + strStart.size();
        if (!X_sConnection.bPassword) X_sConnection.strPassword = cpValue;
        X_sConnection.bPassword = true;
        explicit_bzero(cpValue, strlen(cpValue));
    }
    unsetenv("XBSA_PASSWORD");
}

std::string Owner(const CONNECTION &I_sConnection)
{
    return "user=" + I_sConnection.strUser + ":pass=" + I_sConnection.strPassword;
}

void TakeTrace(CONNECTION &X_sConnection, const std::string &I_strTrace)
{
    if (I_strTrace.empty()) return;
    if (I_strTrace[0] < '0' || I_strTrace[0] > '3' ||
        (I_strTrace.size() > 1 && I_strTrace[1] != ':'))
        throw USAGE_ERROR("--trace is not LEVEL or LEVEL:FILE with a level from 0 to 3");
    X_sConnection.iTraceLevel = I_strTrace[0] - '0';
    if (I_strTrace.size() == 1) return;

    X_sConnection.strTraceFile = I_strTrace.substr(2);
    CheckText("--trace: FILE", X_sConnection.strTraceFile, 4095);
}

void CheckPlain(CONNECTION &X_sConnection)
{
    CheckHost(X_sConnection.strHost);
    CheckFolder(X_sConnection);
    X_sConnection.strPassword = TakePassword(X_sConnection);
    CheckLogin(X_sConnection);
}

void CheckPreflight(CONNECTION &X_sConnection)
{
    CheckHost(X_sConnection.strHost);
    CheckFolder(X_sConnection);
    CheckText("--user", X_sConnection.strUser, NAME_ROOM);
    try
    {
        X_sConnection.strPassword = TakePassword(X_sConnection);
        CheckLogin(X_sConnection);
    } catch (const std::runtime_error &sError)
    {
        X_sConnection.strLoginFault = sError.what();
    }
}

const std::array<VARIABLE, 6> VARIABLES = {{
    {"KORVA_SERVER", sizeof(STUCT_COM_INPUT::szKORVAServer) - 1, true},
    {"KORVA_JOB", sizeof(STUCT_COM_INPUT::szJobName) - 1, true},
    {"KORVA_TAPE_SERVER", sizeof(STUCT_COM_INPUT::szKORVATapeServer) - 1, false},
    {"KORVA_DRIVE", sizeof(STUCT_COM_INPUT::szDrive) - 1, false},
    {"KORVA_POOL", sizeof(STUCT_COM_INPUT::szPool) - 1, false},
    {"KORVA_COM_TIMEOUT", sizeof(STUCT_COM_INPUT::szCOMTimeOut) - 1, false},
}};

void CheckVariables()
{
    for (const VARIABLE &sVariable : VARIABLES) CheckVariable(sVariable);
}
} // namespace base
