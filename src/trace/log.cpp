// Opening, naming and closing the trace log.
#include "trace/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include "trace/trace.h"
#include "util/text.h"

static int hOwnLog = -1;       // the descriptor that i_open_trace opened
static bool bOwnPlain = false; // a write to it raises no signal

bool i_LogIsPlain()
{
    return bOwnPlain && sGlobal.hLogFile == hOwnLog;
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

// In a set-user-id host the environment comes from the one who started it: a log that it names is
// opened with that user's rights, else anybody could write into files of the host's account. Only
// this thread's rights to files change, and only for the open.
static int OpenForStarter(const char *cpPath)
{
    bool bOwn = geteuid() == getuid() && getegid() == getgid();
    if (bOwn || sGlobal.iReadTraceEnvironment == 0) return OpenLog(cpPath);

    uid_t uGroup = static_cast<uid_t>(setfsgid(getgid()));
    uid_t uUser = static_cast<uid_t>(setfsuid(getuid()));
    int hLog = OpenLog(cpPath);
    setfsuid(uUser);
    setfsgid(uGroup);
    return hLog;
}

// It can seek, so it is a file and no pipe, and may grow without bound.
static bool IsPlain(int hLog)
{
    struct rlimit sSize = {};
    if (hLog == -1 || lseek(hLog, 0, SEEK_CUR) == -1) return false;
    return getrlimit(RLIMIT_FSIZE, &sSize) == 0 && sSize.rlim_cur == RLIM_INFINITY;
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
    hOwnLog = OpenForStarter(sGlobal.szLogFile);
    bOwnPlain = IsPlain(hOwnLog);
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
