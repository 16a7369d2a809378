// What the calls of a backup and a restore share.
#include "api/api.h"

#include <cstring>

#include "trace/trace.h"
#include "util/util.h"

int xbsa_MarkCall(int iCallBit, long lHandle)
{
    if (sGlobal.sSession.iLastCall & iCallBit) return BSA_RC_INVALID_CALL_SEQUENCE;
    sGlobal.sSession.iLastCall |= iCallBit;
    return xbsa_IsHandle(lHandle) ? BSA_RC_SUCCESS : BSA_RC_INVALID_HANDLE;
}

int xbsa_CheckCall(const char *cpFunction, int iCallBit, long lHandle)
{
    int iRet = xbsa_MarkCall(iCallBit, lHandle);
    if (iRet == BSA_RC_INVALID_CALL_SEQUENCE)
        TRACE("%s: Invalid calling sequence. Exiting.", cpFunction);
    if (iRet == BSA_RC_INVALID_HANDLE) TRACE("%s: Invalid Handle. Exiting.", cpFunction);
    return iRet;
}

int xbsa_CheckStrict(int iMode)
{
    if (xbsa_IsForeignProcess()) return BSA_RC_INVALID_HANDLE;
    int iAgainst = iMode == STOR_MODE ? TRANSFER_RESTORING : TRANSFER_STORING;
    bool bAgainst = sPrivate.eTransfer == iAgainst ||
                    (iMode == STOR_MODE && sPrivate.eTransfer == TRANSFER_CUT_BY_RESTORE);
    return bAgainst ? BSA_RC_INVALID_CALL_SEQUENCE : BSA_RC_SUCCESS;
}

int xbsa_OpenJob(ENUM_COM_TASK eTask)
{
    int iRet = com_intf(eTask, &sGlobal.sCOM);
    sPrivate.bNoUtility = iRet > 0;
    return iRet == -1 ? -1 : 0;
}

// The value after the tag; empty if the token is missing or shorter than its tag.
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

    if (uBytes == 0) *ipStatus = OP_STATUS_FAILED;
    else if (*ipStatus < OP_STATUS_FAILED) *ipStatus = OP_STATUS_PARTLY;
}
