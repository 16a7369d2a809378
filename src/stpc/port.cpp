// Creates the listener of a transfer and sends its address to the server.
#include "stpc/stpc.h"

#include <cerrno>
#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>

#include "data/data.h"
#include "trace/trace.h"
#include "util/util.h"

enum
{
    PORT_TAKEN = -2
};

static const char szFunction[] = "stpc_port";

static int FailPort(const char *cpText)
{
    return i_Fail(szFunction, GetSockErrCode(), "%s", cpText);
}

// Another socket has the port, but the next port may be free. A port chosen by the system is free.
static int FailTry(int iPort, const char *cpText)
{
    if (iPort == 0 || errno != EADDRINUSE) return FailPort(cpText);
    TRACE("stpc_port: Port %d is in use.", iPort);
    return PORT_TAKEN;
}

// Listens on the control connection's own local address.
//   iPort     0 to let the system choose
//   spLocal   receives the local address of the control connection
//   spListen  receives the listener's address
static int ListenBeside(int SControl, int hListener, int iPort, struct sockaddr_in *spLocal,
                        struct sockaddr_in *spListen)
{
    socklen_t uSize = sizeof *spLocal;
    TRACE("stpc_port: Calling getsockname()");
    if (getsockname(SControl, reinterpret_cast<struct sockaddr *>(spLocal), &uSize) == -1)
    {
        return FailPort("getsockname() failed.");
    }
    TRACE("stpc_port: Calling bind()");
    data_ShareRange(hListener, true);
    spLocal->sin_port = htons(static_cast<uint16_t>(iPort));
    if (bind(hListener, reinterpret_cast<struct sockaddr *>(spLocal), sizeof *spLocal) == -1)
    {
        return FailTry(iPort, "bind() failed.");
    }
    TRACE("stpc_port: Calling getsockname() for listener");
    uSize = sizeof *spListen;
    if (getsockname(hListener, reinterpret_cast<struct sockaddr *>(spListen), &uSize) == -1)
    {
        return FailPort("getsockname() failed.");
    }
    data_SetKeepAlive(hListener);
    data_SetBuffers(hListener);
    TRACE("stpc_port: Calling listen()");
    if (listen(hListener, 1) == -1) return FailTry(iPort, "listen() failed.");
    data_ShareRange(hListener, false);
    return 0;
}

static int AnnounceListener(int SControl, const struct sockaddr_in *spLocal,
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
        return i_Fail(szFunction, GetSockErrCode(), "Fail to send port command: %s, send() failed.",
                      szLine);
    }
    char szReply[XBSA_REPLY_SIZE + 1];
    if (stpc_ReadAnswer(SControl, szFunction, szReply) == -1) return -1;
    if (stpc_IsReply(szReply, REPLY_DONE)) return 0;
    return i_Fail(szFunction, 0, "NEGATIVE reply: %s", i_MaskReply(szReply));
}

// One try for a listener. Returns the listener, -1 or PORT_TAKEN.
static int OpenListener(int SControl, int iOptions, int iPort)
{
    TRACE("stpc_port: Calling socket()");
    int hListener = x_AboveStandardError(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | iOptions, 0));
    if (hListener == -1) return FailPort("Listener socket creation failed.");

    struct sockaddr_in sLocal = {};
    struct sockaddr_in sListen = {};
    int iRet = ListenBeside(SControl, hListener, iPort, &sLocal, &sListen);
    if (iRet == 0) iRet = AnnounceListener(SControl, &sLocal, &sListen);
    if (iRet == 0) return hListener;

    SOCKET_close(hListener);
    return iRet;
}

// Tries every port once, beginning after the last one used, so that firewalls and servers have the
// most time to forget a port. Without a range it tries only port 0.
static int OpenInRange(int SControl, int iOptions)
{
    NETWORK *spNetwork = &sPrivate.sNetwork;
    int hListener = PORT_TAKEN;
    for (int iPort = spNetwork->iFirstPort; iPort <= spNetwork->iLastPort; iPort++)
    {
        hListener = OpenListener(SControl, iOptions, spNetwork->iNextPort);
        bool bLast = spNetwork->iNextPort == spNetwork->iLastPort;
        spNetwork->iNextPort = bLast ? spNetwork->iFirstPort : spNetwork->iNextPort + 1;
        if (hListener != PORT_TAKEN) return hListener;
    }
    return i_Fail(szFunction, 0, "No free port in KORVA_PORT_RANGE = %d-%d.", spNetwork->iFirstPort,
                  spNetwork->iLastPort);
}

int stpc_Port(int SControl, int iOptions)
{
    TRACE("stpc_port: Start");
    int hListener = OpenInRange(SControl, iOptions);
    TRACE("stpc_port: End");
    return hListener;
}

int stpc_port(int SControl)
{
    return stpc_Port(SControl, 0);
}
