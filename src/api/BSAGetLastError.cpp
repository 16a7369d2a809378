// Returns the first error text and clears it.
#include <cstring>

#include "xbsa_session.h"

int BSAGetLastError(BSA_UInt32 *sizePtr, char *errorCodePtr)
{
    if (errorCodePtr == nullptr || sizePtr == nullptr) return BSA_RC_NULL_ARGUMENT;

    char *cpLast = sGlobal.sSession.szLastMessage;
    size_t uLength = strnlen(cpLast, XBSA_TRACE_SIZE - 1);
    if (uLength >= *sizePtr) return BSA_RC_BUFFER_TOO_SMALL;

    memcpy(errorCodePtr, cpLast, uLength);
    errorCodePtr[uLength] = '\0';
    *sizePtr = static_cast<BSA_UInt32>(uLength);
    memset(cpLast, 0, XBSA_TRACE_SIZE);
    return BSA_RC_SUCCESS;
}
