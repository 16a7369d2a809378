// Settings of the data connection. A wrong value refuses the session, because a port that the
// firewall blocks, or a line that the backup saturates by day, would be noticed too late.
#include <ctime>
#include <unistd.h>

#include "api/api.h"
#include "trace/trace.h"
#include "util/util.h"

// A KORVA_ variable with a number or a range.
typedef struct
{
    const char *cpName;
    int iLowest;
    int iHighest;
    int *ipValue;
    int *ipLast; // end of the range; null for a number
    const char *cpAllowed;
} NETWORK_VARIABLE;

// Accepts digits only, whereas strtol accepts spaces and signs. Returns the rest, or null.
static const char *TakeNumber(const NETWORK_VARIABLE *spVariable, const char *cpText, int *ipValue)
{
    char *cpEnd = nullptr;
    if (*cpText < '0' || *cpText > '9') return nullptr;
    const long lValue = x_ToLong(cpText, &cpEnd, 10);
    if (lValue < spVariable->iLowest || lValue > spVariable->iHighest) return nullptr;
    *ipValue = static_cast<int>(lValue);
    return cpEnd;
}

static bool TakeValue(const NETWORK_VARIABLE *spVariable, const char *cpValue)
{
    const char *cpRest = TakeNumber(spVariable, cpValue, spVariable->ipValue);
    if (spVariable->ipLast != nullptr && cpRest != nullptr)
    {
        if (*cpRest != '-') return false;
        cpRest = TakeNumber(spVariable, cpRest + 1, spVariable->ipLast);
        if (*spVariable->ipLast < *spVariable->ipValue) return false;
    }
    return cpRest != nullptr && *cpRest == '\0';
}

// An empty value means not set.
static int ReadVariable(const NETWORK_VARIABLE *spVariable)
{
    const char *cpValue = xbsa_getenv(spVariable->cpName);
    if (cpValue == nullptr || *cpValue == '\0') return 0;
    if (!TakeValue(spVariable, cpValue))
    {
        return i_Fail("BSAInit", 0, "%s = %.64s is not allowed: use %s.", spVariable->cpName,
                      cpValue, spVariable->cpAllowed);
    }
    TRACE("BSAInit: %s = %s.", spVariable->cpName, cpValue);
    return 0;
}

// A first port that differs between processes, so that parallel streams rarely want the same port.
static int AnyPort(const NETWORK *spNetwork)
{
    const unsigned int uScatter = 2654435761U;
    struct timespec sNow = {0, 0};
    clock_gettime(CLOCK_MONOTONIC, &sNow);
    unsigned int uMix = static_cast<unsigned int>(sNow.tv_nsec + getpid()) * uScatter;
    unsigned int uPorts =
        static_cast<unsigned int>(spNetwork->iLastPort - spNetwork->iFirstPort + 1);
    return spNetwork->iFirstPort + static_cast<int>((uMix >> 8) % uPorts);
}

int xbsa_ReadNetwork()
{
    NETWORK *spNetwork = &sPrivate.sNetwork;
    const NETWORK_VARIABLE asVariables[] = {
        {"KORVA_PORT_RANGE", 1024, 65535, &spNetwork->iFirstPort, &spNetwork->iLastPort,
         "FIRST-LAST, two ports from 1024 to 65535, such as 50000-50099"},
        {"KORVA_RATE_LIMIT", 1000, 2000000000, &spNetwork->iRate, nullptr,
         "bytes per second, from 1000 to 2000000000"},
        {"KORVA_SOCKET_BUFFER", 4096, 1073741823, &spNetwork->iBuffer, nullptr,
         "bytes, from 4096 to 1073741823"}};

    *spNetwork = {};
    for (const NETWORK_VARIABLE &sVariable : asVariables)
    {
        if (ReadVariable(&sVariable) == 0) continue;
        *spNetwork = {};
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
    if (spNetwork->iLastPort != 0) spNetwork->iNextPort = AnyPort(spNetwork);
    return BSA_RC_SUCCESS;
}
