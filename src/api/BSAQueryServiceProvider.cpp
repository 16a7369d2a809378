// Returns the name of the provider.
#include <cstring>

#include "trace/trace.h"

static const char szProvider[] = "TOV:KORVA:1.8A1";
static const BSA_UInt32 uProvider = sizeof szProvider - 1;

static int CheckNull(const void *vpArgument, const char *cpName)
{
    if (vpArgument != nullptr) return BSA_RC_SUCCESS;
    TRACE("BSAQueryServiceProvider: %s == NULL", cpName);
    return BSA_RC_NULL_ARGUMENT;
}

// Even for a size of exactly 15 the terminator is written after it: callers that pass 15 rely on a
// result and have room for 16 bytes.
static int HandOverProvider(BSA_UInt32 *uipSize, char *cpDelimiter, char *cpProvider)
{
    bool bFits = *uipSize >= uProvider;
    *uipSize = uProvider;
    if (!bFits)
    {
        TRACE("BSAQueryServiceProvider: sizePtr too small. exiting.");
        return BSA_RC_BUFFER_TOO_SMALL;
    }
    memcpy(cpProvider, szProvider, sizeof szProvider);
    memcpy(cpDelimiter, ":", 2);
    return BSA_RC_SUCCESS;
}

int BSAQueryServiceProvider(BSA_UInt32 *sizePtr, char *delimiter, char *providerPtr)
{
    TRACE("BSAQueryServiceProvider: Start");
    sGlobal.sSession.iLastCall |= CALL_SERVICE_PROVIDER;
    int iRet = CheckNull(sizePtr, "sizePtr");
    iRet |= CheckNull(delimiter, "delimiter");
    iRet |= CheckNull(providerPtr, "providerPtr");
    if (iRet == BSA_RC_SUCCESS) iRet = HandOverProvider(sizePtr, delimiter, providerPtr);
    TRACE("BSAQueryServiceProvider: End");
    return iRet;
}
