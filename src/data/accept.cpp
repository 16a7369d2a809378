// The wait for the server's data connection.
#include "stpc/stpc.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "record/record.h"
#include "trace/trace.h"
#include "util/descriptor.h"

enum
{
    WAIT_ON, // nothing decisive yet
    WAIT_REFUSED
};

static const long lMillisecond = 1000000; // in nanoseconds

static long long NowMilliseconds()
{
    struct timespec sNow = {0, 0};
    clock_gettime(CLOCK_MONOTONIC, &sNow);
    return sNow.tv_sec * 1000LL + sNow.tv_nsec / lMillisecond;
}

// Time left for poll: -1 without a limit.
static int RemainingTime(long long llStart)
{
    if (sGlobal.ulTimeOut == 0 || sGlobal.ulTimeOut > INT_MAX) return -1;
    long long llLeft =
        llStart + static_cast<long long>(sGlobal.ulTimeOut) * 1000 - NowMilliseconds();
    if (llLeft < 0) return 0;
    return llLeft > INT_MAX ? INT_MAX : static_cast<int>(llLeft);
}

// Only strict mode asks where the connection comes from: anybody who can reach the port could
// otherwise feed a restore or take a backup. Returns 1 or 0, or -1 with errno when the system cannot
// tell.
static int IsServer(int SControl, const struct sockaddr_in *spPeer)
{
    if (!sPrivate.bStrict) return 1;
    struct sockaddr_in sServer = {};
    socklen_t uSize = sizeof sServer;
    if (getpeername(SControl, reinterpret_cast<struct sockaddr *>(&sServer), &uSize) == -1)
    {
        return -1;
    }
    return sServer.sin_addr.s_addr == spPeer->sin_addr.s_addr ? 1 : 0;
}

// Returns the data socket, or -1 with errno; EAGAIN after a connection that was turned away.
static int TakeConnection(int hListener, int SControl, const STPC_TRANSFER *spTransfer)
{
    struct sockaddr_in sPeer = {};
    socklen_t uSize = sizeof sPeer;
    struct sockaddr *spPeer = reinterpret_cast<struct sockaddr *>(&sPeer);
    int hData = x_HighDescriptor(accept4(hListener, spPeer, &uSize, SOCK_CLOEXEC));
    int iServer = hData != -1 ? IsServer(SControl, &sPeer) : 1;
    if (iServer == 1) return hData;

    int iError = iServer == 0 ? EAGAIN : errno;
    if (iServer == 0)
        TRACE("%s: Data connection from another address refused.", spTransfer->cpFunction);
    else x_ResetAtClose(hData);
    SOCKET_close(hData);
    errno = iError;
    return -1;
}

// Looks at the first byte on the control connection without taking it.
// Returns WAIT_REFUSED for a negative reply, WAIT_ON for another one, -1 for the end.
static int PeekControl(int SControl)
{
    char cFirst = '\0';
    ssize_t iRet = recv(SControl, &cFirst, 1, MSG_PEEK | MSG_DONTWAIT);
    if (iRet == 1) return cFirst == '4' || cFirst == '5' ? WAIT_REFUSED : WAIT_ON;
    return iRet == -1 && (errno == EAGAIN || errno == EINTR) ? WAIT_ON : -1;
}

static void ReportRefusal(int SControl, const STPC_TRANSFER *spTransfer)
{
    char szReply[XBSA_REPLY_SIZE + 1];
    if (stpc_ReadReply(SControl, spTransfer->cpFunction, szReply) == -1) return;
    stpc_ReportNegative(spTransfer, szReply);
}

static int FailAccept(const STPC_TRANSFER *spTransfer, int iError)
{
    i_Report(spTransfer->cpFunction,
             SysErrorTxt(static_cast<unsigned long>(iError), 3, "accept() failed."));
    return -1;
}

// A connection on the listener goes first; a negative reply or the end of the control connection
// ends the wait, since no connection will come. Other replies stay unread.
int stpc_Accept(int hListener, int SControl, const STPC_TRANSFER *spTransfer)
{
    struct pollfd asPoll[] = {{hListener, POLLIN, 0}, {SControl, POLLIN, 0}};
    long long llStart = sGlobal.ulTimeOut != 0 ? NowMilliseconds() : 0;
    int hArrived = TakeConnection(hListener, SControl, spTransfer);
    if (hArrived != -1) return hArrived;
    if (errno != EAGAIN && errno != EINTR) return FailAccept(spTransfer, errno);
    for (;;)
    {
        int iReady = poll(asPoll, 2, RemainingTime(llStart));
        if (iReady == -1 && errno != EINTR) return FailAccept(spTransfer, errno);
        if (iReady == 0) return FailAccept(spTransfer, ETIMEDOUT);
        if (iReady == -1) continue;

        if (asPoll[0].revents != 0)
        {
            int hData = TakeConnection(hListener, SControl, spTransfer);
            if (hData != -1) return hData;
            if (errno != EAGAIN && errno != EINTR) return FailAccept(spTransfer, errno);
            if (RemainingTime(llStart) == 0) return FailAccept(spTransfer, ETIMEDOUT);
        }
        if (asPoll[1].revents == 0) continue;

        int iControl = asPoll[1].events == POLLRDHUP ? -1 : PeekControl(SControl);
        if (iControl == -1)
        {
            if (poll(asPoll, 1, 0) == 1) continue; // it had connected before it went
            return FailAccept(spTransfer, ECONNRESET);
        }
        if (iControl == WAIT_REFUSED)
        {
            ReportRefusal(SControl, spTransfer);
            return -1;
        }
        asPoll[1].events = POLLRDHUP; // more of it stays unread, but it may still go away
    }
}
