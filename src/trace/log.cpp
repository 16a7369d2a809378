// Opens, names and closes the trace log.
#include "trace/log.h"

#include <cstring>
#include <unistd.h>

#include "record/record.h"
#include "trace/trace.h"
#include "util/util.h"

bool i_IsLogOpen()
{
    if (sGlobal.hLogFile == 0 || sGlobal.hLogFile == -1) return false;
    if (sGlobal.hLogFile != sPrivate.sTrace.sLog.hFile) return true; // the caller opened it
    if (x_IsOpen(&sPrivate.sTrace.sLog)) return true;
    sPrivate.sTrace.sLog.hFile = -1;
    sGlobal.hLogFile = -1;
    return false;
}

static void CloseOwnLog()
{
    int hLog = sPrivate.sTrace.sLog.hFile;
    if (hLog == -1) return;
    x_CloseAppended(&sPrivate.sTrace.sLog);
    if (sGlobal.hLogFile == hLog) sGlobal.hLogFile = -1;
}

// The process has one buffer, so that it still exists when a caller restores an earlier copy of the
// record.
static void RenewBuffer()
{
    if (sPrivate.sTrace.cpBuffer == nullptr)
    {
        sPrivate.sTrace.cpBuffer = static_cast<char *>(x_Malloc(XBSA_TRACE_SIZE));
    }
    if (sPrivate.sTrace.cpBuffer == nullptr) return;
    memset(sPrivate.sTrace.cpBuffer, 0, XBSA_TRACE_SIZE);
    sGlobal.cpTraceBuffer = sPrivate.sTrace.cpBuffer;
}

void i_open_trace()
{
    RenewBuffer();
    if (sGlobal.iReadTraceEnvironment != 0 && i_ReadTraceEnvironment() == 0)
    {
        i_SetDefaultLogFileName();
    }
    if ((sGlobal.ucXBSATraceLevel & TRACE_TO_LOG) == 0)
    {
        memset(sGlobal.szLogFile, 0, sizeof sGlobal.szLogFile);
        return;
    }
    if (sGlobal.szLogFile[0] == '\0') return;

    CloseOwnLog();
    x_OpenAppended(&sPrivate.sTrace.sLog, sGlobal.szLogFile, sGlobal.iReadTraceEnvironment != 0);
    sGlobal.hLogFile = sPrivate.sTrace.sLog.hFile;
}

void i_close_trace()
{
    sGlobal.cpTraceBuffer = nullptr;
    if ((sGlobal.ucXBSATraceLevel & TRACE_TO_LOG) == 0 || sGlobal.szLogFile[0] == '\0') return;

    bool bOpen = sGlobal.hLogFile != 0 && sGlobal.hLogFile != -1;
    if (bOpen && sGlobal.hLogFile != sPrivate.sTrace.sLog.hFile) close(sGlobal.hLogFile);
    CloseOwnLog();
    sGlobal.hLogFile = -1;
}

// Closes the log and frees the buffer when the host unloads the library.
__attribute__((destructor)) void i_ReleaseTrace()
{
    if (sGlobal.cpTraceBuffer == sPrivate.sTrace.cpBuffer) sGlobal.cpTraceBuffer = nullptr;
    x_Free(sPrivate.sTrace.cpBuffer);
    sPrivate.sTrace.cpBuffer = nullptr;
    CloseOwnLog();
}

int i_ReadTraceEnvironment()
{
    const char *cpLevel = xbsa_getenv("XBSA_TRACE");
    if (cpLevel == nullptr) return 0;
    sGlobal.ucXBSATraceLevel = i_LevelToLog(cpLevel);

    const char *cpFile = xbsa_getenv("XBSA_LOGFILE");
    if (cpFile == nullptr) return 0;
    i_CopyField("i_ReadTraceEnvironment", sGlobal.szLogFile, sizeof sGlobal.szLogFile, cpFile);
    return 1;
}

void i_SetDefaultLogFileName()
{
    static const char szName[] = "xbsa.log";
    char *cpFile = sGlobal.szLogFile;
    const size_t uSize = sizeof sGlobal.szLogFile;

    if (sGlobal.iQAB == 0)
    {
        x_CopyText(cpFile, uSize, szName);
        return;
    }
    const char *cpFolder = xbsa_getenv("INFORMIXDIR");
    if (cpFolder == nullptr) return;

    i_CopyField("i_SetDefaultLogFileName", cpFile, uSize - sizeof szName, cpFolder);
    size_t uLength = strlen(cpFile);
    if (uLength == 0 || cpFile[uLength - 1] != '/') cpFile[uLength++] = '/';
    x_CopyText(cpFile + uLength, uSize - uLength, szName);
}
