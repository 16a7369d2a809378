// Ends a transaction.
#include "record/record.h"
#include "trace/trace.h"

// By default a late BSAEndData may still end the object, in strict mode it may not.
static void CutOpenTransfer()
{
    if (sPrivate.eTransfer == TRANSFER_IDLE || xbsa_IsForeignProcess()) return;
    xbsa_CutTransfer();
    sPrivate.eTransfer = TRANSFER_CUT_BY_END;
}

// Whatever the result, every call is allowed again. Commit and abort do the same, because an object
// is stored once BSAEndData has confirmed it.
int BSAEndTxn(long bsaHandle, BSA_Vote)
{
    int iRet = BSA_RC_SUCCESS;
    TRACE("BSAEndTxn: Start, Input: bsaHandle = %ld ", bsaHandle);
    if (!xbsa_IsHandle(bsaHandle))
    {
        TRACE("BSAEndTxn: Invalid Handle. Exiting.");
        iRet = BSA_RC_INVALID_HANDLE;
    }
    else if ((sGlobal.sSession.iLastCall & CALL_BEGIN_TXN) == 0)
    {
        TRACE("BSAEndTxn: There is no coresponding BsaBeginTxn() call. Exiting.");
        iRet = BSA_RC_INVALID_CALL_SEQUENCE;
    }
    TRACE("BSAEndTxn: End");
    sGlobal.sSession.iLastCall = 0;
    if (sPrivate.bStrict) CutOpenTransfer();
    return iRet;
}
