// Makes the login identity: which account on which host logs in.
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "trace/trace.h"
#include "util/util.h"

enum
{
    IDENTITY_SIZE = 4096, // bytes of account, "@" and host
    HOST_SIZE = 128       // bytes of the host's name
};

static int AppendAccount(char *cpIdentity)
{
    setpwent();
    const struct passwd *spAccount = getpwuid(getuid());
    int iCut = spAccount != nullptr ? x_CopyText(cpIdentity, IDENTITY_SIZE, spAccount->pw_name) : 0;
    endpwent();

    if (spAccount == nullptr || iCut == 1)
    {
        TRACE("make_KORVA_authentication: No account name for user ID: %u",
              static_cast<unsigned int>(getuid()));
        return -1;
    }
    TRACE("make_KORVA_authentication: Currently logged USER: [%s] ...", cpIdentity);
    return 0;
}

static int TraceFailure(const char *cpCall, unsigned long ulError)
{
    TRACE("make_KORVA_authentication: %s() function failed with error code: %d", cpCall,
          static_cast<int>(ulError));
    return -1;
}

// The local address of the control connection. On a host with several addresses it is the one on
// the route to the server.
static int LocalAddress(int hSocket, struct sockaddr_in *spAddress)
{
    socklen_t uSize = sizeof *spAddress;
    TRACE("make_KORVA_authentication: Calling getsockname() for SOCKET: [%d] ...", hSocket);
    if (getsockname(hSocket, reinterpret_cast<struct sockaddr *>(spAddress), &uSize) == -1)
    {
        return TraceFailure("getsockname", GetSockErrCode());
    }
    const unsigned char *ucpByte = reinterpret_cast<unsigned char *>(&spAddress->sin_addr);
    TRACE("make_KORVA_authentication: Local ADDRESS: [%d.%d.%d.%d]", ucpByte[0], ucpByte[1],
          ucpByte[2], ucpByte[3]);
    TRACE("make_KORVA_authentication: Local PORT:    [%d]", spAddress->sin_port);
    return 0;
}

// A name that does not fit is refused, because half a host name is a wrong identity.
static int CopyHostName(char *cpHost, const char *cpName)
{
    if (x_CopyText(cpHost, HOST_SIZE, cpName) == 0) return 0;
    TRACE("make_KORVA_authentication: Host name too long.");
    return -1;
}

// Looks up the name of the address, then the official name of that name.
static int LocalHostName(const struct sockaddr_in *spAddress, char *cpHost)
{
    TRACE("make_KORVA_authentication: Calling gethostbyaddr() ...");
    const struct hostent *spHost =
        gethostbyaddr(&spAddress->sin_addr, sizeof spAddress->sin_addr, spAddress->sin_family);
    if (spHost == nullptr) return TraceFailure("gethostbyaddr", GetSockErrCode());
    TRACE("make_KORVA_authentication: gethostbyaddr() returned DNS NAME: [%s]", spHost->h_name);

    TRACE("make_KORVA_authentication: Calling gethostbyname() ...");
    if (CopyHostName(cpHost, spHost->h_name) == -1) return -1;
    spHost = gethostbyname(cpHost);
    if (spHost == nullptr) return TraceFailure("gethostbyname", GetSockErrCode());
    TRACE("make_KORVA_authentication: gethostbyname() returned  FQDNS NAME: [%s]", spHost->h_name);
    return CopyHostName(cpHost, spHost->h_name);
}

static int AppendHost(char *cpIdentity, const char *cpHost)
{
    size_t uAccount = strlen(cpIdentity);
    int iLength = snprintf(cpIdentity + uAccount, IDENTITY_SIZE - uAccount, "@%s", cpHost);
    return static_cast<size_t>(iLength) >= IDENTITY_SIZE - uAccount ? -1 : 0;
}

// Room for exactly the text is accepted; then the terminator is missing.
static int HandOver(const char *cpWhat, const char *cpText, char *cpRoom, unsigned int *uipRoom)
{
    size_t uLength = strlen(cpText);
    if (*uipRoom < uLength)
    {
        TRACE("make_KORVA_authentication: %s container to small.", cpWhat);
        return -1;
    }
    memcpy(cpRoom, cpText, *uipRoom > uLength ? uLength + 1 : uLength);
    *uipRoom = static_cast<unsigned int>(uLength);
    return 0;
}

static int MakePassword(int hSocket, char *cpIdentity)
{
    struct sockaddr_in sAddress = {};
    char szHost[HOST_SIZE] = "";
    int iRet = AppendAccount(cpIdentity);
    if (iRet == 0) iRet = LocalAddress(hSocket, &sAddress);
    if (iRet == 0) iRet = LocalHostName(&sAddress, szHost);
    if (iRet == 0) iRet = AppendHost(cpIdentity, szHost);
    return iRet;
}

int make_KORVA_authentication(int hSocket, char *cpUser, unsigned int *uipUserLen, char *cpPassword,
                              unsigned int *uipPasswordLen)
{
    if (HandOver("Username", "sms", cpUser, uipUserLen) == -1) return -1;

    char *cpIdentity = static_cast<char *>(x_Malloc(IDENTITY_SIZE));
    if (cpIdentity == nullptr) return -1;
    cpIdentity[0] = '\0';
    int iRet = MakePassword(hSocket, cpIdentity);
    if (iRet == 0) iRet = HandOver("Password", cpIdentity, cpPassword, uipPasswordLen);
    x_Free(cpIdentity);
    return iRet;
}
