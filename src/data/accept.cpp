// Waits for the server's data connection.
//
//   control connection        listener                  the wait
//   nothing                   a connection              ends with the data socket
//   "4..." or "5..."          nothing                   ends: refused
//   another reply             nothing                   continues, the reply stays unread
//   closed                    nothing                   ends: ECONNRESET
//   anything                  a connection              the connection takes precedence
#include "data/data.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>

#include "trace/trace.h"

enum
{
    CONTROL_SILENT, // nothing decisive
    CONTROL_REFUSES,
    CONTROL_ENDED
};

static long long NowMilliseconds()
{
    const long lMillisecond = 1000000; // in nanoseconds
    struct timespec sNow = {0, 0};
    clock_gettime(CLOCK_MONOTONIC, &sNow);
    return sNow.tv_sec * 1000LL + sNow.tv_nsec / lMillisecond;
}

// Time left for poll; -1 for no limit.
static int RemainingTime(long long llStart)
{
    if (sGlobal.ulTimeOut == 0 || sGlobal.ulTimeOut > INT_MAX) return -1;
    long long llLeft =
        llStart + static_cast<long long>(sGlobal.ulTimeOut) * 1000 - NowMilliseconds();
    if (llLeft < 0) return 0;
    return llLeft > INT_MAX ? INT_MAX : static_cast<int>(llLeft);
}

// Strict mode checks where the connection comes from: otherwise anybody who reaches the port could
// feed a restore or take a backup. Returns 1 or 0, or -1 with errno if the system does not know.
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

// Returns the data socket, or -1 with errno; EAGAIN if none came yet, or a stranger was rejected.
static int TakeConnection(int hListener, int SControl, const char *cpFunction)
{
    struct sockaddr_in sPeer = {};
    socklen_t uSize = sizeof sPeer;
    struct sockaddr *spPeer = reinterpret_cast<struct sockaddr *>(&sPeer);
    int hData = x_AboveStandardError(accept4(hListener, spPeer, &uSize, SOCK_CLOEXEC));
    int iServer = hData != -1 ? IsServer(SControl, &sPeer) : 1;
    if (iServer == 1) return hData;

    int iError = iServer == 0 ? EAGAIN : errno;
    if (iServer == 0) TRACE("%s: Data connection from another address refused.", cpFunction);
    else x_ResetAtClose(hData);
    SOCKET_close(hData);
    errno = iError;
    return -1;
}

// Peeks at the first byte on the control connection.
static int PeekControl(int SControl, bool (*fpRefuses)(const char *szReply))
{
    char szFirst[2] = "";
    ssize_t iRet = recv(SControl, szFirst, 1, MSG_PEEK | MSG_DONTWAIT);
    if (iRet == 1) return fpRefuses(szFirst) ? CONTROL_REFUSES : CONTROL_SILENT;
    bool bNothing = iRet == -1 && (errno == EAGAIN || errno == EINTR);
    return bNothing ? CONTROL_SILENT : CONTROL_ENDED;
}

static int FailWait(int iError)
{
    errno = iError;
    return DATA_FAILED;
}

// What the control connection reveals while no data connection has come. Returns 0 to keep waiting.
//   spaPoll  listener and control connection
static int HearControl(struct pollfd *spaPoll, bool (*fpRefuses)(const char *szReply))
{
    bool bLeft = spaPoll[1].events == POLLRDHUP;
    int iControl = bLeft ? static_cast<int>(CONTROL_ENDED) : PeekControl(spaPoll[1].fd, fpRefuses);
    if (iControl == CONTROL_REFUSES) return DATA_REFUSED;
    if (iControl == CONTROL_ENDED)
    {
        bool bArrived = poll(spaPoll, 1, 0) == 1; // it connected before it closed
        return bArrived ? 0 : FailWait(ECONNRESET);
    }
    spaPoll[1].events = POLLRDHUP; // further replies stay unread, but it may still close
    return 0;
}

// One turn of the wait. Returns 0 to keep waiting, else the result of the wait.
static int AwaitTurn(struct pollfd *spaPoll, bool (*fpRefuses)(const char *szReply),
                     long long llStart)
{
    int iLeft = RemainingTime(llStart);
    int iReady = iLeft != 0 ? poll(spaPoll, 2, iLeft) : 0;
    if (iReady == -1 && errno != EINTR) return FailWait(errno);
    if (iReady == 0) return FailWait(ETIMEDOUT);
    if (iReady == -1 || spaPoll[0].revents != 0) return 0;
    return spaPoll[1].revents != 0 ? HearControl(spaPoll, fpRefuses) : 0;
}

int data_Accept(int hListener, int SControl, bool (*fpRefuses)(const char *szReply),
                const char *cpFunction)
{
    struct pollfd asPoll[] = {{hListener, POLLIN, 0}, {SControl, POLLIN, 0}};
    long long llStart = sGlobal.ulTimeOut != 0 ? NowMilliseconds() : 0;
    for (;;)
    {
        int hData = TakeConnection(hListener, SControl, cpFunction);
        if (hData != -1) return hData;
        if (errno != EAGAIN && errno != EINTR) return DATA_FAILED;

        int iEnd = AwaitTurn(asPoll, fpRefuses, llStart);
        if (iEnd != 0) return iEnd;
    }
}
