// Opens the transfer of one object from the server.
#include <cstdio>

#include "api/api.h"
#include "journal/journal.h"
#include "trace/trace.h"
#include "util/util.h"

// A transaction may contain both a backup and a restore. The restore takes over the connection.
static void CutBackup()
{
    bool bBackup = (sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) != 0 &&
                   sPrivate.eTransfer == TRANSFER_STORING;
    journal_Begin(RETR_MODE);
    xbsa_CutTransfer();
    if (bBackup) sPrivate.eTransfer = TRANSFER_CUT_BY_RESTORE;
}

// Opens session and job. If the answer has no saveset name, the copy id replaces it. In strict mode
// also for closing the job, which must not name the saveset of an earlier object.
static int OpenReadJob(const BSA_ObjectDescriptor *spObject)
{
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    char *cpSaveset = sGlobal.sCOM.szSavesetID;
    TRACE("BSAGetObject: Calling qab_com().");
    if (xbsa_OpenJob(COM_OPEN_READ) == -1)
    {
        TRACE("BSAGetObject: qab_com() call failed. Exiting.");
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
    if (spSMS->szName[0] == '\0')
    {
        TRACE("BSAGetObject: SMS has not returned saveset name. Using copy id for saveset name.");
        snprintf(spSMS->szName, sizeof spSMS->szName, "%u", spObject->copyId.right);
        if (sPrivate.bStrict) x_CopyText(cpSaveset, sizeof sGlobal.sCOM.szSavesetID, spSMS->szName);
    }
    TRACE("BSAGetObject: Saveset name: %s", spSMS->szName);
    return BSA_RC_SUCCESS;
}

static int OpenRead(const BSA_ObjectDescriptor *spObject)
{
    int iRet = BSA_RC_SUCCESS;
    if (sGlobal.iQAB != 0) iRet = OpenReadJob(spObject);
    else xbsa_TakeLogin("BSAGetObject", spObject);
    if (iRet != BSA_RC_SUCCESS) return iRet;

    TRACE("BSAGetObject: Calling xbsa_open()");
    if (xbsa_open(RETR_MODE) != -1) return BSA_RC_SUCCESS;
    TRACE("BSAGetObject: xbsa_open() call failed. Exiting.");
    return BSA_RC_ABORT_SYSTEM_ERROR;
}

static int GetObject(const BSA_ObjectDescriptor *spCaller)
{
    BSA_ObjectDescriptor *spObject = &sGlobal.sObject.sBSA_Object;
    if (spCaller == nullptr)
    {
        TRACE("BSAGetObject: objectDescriptorPtr is NULL. Exiting.");
        return BSA_RC_NULL_ARGUMENT;
    }
    CutBackup();
    TRACE("BSAGetObject: Leaving the dataBlockPtr as is.");
    TRACE("BSAGetObject: Copy the input parameter (object) into sGlobal data structure.");
    *spObject = *spCaller;
    int iRet = OpenRead(spObject);
    if (iRet != BSA_RC_SUCCESS) journal_End(false, "The object could not be opened.");
    return iRet;
}

int BSAGetObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr, BSA_DataBlock *)
{
    TRACE("BSAGetObject: Start");
    sGlobal.sCOM.iOpenJobStarted = 0;
    int iRet = xbsa_CheckCall("BSAGetObject", CALL_GET_OBJECT, bsaHandle);
    if (iRet == BSA_RC_SUCCESS) iRet = GetObject(objectDescriptorPtr);
    TRACE("BSAGetObject: End, return: %d - %s", iRet, xbsa_typeerr(iRet));
    if (sGlobal.iQAB != 0 && iRet != 0) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_FAILED;
    return iRet;
}
