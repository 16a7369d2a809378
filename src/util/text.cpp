#include "util/text.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

// On 32 bits fcntl got a new version in GLIBC 2.28, for file locks; the old one does as well here and
// lets the library load on old systems.
#if defined(__i386__) && defined(__GLIBC__)
__asm__(".symver fcntl, fcntl@GLIBC_2.0");
#endif

int x_CopyText(char *cpTarget, size_t uSize, const char *cpText, size_t uMaxLength)
{
    size_t uLength = strnlen(cpText, uMaxLength);
    int iCut = uLength >= uSize;
    if (iCut) uLength = uSize - 1;
    memmove(cpTarget, cpText, uLength);
    cpTarget[uLength] = '\0';
    return iCut;
}

int x_CopyText(char *cpTarget, size_t uSize, const char *cpText)
{
    return x_CopyText(cpTarget, uSize, cpText, strlen(cpText));
}

int x_Number(const char *cpText)
{
    long lNumber = strtol(cpText, nullptr, 10);
    if (lNumber > INT_MAX) return INT_MAX;
    if (lNumber < INT_MIN) return INT_MIN;
    return static_cast<int>(lNumber);
}

int x_HasControl(const char *cpText)
{
    for (; *cpText != '\0'; cpText++)
    {
        unsigned char ucByte = static_cast<unsigned char>(*cpText);
        if (ucByte < ' ' || ucByte == 127) return 1;
    }
    return 0;
}

char *x_SkipSpaces(char *cpText)
{
    while (*cpText == ' ') cpText++;
    return cpText;
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
    (void)connect(hSocket, &sNone, sizeof sNone); // fails where nothing is connected any more
}

int x_HighDescriptor(int hDescriptor)
{
    if (hDescriptor == -1 || hDescriptor > STDERR_FILENO) return hDescriptor;

    int hHigh = fcntl(hDescriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int iError = errno;
    if (hHigh == -1) x_ResetAtClose(hDescriptor); // nothing was stored through it
    close(hDescriptor);
    errno = iError;
    return hHigh;
}
