// The bare system calls under the names that other layers use.
#include <sys/socket.h>
#include <unistd.h>

#include "xbsa_session.h"

int SOCKET_recv(int hSocket, char *cpBuffer, int iLen, int iFlags)
{
    return static_cast<int>(recv(hSocket, cpBuffer, static_cast<size_t>(iLen), iFlags));
}

int SOCKET_send(int hSocket, char *cpBuffer, int iLen, int iFlags)
{
    return static_cast<int>(send(hSocket, cpBuffer, static_cast<size_t>(iLen), iFlags));
}

int SOCKET_close(int hSocket)
{
    return close(hSocket);
}
