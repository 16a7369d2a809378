// Opens the transfer of one object to the server.
#include <cstdio>
#include <ctime>

#include "api/api.h"
#include "journal/journal.h"
#include "trace/trace.h"
#include "util/util.h"

static int CheckDescriptor(const BSA_ObjectDescriptor *spObject)
{
    int iRet = BSA_RC_SUCCESS;
    if (spObject == nullptr)
    {
        TRACE("BSACreateObject: objectDescriptorPtr is NULL. Exiting.");
        return BSA_RC_NULL_ARGUMENT;
    }
    if (spObject->objectName.objectSpaceName[0] == '\0')
    {
        TRACE("BSACreateObject: ObjectName.objectSpaceName is empty");
        iRet = BSA_RC_NULL_ARGUMENT;
    }
    if (spObject->copyType == BSA_CopyType_ANY)
    {
        TRACE("BSACreateObject: copyType == BSA_CopyType_ANY");
        iRet = BSA_RC_NULL_ARGUMENT;
    }
    return iRet;
}

// Opens session and job. Without a saveset in the answer the id from the opening of the job stays,
// never the name of an earlier object.
static int OpenWriteJob()
{
    TRACE("BSACreateObject: Calling olm_com_interface().");
    if (xbsa_OpenJob(COM_OPEN_WRITE) == -1)
    {
        TRACE("BSACreateObject: olm_com_interface() call failed. Exiting.");
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    if (spSMS->szName[0] == '\0')
    {
        x_CopyText(spSMS->szName, sizeof spSMS->szName, sGlobal.sCOM.szSavesetID);
    }
    return BSA_RC_SUCCESS;
}

// For a server an orderly close of the data connection means a complete object. So the listener of a
// store passes on a reset: if this process dies, the system resets the connection instead.
static int OpenStore()
{
    TRACE("BSACreateObject: Calling xbsa_open()");
    sPrivate.bStoring = true;
    int hData = xbsa_open(STOR_MODE);
    sPrivate.bStoring = false;
    if (hData == -1)
    {
        TRACE("BSACreateObject: xbsa_open() call failed. Exiting.");
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
    return BSA_RC_SUCCESS;
}

static void CompleteDescriptor(BSA_ObjectDescriptor *spObject)
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    time_t lNow = time(nullptr);
    spObject->copyId.right = static_cast<BSA_UInt32>(x_ToLong(spSMS->szName, nullptr, 10));
    gmtime_r(&lNow, &spObject->createTime);
    spObject->objectStatus = BSA_ObjectStatus_ANY;
    snprintf(reinterpret_cast<char *>(spObject->objectInfo), sizeof spObject->objectInfo,
             "SEGMENT=%d", static_cast<int>(spSMS->ulSegmentNum));
}

static int OpenWrite(const BSA_ObjectDescriptor *spObject)
{
    int iRet = BSA_RC_SUCCESS;
    if (sGlobal.iQAB != 0)
    {
        iRet = OpenWriteJob();
    }
    else
    {
        TRACE("Tracing input variables...");
        xbsa_TakeLogin("BSACreateObject", spObject);
    }
    return iRet == BSA_RC_SUCCESS ? OpenStore() : iRet;
}

static int CreateObject(BSA_ObjectDescriptor *spCaller)
{
    BSA_ObjectDescriptor *spObject = &sGlobal.sObject.sBSA_Object;
    int iRet = CheckDescriptor(spCaller);
    if (iRet != BSA_RC_SUCCESS) return iRet;

    journal_Begin(STOR_MODE);
    xbsa_CutTransfer();
    TRACE("BSACreateObject: Leaving the dataBlockPtr as is.");
    TRACE("BSACreateObject: Copy the input parameter (object) into sGlobal data structure.");
    *spObject = *spCaller;
    iRet = OpenWrite(spObject);
    if (iRet != BSA_RC_SUCCESS)
    {
        journal_End(false, "The object could not be opened.");
        return iRet;
    }
    CompleteDescriptor(spObject);
    *spCaller = *spObject;
    return BSA_RC_SUCCESS;
}

int BSACreateObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr, BSA_DataBlock *)
{
    TRACE("BSACreateObject: Start");
    sGlobal.sCOM.iOpenJobStarted = 0;
    int iRet = xbsa_CheckCall("BSACreateObject", CALL_CREATE_OBJECT, bsaHandle);
    if (iRet == BSA_RC_SUCCESS) iRet = CreateObject(objectDescriptorPtr);
    if (iRet != BSA_RC_SUCCESS) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_FAILED;
    TRACE("BSACreateObject: Return: %d - %s", iRet, xbsa_typeerr(iRet));
    return iRet;
}
