// There for callers that expect the full interface; copies live as long as the server keeps them.
#include "xbsa_session.h"

int BSADeleteObject(long, BSA_UInt64)
{
    return BSA_RC_SUCCESS;
}
