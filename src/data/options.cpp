// Socket options of a data connection.
#include "data/data.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include "trace/trace.h"

// Older headers lack these.
#ifndef SO_MAX_PACING_RATE
#define SO_MAX_PACING_RATE 47
#endif
#ifndef SO_BUF_LOCK
#define SO_BUF_LOCK 72
#endif

void data_SetKeepAlive(int hListener)
{
    static const struct
    {
        int iLevel;
        int iOption;
        int iValue;
    } asOptions[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                     {IPPROTO_TCP, TCP_KEEPIDLE, 60},
                     {IPPROTO_TCP, TCP_KEEPINTVL, 15},
                     {IPPROTO_TCP, TCP_KEEPCNT, 8}};
    for (const auto &sOption : asOptions)
    {
        setsockopt(hListener, sOption.iLevel, sOption.iOption, &sOption.iValue,
                   sizeof sOption.iValue);
    }
}

// Requests a buffer of the configured size. Returns whether the system granted it.
//   cpLimit  the system setting that limits it
static bool SetBuffer(int hListener, int iOption, const char *cpLimit)
{
    const int iAsked = sPrivate.sNetwork.iBuffer;
    int iGranted = 0;
    socklen_t uSize = sizeof iGranted;
    setsockopt(hListener, SOL_SOCKET, iOption, &iAsked, sizeof iAsked);
    getsockopt(hListener, SOL_SOCKET, iOption, &iGranted, &uSize);
    iGranted /= 2; // the system doubles the request for its own needs
    if (iGranted >= iAsked) return true;
    TRACE("stpc_port: KORVA_SOCKET_BUFFER = %d: %s allows only %d.", iAsked, cpLimit, iGranted);
    return false;
}

// A buffer of fixed size no longer grows. If it came out too small, it may be worse than none, so
// it is left to the system again (Linux 5.15).
void data_SetBuffers(int hListener)
{
    enum
    {
        LOCK_SEND = 1,
        LOCK_RECEIVE = 2
    };
    if (sPrivate.sNetwork.iBuffer == 0) return;
    const bool bSend = SetBuffer(hListener, SO_SNDBUF, "net.core.wmem_max");
    const bool bReceive = SetBuffer(hListener, SO_RCVBUF, "net.core.rmem_max");
    const int iLocks = (bSend ? LOCK_SEND : 0) | (bReceive ? LOCK_RECEIVE : 0);
    if (bSend && bReceive) return;
    setsockopt(hListener, SOL_SOCKET, SO_BUF_LOCK, &iLocks, sizeof iLocks);
}

void data_LimitRate(int hData)
{
    const int iRate = sPrivate.sNetwork.iRate;
    if (iRate == 0) return;
    if (setsockopt(hData, SOL_SOCKET, SO_MAX_PACING_RATE, &iRate, sizeof iRate) == 0) return;
    TRACE("stpc_stor: KORVA_RATE_LIMIT = %d: not limited, setsockopt() failed with error code: %d",
          iRate, errno);
}

void data_ShareRange(int hSocket, bool bShare)
{
    const int iShare = bShare ? 1 : 0;
    if (sPrivate.sNetwork.iLastPort == 0) return;
    setsockopt(hSocket, SOL_SOCKET, SO_REUSEADDR, &iShare, sizeof iShare);
}

// For callers; the library sets its own options elsewhere.
int xbsaDSopt(int, ENUM_DIRECTION)
{
    return 0;
}

bool data_EndOrderly(int hData)
{
    struct linger sOrderly = {0, 0};
    setsockopt(hData, SOL_SOCKET, SO_LINGER, &sOrderly, sizeof sOrderly);
    return shutdown(hData, SHUT_WR) == 0;
}
