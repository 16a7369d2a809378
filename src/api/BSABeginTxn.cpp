// Opens a transaction.
#include "record/record.h"
#include "trace/trace.h"

int BSABeginTxn(long bsaHandle)
{
    int iRet = BSA_RC_SUCCESS;
    TRACE("BSABeginTxn: Start, Input: bsaHandle = %ld ", bsaHandle);
    if (sGlobal.sSession.iLastCall & CALL_BEGIN_TXN)
    {
        iRet = BSA_RC_INVALID_CALL_SEQUENCE;
    }
    else
    {
        sGlobal.sSession.iLastCall |= CALL_BEGIN_TXN;
        if (!xbsa_IsHandle(bsaHandle)) iRet = BSA_RC_INVALID_HANDLE;
    }
    TRACE("BSABeginTxn: Return: %d - %s", iRet, xbsa_typeerr(iRet));
    TRACE("BSABeginTxn: End");
    if (sGlobal.iQAB != 0) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_GOOD;
    return iRet;
}
