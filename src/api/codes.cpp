// Return codes and their texts.
#include "xbsa_session.h"

// The names of the rows are in xbsa.h; their order decides which text a shared number gets. The
// look-up stops at the row of 0, so that every unknown number reads as success: programs that read
// logs rely on it.
static const MsgTbl sQabErr[] = {
    {BSA_RC_ABORT_SYSTEM_ERROR, "System detected error, operation aborted."},
    {BSA_RC_ACCESS_FAILURE, "Access to the requested object is not possible."},
    {BSA_RC_AUTHENTICATION_FAILURE, "There was an authentication failure."},
    {BSA_RC_BUFFER_TOO_SMALL, "The supplied buffer is too small to contain the data, as specified "
                              "by the accompanying size parameter."},
    {BSA_RC_INVALID_CALL_SEQUENCE, "The sequence of API calls is incorrect."},
    {BSA_RC_INVALID_COPYID, "The copyld field contains an unrecognized value."},
    {BSA_RC_INVALID_DATABLOCK, "The BSA_DataBlock32 parameter contained an inconsistent value."},
    {BSA_RC_INVALID_ENV, "An entry in environment structure is invalid or missing."},
    {BSA_RC_INVALID_HANDLE,
     "The handle used to associate this call with a previous BSAInit() call is invalid."},
    {BSA_RC_INVALID_OBJECTDESCRIPTOR, "The BSA_ObjectDescriptor was invalid."},
    {BSA_RC_INVALID_QUERYDESCRIPTOR, "The BSA_QueryDescriptor was invalid."},
    {BSA_RC_INVALID_VOTE, "The value specified for vote is invalid."},
    {BSA_RC_NO_MATCH, "No object matched the specified predicate."},
    {BSA_RC_NO_MORE_DATA, "No more data is available."},
    {BSA_RC_NULL_ARGUMENT, "A NULL pointer was encountered in one of the arguments."},
    {BSA_RC_OBJECT_NOT_FOUND, "There is no copy of the requested object."},
    {BSA_RC_SUCCESS, "The function succeeded."},
    {BSA_RC_TRANSACTION_ABORTED, "The transaction was aborted."},
    {BSA_RC_VERSION_NOT_SUPPORTED, "The Backup Service implementation does not support the "
                                   "specified version of the interface"},
    {0, "BSA: unknown error code"}};

const char *xbsa_typeerr(int iFlag)
{
    const MsgTbl *spRow = sQabErr;
    while (spRow->iFlag != 0 && spRow->iFlag != iFlag) spRow++;
    return spRow->cpFlagName;
}
