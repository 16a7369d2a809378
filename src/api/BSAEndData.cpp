// Ends the object of a backup or a restore.
#include "api/api.h"
#include "session/session.h"
#include "trace/trace.h"

int BSAEndData(long bsaHandle)
{
    TRACE("BSAEndData: Start - bsaHandle = %ld", bsaHandle);
    if (xbsa_IsForeignProcess()) return BSA_RC_INVALID_HANDLE; // its parent owns the connections
    int iRet = xbsa_EndObject(xbsa_MarkCall(CALL_END_DATA, bsaHandle));
    TRACE("BSAEndData: Return CODE: %d ", iRet);
    sGlobal.sSession.dBytes = 0;
    return iRet != 0 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}
