// Tells a server that has vanished from one that is slow.
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "session/record.h"
#include "util/text.h"

enum
{
    SILENCE_LIMIT = 180000, // milliseconds without a single acknowledgement
    TRIES_LIMIT = 2         // unanswered repetitions or probes: one alone may have been lost
};

// A server that waits for a tape closes its window and answers the system's probes; one that
// vanished answers nothing. Keep-alive cannot tell while data are under way, and the system itself
// goes on for a quarter of an hour.
static bool IsSilent(int hSocket)
{
    struct tcp_info sInfo = {};
    socklen_t uSize = sizeof sInfo;
    if (getsockopt(hSocket, IPPROTO_TCP, TCP_INFO, &sInfo, &uSize) == -1) return false;
    int iTries =
        sInfo.tcpi_retransmits > sInfo.tcpi_probes ? sInfo.tcpi_retransmits : sInfo.tcpi_probes;
    return sInfo.tcpi_last_ack_recv >= SILENCE_LIMIT && iTries >= TRIES_LIMIT;
}

bool xbsa_IsServerLost()
{
    if (!IsSilent(xbsa_DataSocket())) return false;
    x_Reset(xbsa_DataSocket()); // a server that comes back finds no end, as of a whole object
    sPrivate.iServerLost = 1;
    return true;
}

void xbsa_NoteLoss(int iError)
{
    if (iError == ETIMEDOUT || iError == EHOSTUNREACH || iError == ENETUNREACH)
    {
        sPrivate.iServerLost = 1;
    }
}
