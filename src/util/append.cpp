// Files that lines are appended to. Nothing here harms the host: no signal, no file of its own.
#include "util/util.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/auxv.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// Always appends, so that two processes that create the file at the same moment do not overwrite
// each other. An existing file is tried first: O_CREAT on another's file in /tmp may be refused.
// O_NONBLOCK keeps a FIFO without a reader from stopping the host.
static int OpenAppending(const char *cpPath)
{
    const int iFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_LARGEFILE;
    int hFile = open(cpPath, iFlags);
    if (hFile == -1 && errno == ENOENT) hFile = open(cpPath, iFlags | O_CREAT, 0600);
    return x_AboveStandardError(hFile);
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
// starter could otherwise append to any file of the host's account. Only this thread's rights to
// files change, and only for the open.
static int OpenForStarter(const char *cpPath)
{
    if (getauxval(AT_SECURE) == 0) return OpenAppending(cpPath);

    unsigned int uCapabilities = UseCapabilities(0);
    uid_t uGroup = static_cast<uid_t>(setfsgid(getgid()));
    uid_t uUser = static_cast<uid_t>(setfsuid(getuid()));
    int hFile = OpenAppending(cpPath);
    int iError = errno;
    setfsuid(uUser);
    setfsgid(uGroup);
    UseCapabilities(uCapabilities);
    errno = iError;
    return hFile;
}

void x_OpenAppended(APPENDED *spFile, const char *cpPath, bool bForStarter)
{
    spFile->hFile = bForStarter ? OpenForStarter(cpPath) : OpenAppending(cpPath);
    if (spFile->hFile != -1) x_Identify(spFile->hFile, &spFile->sID);
}

bool x_IsOpen(const APPENDED *spFile)
{
    return spFile->hFile != -1 && x_IsSame(spFile->hFile, &spFile->sID);
}

void x_CloseAppended(APPENDED *spFile)
{
    if (x_IsOpen(spFile)) close(spFile->hFile);
    spFile->hFile = -1;
}

// The signal that came with a failed write, or 0.
static int RaisedBy(int iError)
{
    if (iError == EPIPE) return SIGPIPE;
    return iError == EFBIG ? SIGXFSZ : 0;
}

// A write to a pipe that nobody reads raises SIGPIPE, one beyond the host's limit of file sizes
// SIGXFSZ, and either would end the host. Both are held back during the write; the one that it
// raised is taken away again unless it was pending before.
ssize_t x_WriteHeld(int hTarget, const char *cpLine, size_t uLength)
{
    sigset_t sHeld;
    sigset_t sOld;
    sigset_t sPending;
    sigemptyset(&sHeld);
    sigaddset(&sHeld, SIGPIPE);
    sigaddset(&sHeld, SIGXFSZ);
    sigpending(&sPending);
    sigprocmask(SIG_BLOCK, &sHeld, &sOld);

    ssize_t iWritten = write(hTarget, cpLine, uLength);
    const int iError = errno;
    const int iRaised = iWritten == -1 ? RaisedBy(iError) : 0;
    if (iRaised != 0 && sigismember(&sPending, iRaised) == 0)
    {
        struct timespec sNoWait = {0, 0};
        sigemptyset(&sHeld);
        sigaddset(&sHeld, iRaised);
        sigtimedwait(&sHeld, nullptr, &sNoWait);
    }
    sigprocmask(SIG_SETMASK, &sOld, nullptr);
    errno = iError;
    return iWritten;
}

// Whether a write to it raises no signal. The host may lower its limit at any time.
static bool IsHarmless(const APPENDED *spFile)
{
    struct rlimit sSize = {};
    return spFile->sID.bRegular && getrlimit(RLIMIT_FSIZE, &sSize) == 0 &&
           sSize.rlim_cur == RLIM_INFINITY;
}

ssize_t x_Append(const APPENDED *spFile, const char *cpLine, size_t uLength)
{
    if (!IsHarmless(spFile)) return x_WriteHeld(spFile->hFile, cpLine, uLength);
    return write(spFile->hFile, cpLine, uLength);
}
