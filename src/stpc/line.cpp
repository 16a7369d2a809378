// Lines on the control connection: one reply in, one command out.
#include <climits>
#include <csignal>
#include <cstring>
#include <sys/socket.h>

#include "trace/trace.h"

static int ReceiveByte(int SControl, char *cpCell, int iRecvOpt)
{
    TRACE_CALL("stpc_recv: Calling recv(SOCKET=%u, Buffer=%p, Length=%u, Flags=%u)",
               static_cast<unsigned int>(SControl), static_cast<void *>(cpCell), 1U,
               static_cast<unsigned int>(iRecvOpt));
    int iRet = static_cast<int>(recv(SControl, cpCell, 1, iRecvOpt));
    if (iRet == -1)
    {
        const char *cpText = SysErrorTxt(GetSockErrCode(), 3, "recv() failed.");
        TRACE_CALL("stpc_recv: recv() return: %u", static_cast<unsigned int>(iRet));
        i_Report("stpc_recv", cpText);
        return -1;
    }
    TRACE_CALL("stpc_recv: recv() return: %u", static_cast<unsigned int>(iRet));
    return iRet;
}

// Single bytes, so that nothing of the next line is consumed. CR is stored as NUL, LF ends the line
// unstored; a byte that finds the buffer full ends it too and is lost. After the peer's close each
// further byte would be the last one again, until the buffer is full.
static int ReceiveLine(int SControl, char *szMessage, int iMsgLen, int iRecvOpt)
{
    char cCell = '\0';
    int iIndex = 0;
    for (;;)
    {
        int iRet = ReceiveByte(SControl, &cCell, iRecvOpt);
        if (iRet == -1) return iRet;
        if (iRet == 0)
        {
            if (iIndex < iMsgLen)
                memset(szMessage + iIndex, cCell, static_cast<size_t>(iMsgLen - iIndex));
            return iRet;
        }
        if (cCell == '\n') return iRet;
        if (cCell == '\r') cCell = '\0';
        if (iIndex >= iMsgLen) return iRet;
        szMessage[iIndex++] = cCell;
    }
}

int stpc_recv(int SControl, char *szMessage, const int iMsgLen, int iRecvOpt)
{
    sigset_t sAll;
    sigset_t sOld;
    sigfillset(&sAll);
    sigprocmask(SIG_SETMASK, &sAll, &sOld);
    TRACE("stpc_recv: sigprocmask() done, all signals masked.");
    TRACE("stpc_recv: Receiving message ...");

    int iRet = ReceiveLine(SControl, szMessage, iMsgLen, iRecvOpt);

    sigprocmask(SIG_SETMASK, &sOld, nullptr);
    TRACE("stpc_recv: sigprocmask(), back to old handlers.");
    return iRet;
}

// The PASS line is hidden here too, in all its pieces, except that of the service user.
static bool IsSecret(const char *cpMessage, int iLength)
{
    return iLength >= 5 && strncasecmp(cpMessage, "PASS ", 5) == 0 &&
           strcmp(sGlobal.sObject.sSMS.szUser, "sms") != 0;
}

static void TraceSend(int SControl, const char *cpRest, int iRest, bool bSecret, int iSendOpt)
{
    static const char szHidden[] = "PASS " TRACE_SECRET;
    i_TraceLine("stpc_send: Calling send(SOCKET=%u, Buffer=%.*s, Len=%u, Flags=%u)",
                static_cast<unsigned int>(SControl), bSecret ? INT_MAX : iRest,
                bSecret ? szHidden : cpRest, 1U, static_cast<unsigned int>(iSendOpt));
}

int stpc_send(int SControl, char *szMessage, const int iMsgLen, int iSendOpt)
{
    const bool bTrace = i_Verbosity() == TRACE_CALLS;
    const bool bSecret = bTrace && IsSecret(szMessage, iMsgLen);
    int iRest = iMsgLen;
    for (;;)
    {
        if (bTrace) TraceSend(SControl, szMessage, iRest, bSecret, iSendOpt);
        int iFlags = iSendOpt | MSG_NOSIGNAL;
        int iRet = static_cast<int>(send(SControl, szMessage, static_cast<size_t>(iRest), iFlags));
        unsigned long ulError = GetSockErrCode();
        TRACE_CALL("stpc_send: send() return: %i", iRet);
        if (iRet >= iRest) return iRet;

        TRACE_CALL("stpc_send: done send()...");
        if (iRet == -1)
        {
            i_Report("stpc_send", SysErrorTxt(ulError, 3, "send() failed."));
            return -1;
        }
        if (iRet == 0) return 0; // no progress: a caller takes it for the failure that it is
        szMessage += iRet;
        iRest -= iRet;
    }
}

int STPC_receive(int SControl, char *szMessage, const int iMsgLen, int iRecvOpt)
{
    return stpc_recv(SControl, szMessage, iMsgLen, iRecvOpt);
}

int STPC_send(int SControl, char *szMessage, const int iMsgLen, int iSendOpt)
{
    return stpc_send(SControl, szMessage, iMsgLen, iSendOpt);
}
