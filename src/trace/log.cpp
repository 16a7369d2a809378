// Opening, naming and closing the trace log.
#include "trace/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "trace/trace.h"
#include "util/text.h"

static int hOwnLog = -1;      // the descriptor that i_open_trace opened
static bool bOwnFile = false; // it can seek: a file, no pipe

bool i_LogIsFile()
{
    return bOwnFile && sGlobal.hLogFile == hOwnLog;
}

static void CloseOwnLog()
{
    if (hOwnLog != -1) close(hOwnLog);
    if (sGlobal.hLogFile == hOwnLog) sGlobal.hLogFile = -1;
    hOwnLog = -1;
}

// Always appends, so that two processes that create the log at the same moment do not overwrite
// each other. An existing file is tried first: O_CREAT on another's file in /tmp may be refused.
// O_NONBLOCK keeps a FIFO without a reader from stopping the host.
static int OpenLog(const char *cpPath)
{
    const int iFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_LARGEFILE;
    int hLog = open(cpPath, iFlags);
    if (hLog == -1 && errno == ENOENT) hLog = open(cpPath, iFlags | O_CREAT, 0600);
    return x_HighDescriptor(hLog);
}

static void RenewBuffer()
{
    char *cpBuffer = static_cast<char *>(x_Malloc(XBSA_TRACE_SIZE));
    if (cpBuffer == nullptr) return; // the old one goes on serving
    memset(cpBuffer, 0, XBSA_TRACE_SIZE);
    x_Free(sGlobal.cpTraceBuffer);
    sGlobal.cpTraceBuffer = cpBuffer;
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
    hOwnLog = OpenLog(sGlobal.szLogFile);
    bOwnFile = hOwnLog != -1 && lseek(hOwnLog, 0, SEEK_CUR) != -1;
    sGlobal.hLogFile = hOwnLog;
}

void i_close_trace()
{
    x_Free(sGlobal.cpTraceBuffer);
    sGlobal.cpTraceBuffer = nullptr;
    if ((sGlobal.ucXBSATraceLevel & TRACE_TO_LOG) == 0 || sGlobal.szLogFile[0] == '\0') return;

    bool bOpen = sGlobal.hLogFile != 0 && sGlobal.hLogFile != -1;
    if (bOpen && sGlobal.hLogFile != hOwnLog) close(sGlobal.hLogFile);
    CloseOwnLog();
    sGlobal.hLogFile = -1;
}

void i_ReleaseTrace()
{
    x_Free(sGlobal.cpTraceBuffer);
    sGlobal.cpTraceBuffer = nullptr;
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
