// What the user asked for, checked before anything is opened or sent.
#ifndef XBSACTL_SETTINGS_H
#define XBSACTL_SETTINGS_H

#include <string>

enum class COMMAND
{
    STORE,
    RESTORE,
    QUERY
};

struct SETTINGS
{
    COMMAND eCommand = COMMAND::STORE;
    bool bInformix = false;      // the road over the COM utility
    std::string strName;         // of the object
    std::string strFile = "-";   // "-": standard input or output
    std::string strHost;         // HOST[:PORT]
    std::string strUser;         // login
    std::string strPasswordFile; // empty: the variable XBSA_PASSWORD
    std::string strPassword;     // by settings_Check
    std::string strPath = ".";   // folder on the server
    std::string strSpace;        // Informix: object space
    unsigned uCopyId = 0;        // Informix restore: 0 for the newest copy
    bool bJson = false;          // query: JSON in place of a table
    std::string strLibrary;      // empty: the default search
    std::string strTrace;        // LEVEL[:FILE]; empty: the environment decides
    int iTraceLevel = -1;        // by settings_Check; -1: the environment decides
    std::string strTraceFile;    // by settings_Check; empty: standard error
    unsigned uTimeout = 300;     // seconds, 0 = no limit
};

// Checks all of it and takes the password and the trace apart. Throws USAGE_ERROR, or FAILURE
// when the password file cannot be read.
void settings_Check(SETTINGS &I_sSettings);

// The owner text of an object on the plain road: the login, as the library wants it.
std::string settings_Owner(const SETTINGS &I_sSettings);

#endif
