// Settings from the process environment.
#include <cstring>

#include "trace/trace.h"
#include "util/util.h"

// A KORVA_ variable and its field.
typedef struct
{
    const char *cpName;
    char *cpField;
    size_t uSize;
    bool bRequired;
} COM_VARIABLE;

// Returns 0 if the value was stored, else 1.
static int TakeVariable(const COM_VARIABLE *spVariable)
{
    const char *cpValue = x_getenv(spVariable->cpName);
    if (cpValue == nullptr)
    {
        TRACE("get_COM_environment: Environment variable: [%s] not found.", spVariable->cpName);
        return 1;
    }
    TRACE("get_COM_environment: Environment variable: [%s = %s].", spVariable->cpName, cpValue);
    if (strlen(cpValue) >= spVariable->uSize)
    {
        TRACE("get_COM_environment: Environment variable to long.");
        return 1;
    }
    return x_CopyText(spVariable->cpField, spVariable->uSize, cpValue);
}

int get_COM_environment(STUCT_COM_INPUT *I_spCOMInput)
{
    const COM_VARIABLE asVariables[] = {
        {"KORVA_SERVER", I_spCOMInput->szKORVAServer, sizeof I_spCOMInput->szKORVAServer, true},
        {"KORVA_JOB", I_spCOMInput->szJobName, sizeof I_spCOMInput->szJobName, true},
        {"KORVA_TAPE_SERVER", I_spCOMInput->szKORVATapeServer,
         sizeof I_spCOMInput->szKORVATapeServer, false},
        {"KORVA_DRIVE", I_spCOMInput->szDrive, sizeof I_spCOMInput->szDrive, false},
        {"KORVA_POOL", I_spCOMInput->szPool, sizeof I_spCOMInput->szPool, false},
        {"KORVA_COM_TIMEOUT", I_spCOMInput->szCOMTimeOut, sizeof I_spCOMInput->szCOMTimeOut,
         false}};

    for (const COM_VARIABLE &sVariable : asVariables)
    {
        if (TakeVariable(&sVariable) != 0 && sVariable.bRequired) return 1;
    }
    return 0;
}

// Reads one variable and traces it. Returns the value or null.
static const char *ReadTraced(const char *cpName)
{
    const char *cpValue = x_getenv(cpName);
    if (cpValue == nullptr)
    {
        TRACE("xbsa_read_environment: Environment variable: [%s] not found.", cpName);
        return nullptr;
    }
    TRACE("xbsa_read_environment: Environment variable: [%s = %s].", cpName, cpValue);
    return cpValue;
}

void xbsa_read_environment()
{
    const char *cpLevel = ReadTraced("XBSA_TRACE");
    if (cpLevel == nullptr) return;
    sGlobal.ucXBSATraceLevel = i_LevelToLog(cpLevel);

    const char *cpFile = ReadTraced("XBSA_LOGFILE");
    if (cpFile == nullptr) return;
    i_CopyField("xbsa_read_environment", sGlobal.szLogFile, sizeof sGlobal.szLogFile, cpFile);
    ReadTraced("KORVA_SERVER");
}
