// Ends the session from the caller's point of view.
#include "record/record.h"
#include "trace/trace.h"

// Despite its trace line, this closes and clears nothing: callers ask for the last error
// afterwards, and a session ends with its process.
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
