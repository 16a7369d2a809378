// The caller's own setting of the trace.
#include <cstring>

#include "trace/trace.h"

void BSASetTrace(BSA_TraceFunc fpExternalTraceFunc, char *cpExternLogFileName,
                 unsigned char ucTraceLevel)
{
    sGlobal.vpExternalTraceFunc = fpExternalTraceFunc;
    sGlobal.ucXBSATraceLevel = ucTraceLevel;

    if (cpExternLogFileName == nullptr)
    {
        if ((ucTraceLevel & (TRACE_TO_STDERR | TRACE_TO_LOG)) == 0)
        {
            sGlobal.iReadTraceEnvironment = 0;
            return;
        }
        i_SetDefaultLogFileName();
        return;
    }
    if (strcmp(cpExternLogFileName, "ENVIRONMENT") == 0) return;

    sGlobal.iReadTraceEnvironment = 0;
    i_CopyField("BSASetTrace", sGlobal.szLogFile, sizeof sGlobal.szLogFile, cpExternLogFileName);
}
