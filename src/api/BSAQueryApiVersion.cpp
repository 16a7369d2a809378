// Returns the version of the interface.
#include "trace/trace.h"

static const char szIdentification[] =
    "@(#)KORVA BACKUP CLIENT FOR INFORMIX, VERSION: 1.8A1 Thu Jul 13 00:53:16 CEST 2006 Linux";

int BSAQueryApiVersion(BSA_ApiVersion *apiVersionPtr)
{
    i_open_trace();
    TRACE("\n");
    TRACE("*** Korva Informix Backup (XBSA) Library. Version: %s. ***", szIdentification);
    TRACE("BSAQueryApiVersion: Start");
    if (apiVersionPtr == nullptr)
    {
        TRACE("BSAQueryApiVersion: Returninig BSA_RC_NULL_ARGUMENT.");
        return BSA_RC_NULL_ARGUMENT;
    }
    apiVersionPtr->issue = 1;
    apiVersionPtr->version = 0;
    apiVersionPtr->level = 1;
    sGlobal.sSession.iLastCall |= CALL_QUERY_VERSION;
    TRACE("BSAQueryApiVersion: Returning BSA_RC_SUCCESS.");
    return BSA_RC_SUCCESS;
}
