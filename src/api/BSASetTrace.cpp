// Lets the caller configure the trace.
#include <cstring>

#include "trace/trace.h"

void BSASetTrace(BSA_TraceFunc fpExternalTraceFunc, char *cpExternLogFileName,
                 unsigned char ucTraceLevel)
{
    sGlobal.vpExternalTraceFunc = fpExternalTraceFunc;
    sGlobal.ucXBSATraceLevel = ucTraceLevel;

    const bool bNamed = cpExternLogFileName != nullptr;
    if (bNamed && strcmp(cpExternLogFileName, "ENVIRONMENT") == 0) return;
    if (!bNamed && (ucTraceLevel & (TRACE_TO_STDERR | TRACE_TO_LOG)) != 0)
    {
        i_SetDefaultLogFileName();
        return;
    }
    sGlobal.iReadTraceEnvironment = 0;
    if (bNamed)
        i_CopyField("BSASetTrace", sGlobal.szLogFile, sizeof sGlobal.szLogFile,
                    cpExternLogFileName);
}
