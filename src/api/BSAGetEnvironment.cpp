// Exists for callers that expect the full interface.
#include "xbsa_session.h"

int BSAGetEnvironment(long, BSA_UInt32 *, char **)
{
    return BSA_RC_SUCCESS;
}
