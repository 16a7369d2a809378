// Opens a transaction.
#include "api/api.h"
#include "trace/trace.h"

int BSABeginTxn(long bsaHandle)
{
    TRACE("BSABeginTxn: Start, Input: bsaHandle = %ld ", bsaHandle);
    int iRet = xbsa_MarkCall(CALL_BEGIN_TXN, bsaHandle);
    TRACE("BSABeginTxn: Return: %d - %s", iRet, xbsa_typeerr(iRet));
    TRACE("BSABeginTxn: End");
    if (sGlobal.iQAB != 0) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_GOOD;
    return iRet;
}
