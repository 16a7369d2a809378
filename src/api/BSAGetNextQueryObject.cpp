// Returns the query results after the first.
#include "record/record.h"
#include "trace/trace.h"

static int CheckNext(long lHandle, const BSA_ObjectDescriptor *spObject)
{
    if ((sGlobal.sSession.iLastCall & CALL_QUERY_OBJECT) == 0)
    {
        TRACE("BSAGetNextQueryObject: Invalid calling sequence. Exiting.");
        return BSA_RC_INVALID_CALL_SEQUENCE;
    }
    sGlobal.sSession.iLastCall |= CALL_GET_NEXT_QUERY;
    if (!xbsa_IsHandle(lHandle))
    {
        TRACE("BSAGetNextQueryObject: Invalid Handle. Exiting.");
        return BSA_RC_INVALID_HANDLE;
    }
    if (spObject == nullptr)
    {
        TRACE("BSAGetNextQueryObject: objectDescriptorPtr is NULL. Exiting.");
        return BSA_RC_NULL_ARGUMENT;
    }
    return BSA_RC_SUCCESS;
}

// The last entry of the list is always its end, and each result is returned once.
static BSA_ObjectDescriptor *NextResult(int iIndex)
{
    bool bInside = iIndex >= 0 && iIndex < XBSA_QUERY_RESULTS - 1;
    BSA_ObjectDescriptor *spFound = bInside ? sGlobal.spQueryResult[iIndex] : nullptr;
    return spFound == sPrivate.spResult && sPrivate.bResultSpent ? nullptr : spFound;
}

static int HandOverNext(BSA_ObjectDescriptor *spCaller)
{
    int iIndex = sGlobal.iQueryIndex;
    BSA_ObjectDescriptor *spFound = NextResult(iIndex);
    if (spFound == nullptr)
    {
        TRACE("BSAGetNextQueryObject: No more data.");
        return BSA_RC_NO_MORE_DATA;
    }
    TRACE("BSAGetNextQueryObject: memcpy() query result to caller");
    *spCaller = *spFound;
    TRACE("BSAGetNextQueryObject: Releasing query result strucure");
    if (spFound == sPrivate.spResult) sPrivate.bResultSpent = true; // the caller owns any other
    TRACE("BSAGetNextQueryObject: Increasing iQueryIndex");
    sGlobal.iQueryIndex = iIndex + 1;
    return BSA_RC_SUCCESS;
}

int BSAGetNextQueryObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr)
{
    TRACE("BSAGetNextQueryObject: Start");
    int iRet = CheckNext(bsaHandle, objectDescriptorPtr);
    if (iRet == BSA_RC_SUCCESS) iRet = HandOverNext(objectDescriptorPtr);
    TRACE("BSAGetNextQueryObject: End, return: %d - %s", iRet, xbsa_typeerr(iRet));
    return iRet;
}
