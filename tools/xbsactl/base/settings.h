// What the user asked for, checked before anything is opened or sent.
#ifndef XBSACTL_SETTINGS_H
#define XBSACTL_SETTINGS_H

#include <string>
#include <vector>

enum class COMMAND
{
    STORE,
    RESTORE,
    QUERY,
    VERIFY,
    CHECK,
    TRACE,
    EXPLAIN,
    SETUP
};

struct SETTINGS
{
    COMMAND eCommand = COMMAND::STORE;
    bool bInformix = false;            // the road over the COM utility
    std::string strName;               // of the object
    std::string strFile = "-";         // "-": standard input or output
    std::string strHost;               // HOST[:PORT]
    std::string strUser;               // login
    std::string strPasswordFile;       // empty: the variable XBSA_PASSWORD
    std::string strPassword;           // by settings_HidePassword, then by settings_Check
    bool bPassword = false;            // by settings_HidePassword: the variable was there
    std::string strLoginFault;         // check: by settings_Check, why the login cannot be used
    std::string strPath = ".";         // folder on the server
    std::string strSpace;              // Informix: object space
    unsigned uCopyId = 0;              // Informix restore: 0 for the newest copy
    bool bJson = false;                // query, check: JSON in place of a table
    bool bVerify = false;              // store: read back
    bool bAll = false;                 // verify: every object of the manifest
    std::string strManifest;           // empty: none is kept
    std::string strStatus;             // progress and result for others to read; empty: none
    std::string strInformixDir;        // check, setup: the database's folder
    std::string strOnconfig;           // setup: name of the configuration file
    bool bDryRun = false;              // setup
    bool bYes = false;                 // setup: without asking
    bool bUndo = false;                // setup
    bool bLogrotate = false;           // setup: print the rotation of the logs, and nothing else
    std::string strSince;              // trace: empty: from the start
    long lHandle = 0;                  // trace: 0 for all
    std::string strHtml;               // trace: empty: no page
    std::string strActLog;             // trace: empty: none
    std::vector<std::string> vecTexts; // explain
    bool bMarkdown = false;            // explain
    std::string strLibrary;            // empty: the default search
    std::string strTrace;              // LEVEL[:FILE]; empty: the environment decides
    int iTraceLevel = -1;              // by settings_Check; -1: the environment decides
    std::string strTraceFile;          // by settings_Check; empty: standard error
    unsigned uTimeout = 300;           // seconds, 0 = no limit
};

// Moves the variable XBSA_PASSWORD out of the environment and out of the memory that
// /proc/PID/environ shows; no command and no child process needs it there.
void settings_HidePassword(SETTINGS &I_sSettings);

// Checks all of it and takes the password and the trace apart. Throws USAGE_ERROR, or FAILURE
// when the password file cannot be read.
void settings_Check(SETTINGS &I_sSettings);

// Checks space and name of one object. Throws USAGE_ERROR.
void settings_CheckObject(const SETTINGS &I_sSettings);

// The owner text of an object on the plain road: the login, as the library wants it.
std::string settings_Owner(const SETTINGS &I_sSettings);

#endif
