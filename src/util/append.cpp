// Appends lines to files without harming the host: raises no signal and writes to no other file.
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

// O_APPEND, so that two processes that create the file together do not overwrite each other. An
// existing file comes first, because O_CREAT on another account's file in /tmp may be refused.
// O_NONBLOCK, so that a FIFO without a reader does not stop the host.
static int OpenAppending(const char *cpPath)
{
    const int iFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_LARGEFILE;
    int hFile = open(cpPath, iFlags);
    if (hFile == -1 && errno == ENOENT) hFile = open(cpPath, iFlags | O_CREAT, 0600);
    return x_AboveStandardError(hFile);
}

// Sets the effective capabilities of this thread, because a program file may have some. Returns the
// previous ones.
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

// In a host with more rights than the user who started it (set-user-ID, set-group-ID, capabilities)
// that user could otherwise append to any file of the host's account. Only this thread's file
// rights change, and only for the open.
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

// The signal that a failed write raised, or 0.
static int RaisedBy(int iError)
{
    if (iError == EPIPE) return SIGPIPE;
    return iError == EFBIG ? SIGXFSZ : 0;
}

// Writing to a pipe without a reader raises SIGPIPE, writing beyond the limit of file sizes
// SIGXFSZ; either would end the host. Both are blocked during the write. A signal that the write
// raised is removed unless it was pending before.
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

// Whether a write raises no signal. The host may lower its limit at any time.
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
