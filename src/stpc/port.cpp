// The listener of a transfer and its announcement to the server.
#include "stpc/stpc.h"

#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "trace/trace.h"
#include "util/descriptor.h"

static const char szFunction[] = "stpc_port";

// On an idle connection a server that vanished is noticed after 60 + 8 * 15 seconds of silence; a
// slow one answers the probes and never is. The accepted connection inherits this from the listener.
static void SetKeepAlive(int hListener)
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

static int Fail(const char *cpText)
{
    i_Report(szFunction, SysErrorTxt(GetSockErrCode(), 3, "%s", cpText));
    return -1;
}

// Listens on the control connection's own local address, on a port of the system's choice.
//   spLocal   receives the local address of the control connection
//   spListen  receives the listener's address
static int Listen(int SControl, int hListener, struct sockaddr_in *spLocal,
                  struct sockaddr_in *spListen)
{
    socklen_t uSize = sizeof *spLocal;
    TRACE("stpc_port: Calling getsockname()");
    if (getsockname(SControl, reinterpret_cast<struct sockaddr *>(spLocal), &uSize) == -1)
    {
        return Fail("getsockname() failed.");
    }
    TRACE("stpc_port: Calling bind()");
    spLocal->sin_port = 0;
    if (bind(hListener, reinterpret_cast<struct sockaddr *>(spLocal), sizeof *spLocal) == -1)
    {
        return Fail("bind() failed.");
    }
    TRACE("stpc_port: Calling getsockname() for listener");
    uSize = sizeof *spListen;
    if (getsockname(hListener, reinterpret_cast<struct sockaddr *>(spListen), &uSize) == -1)
    {
        return Fail("getsockname() failed.");
    }
    SetKeepAlive(hListener);
    TRACE("stpc_port: Calling listen()");
    if (listen(hListener, 1) == -1) return Fail("listen() failed.");
    return 0;
}

static int Announce(int SControl, const struct sockaddr_in *spLocal,
                    const struct sockaddr_in *spListen)
{
    const unsigned char *ucpHost = reinterpret_cast<const unsigned char *>(&spLocal->sin_addr);
    const unsigned char *ucpPort = reinterpret_cast<const unsigned char *>(&spListen->sin_port);
    char szLine[64];
    snprintf(szLine, sizeof szLine, "PORT %d,%d,%d,%d,%d,%d\r\n", ucpHost[0], ucpHost[1],
             ucpHost[2], ucpHost[3], ucpPort[0], ucpPort[1]);

    TRACE("stpc_port: Send message: %s", szLine);
    if (stpc_SendOnce(SControl, szLine) == -1)
    {
        i_Report(szFunction, SysErrorTxt(GetSockErrCode(), 3,
                                         "Fail to send port command: %s, send() failed.", szLine));
        return -1;
    }
    char szReply[XBSA_REPLY_SIZE + 1];
    if (stpc_ReadReply(SControl, szFunction, szReply) == -1) return -1;
    if (strncmp(szReply, "200", 3) == 0) return 0;

    i_Report(szFunction, SysErrorTxt(0, 0, "NEGATIVE reply: %s", i_MaskReply(szReply)));
    return -1;
}

static int OpenListener(int SControl, int iOptions)
{
    TRACE("stpc_port: Calling socket()");
    int hListener = x_HighDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | iOptions, 0));
    if (hListener == -1) return Fail("Listener socket creation failed.");

    struct sockaddr_in sLocal = {};
    struct sockaddr_in sListen = {};
    int iRet = Listen(SControl, hListener, &sLocal, &sListen);
    if (iRet == 0) iRet = Announce(SControl, &sLocal, &sListen);
    if (iRet == 0) return hListener;

    SOCKET_close(hListener);
    return -1;
}

int stpc_Port(int SControl, int iOptions)
{
    TRACE("stpc_port: Start");
    int hListener = OpenListener(SControl, iOptions);
    TRACE("stpc_port: End");
    return hListener;
}

int stpc_port(int SControl)
{
    return stpc_Port(SControl, 0);
}
