// Opening, naming and closing the trace log.
#include "trace/log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/auxv.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "record/record.h"
#include "trace/trace.h"
#include "util/util.h"

bool i_IsLogOpen()
{
    if (sGlobal.hLogFile == 0 || sGlobal.hLogFile == -1) return false;
    if (sGlobal.hLogFile != sPrivate.sTrace.hLog) return true; // the caller's own
    if (x_IsSame(sPrivate.sTrace.hLog, &sPrivate.sTrace.sID)) return true;
    sPrivate.sTrace.hLog = -1;
    sGlobal.hLogFile = -1;
    return false;
}

// The host may lower its limit at any time.
bool i_IsLogPlain()
{
    struct rlimit sSize = {};
    if (sGlobal.hLogFile != sPrivate.sTrace.hLog || !sPrivate.sTrace.sID.bRegular) return false;
    return getrlimit(RLIMIT_FSIZE, &sSize) == 0 && sSize.rlim_cur == RLIM_INFINITY;
}

static void CloseOwnLog()
{
    if (sPrivate.sTrace.hLog == -1) return;
    if (x_IsSame(sPrivate.sTrace.hLog, &sPrivate.sTrace.sID)) close(sPrivate.sTrace.hLog);
    if (sGlobal.hLogFile == sPrivate.sTrace.hLog) sGlobal.hLogFile = -1;
    sPrivate.sTrace.hLog = -1;
}

// Always appends, so that two processes that create the log at the same moment do not overwrite
// each other. An existing file is tried first: O_CREAT on another's file in /tmp may be refused.
// O_NONBLOCK keeps a FIFO without a reader from stopping the host.
static int OpenLog(const char *cpPath)
{
    const int iFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_LARGEFILE;
    int hLog = open(cpPath, iFlags);
    if (hLog == -1 && errno == ENOENT) hLog = open(cpPath, iFlags | O_CREAT, 0600);
    return x_AboveStandardError(hLog);
}

// Sets which of its capabilities this thread uses: a program file may come with some. Returns those
// used before.
static unsigned int UseCapabilities(unsigned int uEffective)
{
    struct __user_cap_header_struct sHeader = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct asData[2] = {};
    if (syscall(SYS_capget, &sHeader, asData) == -1) return uEffective;
    unsigned int uBefore = asData[0].effective;
    asData[0].effective = uEffective;
    syscall(SYS_capset, &sHeader, asData);
    return uBefore;
}

// In a host with more rights than its starter (set-user-id, set-group-id, file capabilities) the
// environment comes from the starter: a log that it names is opened with the starter's rights, else
// anybody could write into files of the host's account. Only this thread's rights to files change,
// and only for the open.
static int OpenForStarter(const char *cpPath)
{
    if (getauxval(AT_SECURE) == 0 || sGlobal.iReadTraceEnvironment == 0) return OpenLog(cpPath);

    unsigned int uCapabilities = UseCapabilities(0);
    uid_t uGroup = static_cast<uid_t>(setfsgid(getgid()));
    uid_t uUser = static_cast<uid_t>(setfsuid(getuid()));
    int hLog = OpenLog(cpPath);
    setfsuid(uUser);
    setfsgid(uGroup);
    UseCapabilities(uCapabilities);
    return hLog;
}

// One buffer serves the whole process: a caller that puts an earlier copy of the record back finds it
// still there.
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
    sPrivate.sTrace.hLog = OpenForStarter(sGlobal.szLogFile);
    if (sPrivate.sTrace.hLog != -1) x_Identify(sPrivate.sTrace.hLog, &sPrivate.sTrace.sID);
    sGlobal.hLogFile = sPrivate.sTrace.hLog;
}

void i_close_trace()
{
    sGlobal.cpTraceBuffer = nullptr;
    if ((sGlobal.ucXBSATraceLevel & TRACE_TO_LOG) == 0 || sGlobal.szLogFile[0] == '\0') return;

    bool bOpen = sGlobal.hLogFile != 0 && sGlobal.hLogFile != -1;
    if (bOpen && sGlobal.hLogFile != sPrivate.sTrace.hLog) close(sGlobal.hLogFile);
    CloseOwnLog();
    sGlobal.hLogFile = -1;
}

// A host that unloads the library gets log and memory back.
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
