// The three transfer commands, from PORT to the accepted data connection.
//
//   PORT 10,1,2,3,4,1    ->   200             the address of the listener
//   STOR name            ->   150             (or RETR, LIST)
//                        <-   the server connects to the listener, before or after its 150
#include "stpc/stpc.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "data/data.h"
#include "record/record.h"
#include "trace/trace.h"

// One of the commands.
typedef struct
{
    const char *cpVerb;     // as sent
    const char *cpFunction; // as traced
} STPC_TRANSFER;

static const STPC_TRANSFER sStore = {"STOR", "stpc_stor"};
static const STPC_TRANSFER sRetrieve = {"RETR", "stpc_retr"};
static const STPC_TRANSFER sList = {"LIST", "stpc_list"};

int stpc_SendOnce(int SControl, const char *cpLine)
{
    size_t uLength = strlen(cpLine);
    ssize_t iSent = send(SControl, cpLine, uLength, MSG_NOSIGNAL);
    return iSent == static_cast<ssize_t>(uLength) ? 0 : -1;
}

static int FailTransfer(const STPC_TRANSFER *spTransfer, const char *cpText)
{
    return i_Fail(spTransfer->cpFunction, GetSockErrCode(), "%s", cpText);
}

static int RefuseTransfer(const STPC_TRANSFER *spTransfer, const char *szReply)
{
    return i_Fail(spTransfer->cpFunction, 0, "%s failed. NEGATIVE reply: %s", spTransfer->cpVerb,
                  i_MaskReply(szReply));
}

// The server may hold back its closing reply until our acknowledgement of the 150 arrives, which
// the system delays by 40 ms. Sending it at once keeps small objects fast.
static void AcknowledgeNow(int SControl)
{
    int iOn = 1;
    setsockopt(SControl, IPPROTO_TCP, TCP_QUICKACK, &iOn, sizeof iOn);
}

static int SendTransfer(const STPC_TRANSFER *spTransfer, const char *cpName, int SControl)
{
    char szLine[XBSA_REPLY_SIZE];
    int iLength = snprintf(szLine, sizeof szLine, "%s %s\r\n", spTransfer->cpVerb, cpName);
    if (static_cast<size_t>(iLength) >= sizeof szLine)
    {
        return i_Fail(spTransfer->cpFunction, 0, "Command too long: %s", spTransfer->cpVerb);
    }
    TRACE("%s: Send message: %s", spTransfer->cpFunction, szLine);
    if (stpc_SendOnce(SControl, szLine) == -1) return FailTransfer(spTransfer, "send() failed.");
    return 0;
}

static int ReadOpening(const STPC_TRANSFER *spTransfer, int SControl)
{
    char szReply[XBSA_REPLY_SIZE + 1];
    if (stpc_ReadAnswer(SControl, spTransfer->cpFunction, szReply) == -1) return -1;
    if (!stpc_IsReply(szReply, REPLY_OPENING)) return RefuseTransfer(spTransfer, szReply);

    sPrivate.bMoreLines = szReply[REPLY_CODE] == '-';
    AcknowledgeNow(SControl);
    if (spTransfer == &sStore) sms_parseinfo(szReply);
    return 0;
}

static int AcceptData(const STPC_TRANSFER *spTransfer, int SControl, int hListener)
{
    int hData = data_Accept(hListener, SControl, stpc_IsNegative, spTransfer->cpFunction);
    if (hData == DATA_FAILED) return FailTransfer(spTransfer, "accept() failed.");
    if (hData != DATA_REFUSED) return hData;

    char szReply[XBSA_REPLY_SIZE + 1];
    if (stpc_ReadAnswer(SControl, spTransfer->cpFunction, szReply) == -1) return -1;
    return RefuseTransfer(spTransfer, szReply);
}

static int OpenData(const STPC_TRANSFER *spTransfer, const char *cpName, int SControl,
                    int hListener)
{
    int hData = -1;
    int iRet = SendTransfer(spTransfer, cpName, SControl);
    if (iRet == 0) iRet = ReadOpening(spTransfer, SControl);
    if (iRet == 0) hData = AcceptData(spTransfer, SControl, hListener);
    if (hData != -1 && spTransfer == &sStore) data_LimitRate(hData);
    if (SOCKET_close(hListener) == -1 && hData != -1)
    {
        FailTransfer(spTransfer, "Listening socket close failed.");
    }
    return hData;
}

// Makes one socket that is never used, so that a host at its limit of descriptors fails here,
// before it asks the server for anything.
static int RunTransfer(const STPC_TRANSFER *spTransfer, const char *cpName, int SControl)
{
    int hListener = stpc_Port(SControl, SOCK_NONBLOCK);
    if (hListener == -1) return FailTransfer(spTransfer, "Port negotiation failed.");

    int hSpare = x_AboveStandardError(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (hSpare == -1)
    {
        FailTransfer(spTransfer, "Data socket creation error. sock() failed.");
        SOCKET_close(hListener);
        return -1;
    }
    int hData = OpenData(spTransfer, cpName, SControl, hListener);
    SOCKET_close(hSpare);
    return hData;
}

int stpc_stor(char *cpRemoteTarget, int SControl)
{
    return RunTransfer(&sStore, cpRemoteTarget, SControl);
}

int stpc_retr(char *cpRemoteSource, int SControl)
{
    return RunTransfer(&sRetrieve, cpRemoteSource, SControl);
}

int stpc_list(char *cpRemoteSource, int SControl)
{
    return RunTransfer(&sList, cpRemoteSource, SControl);
}

int STPC_stor(char *cpRemoteTarget, int SControl)
{
    return stpc_stor(cpRemoteTarget, SControl);
}

int STPC_retr(char *cpRemoteSource, int SControl)
{
    return stpc_retr(cpRemoteSource, SControl);
}

int STPC_list(char *cpRemoteSource, int SControl)
{
    return stpc_list(cpRemoteSource, SControl);
}

// "TAPE 17" and "SEGMENT 3", separated by blanks or colons, anywhere in the reply.
void sms_parseinfo(char *szMessage)
{
    static const char szDelimiters[] = " :";
    char szWork[4096];
    char *cpNext = nullptr;
    _sSMS *spSMS = &sGlobal.sObject.sSMS;

    TRACE("sms_parseinfo: Start - Input: %s", i_MaskReply(szMessage));
    spSMS->ulTapeID = 0;
    spSMS->ulSegmentNum = 0;
    x_CopyText(szWork, sizeof szWork, szMessage);
    char *cpToken = strtok_r(szWork, szDelimiters, &cpNext);
    while (cpToken != nullptr)
    {
        unsigned long *ulpField = nullptr;
        if (strncmp(cpToken, "TAPE", 4) == 0) ulpField = &spSMS->ulTapeID;
        if (strncmp(cpToken, "SEGMENT", 7) == 0) ulpField = &spSMS->ulSegmentNum;
        cpToken = strtok_r(nullptr, szDelimiters, &cpNext);
        if (ulpField == nullptr || cpToken == nullptr) continue;
        *ulpField = x_ToULong(cpToken, nullptr, 10);
        cpToken = strtok_r(nullptr, szDelimiters, &cpNext);
    }
    TRACE("sms_parseinfo: End");
}
