// Lines on the control connection: one reply in, one command out.
#include <climits>
#include <csignal>
#include <cstring>
#include <sys/socket.h>

#include "stpc/stpc.h"
#include "trace/trace.h"

static int ReceiveBytes(int SControl, char *cpPiece, int iPiece, int iRecvOpt)
{
    TRACE_CALL("stpc_recv: Calling recv(SOCKET=%u, Buffer=%p, Length=%u, Flags=%u)",
               static_cast<unsigned int>(SControl), static_cast<void *>(cpPiece),
               static_cast<unsigned int>(iPiece), static_cast<unsigned int>(iRecvOpt));
    int iRet = static_cast<int>(recv(SControl, cpPiece, static_cast<size_t>(iPiece), iRecvOpt));
    TRACE_CALL("stpc_recv: recv() return: %u", static_cast<unsigned int>(iRet));
    if (iRet == -1) return i_Fail("stpc_recv", GetSockErrCode(), "recv() failed.");
    return iRet;
}

// The part of a line that has arrived.
typedef struct
{
    char *szMessage;
    int iMsgLen;
    int iIndex;
    char cCell; // the last byte received
} LINE;

// CR is stored as NUL. LF ends the line and is not stored. A byte that does not fit ends the line,
// too, and is lost. Returns true at the end of the line.
static bool TakeByte(LINE *spLine, char cByte)
{
    spLine->cCell = cByte;
    if (cByte == '\n') return true;
    if (cByte == '\r') spLine->cCell = '\0';
    if (spLine->iIndex >= spLine->iMsgLen) return true;
    spLine->szMessage[spLine->iIndex++] = spLine->cCell;
    return false;
}

// Peeks, then receives only up to the end of the line. Receives single bytes with other flags or
// when every call is traced.
//   bAhead  bytes after the line may come with it
static int ReceivePiece(int SControl, char *cpPiece, int iPiece, int iRecvOpt, bool bAhead)
{
    if (iPiece < 2 || (iRecvOpt & ~MSG_DONTWAIT) != 0 || i_Verbosity() == TRACE_CALLS)
    {
        return ReceiveBytes(SControl, cpPiece, 1, iRecvOpt);
    }
    if (bAhead) return ReceiveBytes(SControl, cpPiece, iPiece, iRecvOpt);
    int iReady = ReceiveBytes(SControl, cpPiece, iPiece, iRecvOpt | MSG_PEEK);
    if (iReady < 1) return iReady;
    const void *vpEnd = memchr(cpPiece, '\n', static_cast<size_t>(iReady));
    if (vpEnd != nullptr) iReady = static_cast<int>(static_cast<const char *>(vpEnd) - cpPiece) + 1;
    return ReceiveBytes(SControl, cpPiece, iReady, iRecvOpt);
}

// After the peer's close the last byte repeats until the buffer is full.
static void FillLine(LINE *spLine)
{
    int iRoom = spLine->iMsgLen - spLine->iIndex;
    if (iRoom > 0)
        memset(spLine->szMessage + spLine->iIndex, spLine->cCell, static_cast<size_t>(iRoom));
}

static int ReceiveToEnd(int SControl, LINE *spLine, int iRecvOpt, STPC_REST *spRest, bool bAhead)
{
    for (;;)
    {
        for (int iByte = spRest->iFrom; iByte < spRest->iTo; iByte++)
        {
            if (!TakeByte(spLine, spRest->acBytes[iByte])) continue;
            spRest->iFrom = iByte + 1;
            return 1;
        }
        const int iPieceMax = sizeof spRest->acBytes;
        int iRoom = spLine->iMsgLen - spLine->iIndex + 1;
        int iPiece = iRoom < iPieceMax ? iRoom : iPieceMax;
        int iRet = ReceivePiece(SControl, spRest->acBytes, iPiece, iRecvOpt, bAhead);
        if (iRet == 0) FillLine(spLine);
        if (iRet < 1) return iRet;
        spRest->iFrom = 0;
        spRest->iTo = iRet;
    }
}

static int ReceiveMasked(int SControl, char *szMessage, int iMsgLen, int iRecvOpt,
                         STPC_REST *spRest, bool bAhead)
{
    sigset_t sAll;
    sigset_t sOld;
    sigfillset(&sAll);
    sigprocmask(SIG_SETMASK, &sAll, &sOld);
    TRACE("stpc_recv: sigprocmask() done, all signals masked.");
    TRACE("stpc_recv: Receiving message ...");

    LINE sLine = {szMessage, iMsgLen, 0, '\0'};
    int iRet = ReceiveToEnd(SControl, &sLine, iRecvOpt, spRest, bAhead);

    sigprocmask(SIG_SETMASK, &sOld, nullptr);
    TRACE("stpc_recv: sigprocmask(), back to old handlers.");
    return iRet;
}

int stpc_recv(int SControl, char *szMessage, const int iMsgLen, int iRecvOpt)
{
    STPC_REST sRest;
    sRest.iFrom = 0;
    sRest.iTo = 0;
    return ReceiveMasked(SControl, szMessage, iMsgLen, iRecvOpt, &sRest, false);
}

int stpc_RecvAhead(int SControl, char *szMessage, int iMsgLen, int iRecvOpt, STPC_REST *spRest)
{
    return ReceiveMasked(SControl, szMessage, iMsgLen, iRecvOpt, spRest, true);
}

// Masks the PASS line here too, in all its pieces, except for the service user.
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
        TRACE_CALL("stpc_send: send() return: %i", iRet);
        if (iRet >= iRest) return iRet;

        TRACE_CALL("stpc_send: done send()...");
        if (iRet == -1) return i_Fail("stpc_send", GetSockErrCode(), "send() failed.");
        if (iRet == 0) return 0; // no progress; callers treat it as a failure
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
