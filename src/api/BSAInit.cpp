// Opens the session.
#include <cstring>
#include <unistd.h>

#include "api/api.h"
#include "journal/journal.h"
#include "trace/trace.h"
#include "util/util.h"

enum
{
    PORT_DEFAULT = 21
};

int xbsa_authorize(BSA_SecurityToken *, BSA_ObjectOwner *)
{
    return 0;
}

static int CheckInit(const long *lpHandle, const BSA_ObjectOwner *spOwner)
{
    if (lpHandle == nullptr) TRACE("BSAInit: bsaHandlePtr == NULL");
    if (spOwner == nullptr) TRACE("BSAInit: objectOwnerPtr == NULL");
    bool bNull = lpHandle == nullptr || spOwner == nullptr;
    return bNull ? BSA_RC_NULL_ARGUMENT : BSA_RC_SUCCESS;
}

static void ReadStrictMode()
{
    const char *cpStrict = xbsa_getenv("KORVA_STRICT");
    sPrivate.bStrict = cpStrict != nullptr && strcmp(cpStrict, "1") == 0;
    if (sPrivate.bStrict) TRACE("BSAInit: Strict mode, KORVA_STRICT = %s.", cpStrict);
}

static void RecogniseSession(const BSA_ObjectOwner *spOwner)
{
    static const char szInformix[] = "INFORMIX";
    sGlobal.iQAB = strncmp(spOwner->bsa_ObjectOwner, szInformix, sizeof szInformix) == 0;
    if (sGlobal.iQAB == 0) return;
    TRACE("BSAInit: Informix session.");
    get_COM_environment(&sGlobal.sCOM);
}

// The value after "NAME=", or null if the entry has another name. An entry that ends after its name
// has an empty value.
static const char *EntryValue(const char *cpEntry, const char *cpName)
{
    size_t uName = strlen(cpName);
    if (strncmp(cpEntry, cpName, uName) != 0) return nullptr;
    return cpEntry[uName] == '\0' ? "" : cpEntry + uName + 1;
}

// "host" or "host:port", separated by any number of colons. Without a host the present one stays.
static void TakeServiceHost(const char *cpValue)
{
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    cpValue += strspn(cpValue, ":");
    size_t uHost = strcspn(cpValue, ":");
    if (uHost > 0 && x_CopyText(spSMS->szHostName, sizeof spSMS->szHostName, cpValue, uHost) == 1)
    {
        TRACE("BSAInit: BSA_SERVICE_HOST: Value too long, cut.");
    }
    const char *cpPort = cpValue + uHost + strspn(cpValue + uHost, ":");
    spSMS->iPort = *cpPort != '\0' ? x_Number(cpPort) : static_cast<int>(PORT_DEFAULT);
}

static int TakeEntry(const char *cpEntry)
{
    const char *cpValue = EntryValue(cpEntry, "BSA_API_VERSION");
    if (cpValue != nullptr && cpValue[0] != '1')
    {
        TRACE("BSAInit: XBSA API Version: %s", cpValue);
        return BSA_RC_VERSION_NOT_SUPPORTED;
    }
    cpValue = EntryValue(cpEntry, "BSA_SERVICE_HOST");
    if (cpValue != nullptr) TakeServiceHost(cpValue);

    cpValue = EntryValue(cpEntry, "BSA_TIMEOUT");
    if (cpValue != nullptr) sGlobal.ulTimeOut = static_cast<unsigned long>(x_Number(cpValue));
    return BSA_RC_SUCCESS;
}

static int TakeEnvironment(char **cppEntry)
{
    int iRet = BSA_RC_SUCCESS;
    if (cppEntry == nullptr) return iRet;
    for (; *cppEntry != nullptr && iRet == BSA_RC_SUCCESS; cppEntry++) iRet = TakeEntry(*cppEntry);
    return iRet;
}

static void TraceInput(const BSA_SecurityToken *spToken, const BSA_ObjectOwner *spOwner,
                       char **cppEntry)
{
    char szOwner[sizeof spOwner->bsa_ObjectOwner + sizeof TRACE_SECRET];
    i_MaskOwner(szOwner, sizeof szOwner, spOwner->bsa_ObjectOwner);

    TRACE("BSAInit: Input: BSA_SecurityToken = %.64s", spToken != nullptr ? *spToken : "");
    TRACE("BSAInit: Input: BSA_ObjectOwner.bsa_ObjectOwner = %s", szOwner);
    TRACE("BSAInit: Input: BSA_ObjectOwner.app_ObjectOwner = %.64s", spOwner->app_ObjectOwner);
    if (cppEntry == nullptr) return;
    for (; *cppEntry != nullptr; cppEntry++) TRACE("BSAInit: %s", *cppEntry);
}

static int OpenSession(long *lpHandle, BSA_SecurityToken *spToken, BSA_ObjectOwner *spOwner,
                       char **cppEnvironment)
{
    ReadStrictMode();
    int iRet = xbsa_ReadNetwork();
    journal_Start();
    RecogniseSession(spOwner);
    if (iRet == BSA_RC_SUCCESS) iRet = TakeEnvironment(cppEnvironment);
    if (iRet == BSA_RC_SUCCESS && i_Verbosity() >= TRACE_STEPS)
    {
        TraceInput(spToken, spOwner, cppEnvironment);
    }
    sPrivate.iProcess = getpid();
    *lpHandle = sPrivate.iProcess;
    sGlobal.sSession.lBSAHandle = *lpHandle;
    TRACE("BSAInit: BSA Handle (process ID) = %ld", *lpHandle);
    if (xbsa_authorize(spToken, spOwner) == -1) iRet = BSA_RC_AUTHENTICATION_FAILURE;
    if (iRet == BSA_RC_SUCCESS) xbsa_ForgetSession();
    return iRet;
}

int BSAInit(long *bsaHandlePtr, BSA_SecurityToken *tokenPtr, BSA_ObjectOwner *objectOwnerPtr,
            char **environmentPtr)
{
    int iRet = BSA_RC_INVALID_CALL_SEQUENCE;
    i_open_trace();
    TRACE("BSAInit: Start.");
    if ((sGlobal.sSession.iLastCall & CALL_INIT) == 0)
    {
        sGlobal.sSession.iLastCall |= CALL_INIT;
        iRet = CheckInit(bsaHandlePtr, objectOwnerPtr);
        if (iRet == BSA_RC_SUCCESS)
        {
            iRet = OpenSession(bsaHandlePtr, tokenPtr, objectOwnerPtr, environmentPtr);
        }
    }
    TRACE("BSAInit: Return: %d - %s", iRet, xbsa_typeerr(iRet));
    TRACE("BSAInit: End");
    return iRet;
}
