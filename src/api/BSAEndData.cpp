// Ends the object of a backup or a restore.
#include "record/record.h"
#include "session/session.h"
#include "trace/trace.h"

static int CheckEnd(long lHandle)
{
    if (sGlobal.sSession.iLastCall & CALL_END_DATA) return BSA_RC_INVALID_CALL_SEQUENCE;
    sGlobal.sSession.iLastCall |= CALL_END_DATA;
    return lHandle == sGlobal.sSession.lBSAHandle ? BSA_RC_SUCCESS : BSA_RC_INVALID_HANDLE;
}

int BSAEndData(long bsaHandle)
{
    TRACE("BSAEndData: Start - bsaHandle = %ld", bsaHandle);
    if (xbsa_IsForeignProcess()) return BSA_RC_INVALID_HANDLE; // the connections are its parent's
    int iRet = xbsa_EndObject(CheckEnd(bsaHandle));
    TRACE("BSAEndData: Return CODE: %d ", iRet);
    sGlobal.sSession.dBytes = 0;
    return iRet != 0 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}
