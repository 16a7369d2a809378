// Socket options over the life of a data connection.
#include "data/data.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

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

// The hook of callers; the library sets its own options elsewhere.
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
