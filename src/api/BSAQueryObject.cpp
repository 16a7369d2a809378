// Asks the COM utility for the matching stored copy.
#include "api/api.h"
#include "trace/trace.h"
#include "util/util.h"

static int CheckQuery(long lHandle, const BSA_QueryDescriptor *spQuery,
                      const BSA_ObjectDescriptor *spObject)
{
    int iRet = xbsa_MarkCall(CALL_QUERY_OBJECT, lHandle);
    if (iRet == BSA_RC_INVALID_CALL_SEQUENCE)
        TRACE("BSAQueryObject: Invalid calling sequence. Exiting.");
    if (iRet == BSA_RC_INVALID_HANDLE) TRACE("BSAQueryObject: invalid Handle. Exiting.");
    if (iRet != BSA_RC_SUCCESS) return iRet;
    if (spQuery == nullptr)
    {
        TRACE("BSAQueryObject: queryDescriptorPtr is NULL. Exiting.");
        return BSA_RC_NULL_ARGUMENT;
    }
    if (spObject == nullptr)
    {
        TRACE("BSAQueryObject: objectDescriptorPtr is NULL. Exiting.");
        return BSA_RC_NULL_ARGUMENT;
    }
    return BSA_RC_SUCCESS;
}

// Leaves the match in entry 0. An answer without a saveset is not a match: a copy id of 0, or an
// earlier one, would restore something else. In strict mode silence is a failure, because a tool
// that took it for "no match" would forget good copies.
static int AskUtility()
{
    TRACE("BSAQueryObject: Calling olm_com_interface(COM_INFO)");
    int iRet = com_intf(COM_INFO, &sGlobal.sCOM);
    bool bUnanswered = sPrivate.bStrict && !sPrivate.bAnswered;
    if (iRet == -1 || bUnanswered)
    {
        i_KeepMessage(0,
                      "The COM utility did not answer the query."); // a refusal has set one
        TRACE("BSAQueryObject: com_intf: failed.");
        qab_ClearResults();
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
    if (sGlobal.sCOM.szSavesetID[0] == '\0') qab_ClearResults();
    if (sGlobal.spQueryResult[0] != nullptr) return BSA_RC_SUCCESS;
    TRACE("BSAQueryObject: No match.");
    return BSA_RC_NO_MATCH;
}

// The caller sees its own names, including patterns, rather than the server's.
static void HandOverFirst(const BSA_QueryDescriptor *spQuery, BSA_ObjectDescriptor *spCaller)
{
    BSA_ObjectDescriptor *spFound = sGlobal.spQueryResult[0];
    spFound->copyId.right =
        static_cast<BSA_UInt32>(x_ToLong(sGlobal.sCOM.szSavesetID, nullptr, 10));
    TRACE("BSAQueryObject: memcpy() query result to caller");
    *spCaller = *spFound;
    TRACE("BSAQueryObject(): COPYID: %d:%d", static_cast<int>(spCaller->copyId.right),
          static_cast<int>(spCaller->copyId.left));
    TRACE("BSAQueryObject: fetch copyType, objectOwner, objectName from queryDescriptorPtr");
    spCaller->copyType = spQuery->copyType;
    spCaller->objectOwner = spQuery->objectOwner;
    spCaller->objectName = spQuery->objectName;
    TRACE("BSAQueryObject: releasing query result structure");
    sPrivate.bResultSpent = true; // so the next query reuses it
}

static int Query(const BSA_QueryDescriptor *spQuery, BSA_ObjectDescriptor *spCaller)
{
    TRACE("BSAQueryObject: Copying query struct to global.");
    sGlobal.sQueryDescriptor = *spQuery;
    TRACE("BSAQueryObject: Clearing spQueryResult[] array.");
    qab_ClearResults();
    if (sGlobal.iQAB != 0)
    {
        int iRet = AskUtility();
        if (iRet != BSA_RC_SUCCESS) return iRet;
        HandOverFirst(spQuery, spCaller);
    }
    TRACE("BSAQueryObject: Increasing iQueryIndex");
    sGlobal.iQueryIndex = 1;
    return BSA_RC_SUCCESS;
}

int BSAQueryObject(long bsaHandle, BSA_QueryDescriptor *queryDescriptorPtr,
                   BSA_ObjectDescriptor *objectDescriptorPtr)
{
    TRACE("BSAQueryObject: Start");
    int iRet = CheckQuery(bsaHandle, queryDescriptorPtr, objectDescriptorPtr);
    if (iRet == BSA_RC_SUCCESS) iRet = Query(queryDescriptorPtr, objectDescriptorPtr);
    TRACE("BSAQueryObject: End");
    return iRet;
}
