#include "util/util.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// On 32 bits GLIBC 2.28 added a new version of fcntl for file locks. The old version suffices here
// and lets the library load on old systems.
#if defined(__i386__) && defined(__GLIBC__)
__asm__(".symver fcntl, fcntl@GLIBC_2.0");
#endif

// The C library has fstat as a function only since GLIBC 2.33; the system call works everywhere.
bool x_Identify(int hDescriptor, FILE_ID *spFile)
{
#ifdef SYS_fstat64
    struct stat64 sStat = {};
    long lRet = syscall(SYS_fstat64, hDescriptor, &sStat);
#else
    struct stat sStat = {};
    long lRet = syscall(SYS_fstat, hDescriptor, &sStat);
#endif
    spFile->ullDevice = sStat.st_dev;
    spFile->ullInode = sStat.st_ino;
    spFile->bRegular = S_ISREG(sStat.st_mode);
    spFile->bSocket = S_ISSOCK(sStat.st_mode);
    return lRet == 0;
}

bool x_IsSame(int hDescriptor, const FILE_ID *spFile)
{
    FILE_ID sNow;
    return x_Identify(hDescriptor, &sNow) && sNow.ullDevice == spFile->ullDevice &&
           sNow.ullInode == spFile->ullInode;
}

bool x_IsSocket(int hDescriptor)
{
    FILE_ID sFile;
    return x_Identify(hDescriptor, &sFile) && sFile.bSocket;
}

int x_AboveStandardError(int hDescriptor)
{
    if (hDescriptor == -1 || hDescriptor > STDERR_FILENO) return hDescriptor;

    int hHigh = x_Duplicate(hDescriptor);
    int iError = errno;
    if (hHigh == -1) x_ResetAtClose(hDescriptor); // it carried nothing
    close(hDescriptor);
    errno = iError;
    return hHigh;
}

int x_Duplicate(int hSocket)
{
    return fcntl(hSocket, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

void x_ResetAtClose(int hSocket)
{
    struct linger sReset = {1, 0};
    setsockopt(hSocket, SOL_SOCKET, SO_LINGER, &sReset, sizeof sReset);
}

void x_Reset(int hSocket)
{
    struct sockaddr sNone = {};
    sNone.sa_family = AF_UNSPEC;
    (void)connect(hSocket, &sNone, sizeof sNone); // fails if the connection has ended
}

bool x_AwaitBytes(int hSocket, int iSeconds)
{
    struct pollfd sPoll = {hSocket, POLLIN, 0};
    struct timespec sTime = {iSeconds, 0};
    sigset_t sAll;
    sigfillset(&sAll); // a signal for the host must not end the wait
    return ppoll(&sPoll, 1, &sTime, &sAll) != 0;
}

int x_SocketError(int hSocket)
{
    int iError = 0;
    socklen_t uSize = sizeof iError;
    if (getsockopt(hSocket, SOL_SOCKET, SO_ERROR, &iError, &uSize) == -1) iError = errno;
    return iError;
}
