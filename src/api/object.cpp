// What the calls of a backup and a restore share.
#include "api/object.h"

#include <cstring>

#include "session/record.h"
#include "trace/trace.h"
#include "util/text.h"

enum
{
    OWNER_TAG = 5 // characters before the value in an owner token, such as "user="
};

int xbsa_CheckCall(const char *cpFunction, int iCallBit, long lHandle)
{
    if (sGlobal.sSession.iLastCall & iCallBit)
    {
        TRACE("%s: Invalid calling sequence. Exiting.", cpFunction);
        return BSA_RC_INVALID_CALL_SEQUENCE;
    }
    sGlobal.sSession.iLastCall |= iCallBit;
    if (lHandle == sGlobal.sSession.lBSAHandle) return BSA_RC_SUCCESS;

    TRACE("%s: Invalid Handle. Exiting.", cpFunction);
    return BSA_RC_INVALID_HANDLE;
}

void xbsa_NewObject()
{
    sPrivate.iDataFailed = 0;
    sPrivate.iDataBroken = 0;
    sPrivate.iServerLost = 0;
    sPrivate.iJobMissing = 0;
    sPrivate.iGivenUp = GIVEN_UP_NONE;
    xbsa_GiveUpTransfer(GIVEN_UP_RESTORE);
}

void xbsa_ReportJob(int iRet)
{
    if (iRet > 0) SysErrorTxt(0, 0, "The COM utility could not be run.");
    if (iRet == -1) SysErrorTxt(0, 0, "The COM utility refused, or its answer cannot be used.");
}

int xbsa_OpenJob(ENUM_COM_TASK eTask)
{
    int iRet = com_intf(eTask, &sGlobal.sCOM);
    sPrivate.iJobMissing = iRet > 0;
    xbsa_ReportJob(iRet);
    return iRet == -1 ? -1 : 0;
}

// The value behind the tag; empty when the token is missing or shorter than its tag.
static const char *TokenValue(const char *cpToken)
{
    return cpToken != nullptr && strlen(cpToken) > OWNER_TAG ? cpToken + OWNER_TAG : "";
}

void xbsa_TakeLogin(const char *cpFunction, const BSA_ObjectDescriptor *spObject)
{
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    char szOwner[sizeof spObject->objectOwner.bsa_ObjectOwner + 1];
    char *cpNext = nullptr;
    x_CopyText(szOwner, sizeof szOwner, spObject->objectOwner.bsa_ObjectOwner,
               sizeof spObject->objectOwner.bsa_ObjectOwner);
    const char *cpUser = strtok_r(szOwner, ":", &cpNext);
    const char *cpPass = strtok_r(nullptr, ":", &cpNext);

    x_CopyText(spSMS->szUser, sizeof spSMS->szUser, TokenValue(cpUser));
    TRACE("%s: User: %s", cpFunction, spSMS->szUser);
    x_CopyText(spSMS->szPass, sizeof spSMS->szPass, TokenValue(cpPass));
    TRACE("%s: Password: " TRACE_SECRET, cpFunction);
    x_CopyText(spSMS->szName, sizeof spSMS->szName, spObject->objectName.objectSpaceName,
               sizeof spObject->objectName.objectSpaceName);
    TRACE("%s: Object name: %s", cpFunction, spSMS->szName);
    x_CopyText(spSMS->szPath, sizeof spSMS->szPath, spObject->objectName.pathName,
               sizeof spObject->objectName.pathName);
    TRACE("%s: Object path: %s", cpFunction, spSMS->szPath);
}

void xbsa_NoteDataStatus(int iRet, size_t uBytes)
{
    int *ipStatus = &sGlobal.sObject.sSMS.iOpStatus;
    if (sGlobal.iQAB == 0) return;
    if (iRet == BSA_RC_INVALID_HANDLE) *ipStatus = OP_STATUS_FAILED;
    if (iRet != BSA_RC_ABORT_SYSTEM_ERROR) return;

    int iStatus = uBytes == 0 ? OP_STATUS_FAILED : OP_STATUS_PARTLY;
    if (iStatus > *ipStatus) *ipStatus = iStatus;
}
