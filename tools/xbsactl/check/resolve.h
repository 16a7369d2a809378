// Names and addresses, within a time: a resolver may wait for minutes.
#ifndef XBSACTL_CHECK_RESOLVE_H
#define XBSACTL_CHECK_RESOLVE_H

#include <netinet/in.h>

#include <chrono>
#include <string>

struct RESOLVED
{
    in_addr sAddress{};     // the first, as the library takes it
    size_t uAddresses = 0;  // of the name
    std::string strReverse; // name of the address; empty for none
};

// Throws FAILURE.
RESOLVED resolve_Host(const std::string &I_strHost, std::chrono::milliseconds I_sBound);

#endif
