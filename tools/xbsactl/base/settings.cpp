#include "base/base.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "xbsa_session.h"

namespace base
{
namespace
{
constexpr size_t OWNER_ROOM = sizeof(BSA_ObjectOwner::bsa_ObjectOwner) - 1;
constexpr size_t PASSWORD_ROOM = 4096; // bytes of a password file that are read

void CheckHost(const std::string &I_strHost)
{
    CheckText("--host", I_strHost, NAME_ROOM);
    const size_t uColon = I_strHost.find(':');
    if (uColon == 0 || I_strHost.find_first_of(" /@[") != std::string::npos)
        throw USAGE_ERROR("--host must be HOST or HOST:PORT (a name or an IPv4 address)");
    if (uColon == std::string::npos) return;

    const std::string strPort = I_strHost.substr(uColon + 1);
    uint16_t usPort = 0;
    const char *cpEnd = strPort.data() + strPort.size();
    const auto sResult = std::from_chars(strPort.data(), cpEnd, usPort);
    if (sResult.ec != std::errc() || sResult.ptr != cpEnd || usPort == 0)
        throw USAGE_ERROR("--host: ", Quoted(strPort), " is not a port from 1 to 65535");
}

// The first line of the file, without its line end.
std::string ReadPassword(const std::string &I_strFile)
{
    const std::string strShown = "password file " + Quoted(I_strFile);
    if (IsOpenToOthers(I_strFile))
        fprintf(stderr, "xbsactl: warning: %s is open to other accounts: chmod 600\n",
                strShown.c_str());
    const CDescriptor sFile(open(I_strFile.c_str(), O_RDONLY | O_CLOEXEC));
    if (sFile.Get() == -1) throw SystemFailure(strShown);
    std::string strText(PASSWORD_ROOM, '\0');
    strText.resize(ReadAll(sFile.Get(), strText.data(), strText.size(), strShown));
    strText.resize(std::min(strText.find('\n'), strText.size()));
    if (!strText.empty() && strText.back() == '\r') strText.pop_back();
    if (strText.empty()) throw FileFailure(strShown + ": its first line is empty");
    return strText;
}

// The option overrides the variable. The library takes user and password from one small field,
// separated by a colon.
void TakeLogin(CONNECTION &X_sConnection)
{
    if (!X_sConnection.strPasswordFile.empty())
        X_sConnection.strPassword = ReadPassword(X_sConnection.strPasswordFile);
    else if (X_sConnection.strPassword.empty())
        throw USAGE_ERROR("no password: the variable XBSA_PASSWORD is ",
                          X_sConnection.bPassword ? "empty" : "not set",
                          ": set it or give --password-file");
    CheckText("--user", X_sConnection.strUser, OWNER_ROOM);
    if (HasControlCharacter(X_sConnection.strPassword))
        throw USAGE_ERROR("the password contains a control character");
    if ((X_sConnection.strUser + X_sConnection.strPassword).find(':') != std::string::npos)
        throw USAGE_ERROR("user and password must not contain a \":\"");
    const size_t uOwner = Owner(X_sConnection).size();
    if (uOwner > OWNER_ROOM)
        throw USAGE_ERROR("user and password together are ", uOwner - OWNER_ROOM,
                          " bytes too long: the library has room for 52");
}
} // namespace

const std::array<VARIABLE, 6> VARIABLES = {{
    {"KORVA_SERVER", sizeof(STUCT_COM_INPUT::szKORVAServer) - 1, true},
    {"KORVA_JOB", sizeof(STUCT_COM_INPUT::szJobName) - 1, true},
    {"KORVA_TAPE_SERVER", sizeof(STUCT_COM_INPUT::szKORVATapeServer) - 1, false},
    {"KORVA_DRIVE", sizeof(STUCT_COM_INPUT::szDrive) - 1, false},
    {"KORVA_POOL", sizeof(STUCT_COM_INPUT::szPool) - 1, false},
    {"KORVA_COM_TIMEOUT", sizeof(STUCT_COM_INPUT::szCOMTimeOut) - 1, false},
}};

bool IsOpenToOthers(const std::string &I_strFile)
{
    struct stat sStatus = {};
    return stat(I_strFile.c_str(), &sStatus) == 0 && S_ISREG(sStatus.st_mode) &&
           (sStatus.st_mode & (S_IRWXG | S_IRWXO)) != 0;
}

void CheckText(const std::string &I_strWhat, const std::string &I_strText, size_t I_uRoom)
{
    if (I_strText.empty()) throw USAGE_ERROR(I_strWhat + " is missing or empty");
    if (HasControlCharacter(I_strText))
        throw USAGE_ERROR(I_strWhat + " contains a control character");
    if (I_strText.size() > I_uRoom)
        throw USAGE_ERROR(I_strWhat, " is longer than ", I_uRoom, " bytes");
}

void CheckName(const std::string &I_strWhat, const std::string &I_strText)
{
    CheckText(I_strWhat, I_strText, NAME_ROOM);
    if (I_strText.front() == ' ' || I_strText.back() == ' ')
        throw USAGE_ERROR(I_strWhat + " begins or ends with a blank");
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
        throw USAGE_ERROR("--trace must be LEVEL or LEVEL:FILE, with a level from 0 to 3");
    X_sConnection.iTraceLevel = I_strTrace[0] - '0';
    if (I_strTrace.size() == 1) return;

    X_sConnection.strTraceFile = I_strTrace.substr(2);
    CheckText("--trace: FILE", X_sConnection.strTraceFile, 4095);
}

void TakeTraceVariables(CONNECTION &X_sConnection)
{
    const std::string strFolder = X_sConnection.bInformix ? Variable("INFORMIXDIR") : "";
    int &iLevel = X_sConnection.iTraceLevel;
    iLevel = atoi(Variable("XBSA_TRACE").c_str()) & (TRACE_VERBOSITY | TRACE_TO_STDERR);
    if (iLevel == TRACE_TO_STDERR) iLevel = 0;
    X_sConnection.strTraceFile = Variable("XBSA_LOGFILE");
    if (X_sConnection.strTraceFile.empty() && iLevel > 0)
        X_sConnection.strTraceFile = strFolder + (strFolder.empty() ? "" : "/") + "xbsa.log";
}

void CheckPlain(CONNECTION &X_sConnection, bool I_bLogin)
{
    CheckHost(X_sConnection.strHost);
    CheckName("--path", X_sConnection.strPath);
    if (!I_bLogin) CheckText("--user", X_sConnection.strUser, NAME_ROOM);
    try
    {
        TakeLogin(X_sConnection);
    } catch (const FAILURE &sError)
    {
        X_sConnection.strLoginFault = sError.what();
        if (I_bLogin) throw;
    }
}

std::string Variable(const char *cpName)
{
    const char *cpValue = getenv(cpName);
    return cpValue != nullptr ? cpValue : "";
}

std::string LocalPorts()
{
    const std::string strChosen = Variable("KORVA_PORT_RANGE");
    if (!strChosen.empty()) return " (KORVA_PORT_RANGE: " + strChosen + ")";
    std::ifstream sFile("/proc/sys/net/ipv4/ip_local_port_range");
    std::string strFirst;
    std::string strLast;
    sFile >> strFirst >> strLast;
    return " (net.ipv4.ip_local_port_range: " + strFirst + " to " + strLast + ")";
}

void CheckVariables()
{
    for (const VARIABLE &sVariable : VARIABLES)
    {
        const std::string strValue = Variable(sVariable.cpName);
        if (strValue.empty() && sVariable.bNeeded)
            throw USAGE_ERROR("--informix needs the variable ", sVariable.cpName);
        if (strValue.size() > sVariable.uRoom)
            throw USAGE_ERROR("the variable ", sVariable.cpName, " is longer than ",
                              sVariable.uRoom, " bytes");
    }
}
} // namespace base
