// What a session needs, checked before anything is opened or sent.
#ifndef XBSACTL_SETTINGS_H
#define XBSACTL_SETTINGS_H

#include <array>
#include <string>

#include "xbsa.h"

namespace base
{
constexpr size_t NAME_ROOM = sizeof(BSA_ObjectName::objectSpaceName) - 1; // bytes

struct CONNECTION
{
    bool bInformix = false;      // a session over the COM utility
    std::string strHost;         // HOST[:PORT]
    std::string strUser;         // login
    std::string strPasswordFile; // empty: the variable XBSA_PASSWORD
    std::string strPassword;     // by HidePassword, then by CheckPlain
    bool bPassword = false;      // by HidePassword: the variable was there
    std::string strLoginFault;   // check: why the login cannot be used; empty: it can
    std::string strPath = ".";   // folder on the server
    std::string strLibrary;      // empty: the default search
    int iTraceLevel = -1;        // -1: the environment decides
    std::string strTraceFile;    // empty: standard error
    unsigned uTimeout = 300;     // seconds, 0 = no limit
};

// Moves the variable XBSA_PASSWORD out of the environment and out of the memory that
// /proc/PID/environ shows; no command and no child process needs it there.
void HidePassword(CONNECTION &X_sConnection);

// Takes "LEVEL[:FILE]" apart. Throws USAGE_ERROR.
void TakeTrace(CONNECTION &X_sConnection, const std::string &I_strTrace);

// Checks all of plain mode and reads the password. Throws USAGE_ERROR, or FAILURE when the password
// file cannot be read.
void CheckPlain(CONNECTION &X_sConnection);

// The same for a check of the way: a login that cannot be used is one of its findings.
void CheckPreflight(CONNECTION &X_sConnection);

// A variable of Informix mode.
struct VARIABLE
{
    const char *cpName;
    size_t uRoom; // bytes that the library takes
    bool bNeeded;
};
extern const std::array<VARIABLE, 6> VARIABLES;

// Checks the variables of Informix mode. Throws USAGE_ERROR.
void CheckVariables();

// Throws USAGE_ERROR for an empty text, one with a control character, or a longer one.
void CheckText(const char *cpWhat, const std::string &I_strText, size_t I_uRoom);

// A server drops blanks at the ends of a name, and the object would go by another one.
void CheckBlanks(const char *cpWhat, const std::string &I_strText);

// The owner text of an object in plain mode: the login, as the library wants it.
std::string Owner(const CONNECTION &I_sConnection);
} // namespace base

#endif
