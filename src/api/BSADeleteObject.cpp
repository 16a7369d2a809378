// Exists for callers that expect the full interface; the server decides how long copies live.
#include "xbsa_session.h"

int BSADeleteObject(long, BSA_UInt64)
{
    return BSA_RC_SUCCESS;
}
