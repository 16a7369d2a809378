// The end of an object.
//
//   data connection   orderly end of a store (a reset if it is not whole), or just a close
//   control           <- 226            read only after a good close of the data connection
//                     -> QUIT           always, even after a rejected call
//                     <- 221, then close
//   COM utility       closejob, close   in Informix mode, with the status so far
#include <cerrno>
#include <cstring>

#include "data/data.h"
#include "journal/journal.h"
#include "record/record.h"
#include "session/session.h"
#include "trace/trace.h"

enum
{
    PATIENCE = 1 // seconds for a reply that may never come
};

// Gives a server that may be gone a last chance to answer. Returns the flags for the receive.
static int AwaitShortly()
{
    return x_AwaitBytes(xbsa_ControlSocket(), PATIENCE) ? 0 : static_cast<int>(MSG_DONTWAIT);
}

// Reads one line from the server. Bytes that arrive with it may wait for the next call, because
// nothing else reads the connection after the object's end.
//   iFlags  MSG_DONTWAIT takes only what has arrived
static int ReceiveLine(char *szReply, int iFlags, STPC_REST *spRest)
{
    memset(szReply, 0, XBSA_REPLY_SIZE + 1);
    int iRet = stpc_RecvAhead(xbsa_ControlSocket(), szReply, XBSA_REPLY_SIZE, iFlags, spRest);
    if (iRet > 0) TRACE_REPLY("LOGIN REPLY: %s", i_MaskReply(szReply));
    return iRet;
}

// Only the first line of a multi-line opening reply was read. Strict mode skips the others: the
// closing reply comes after the last of them, or instead of it.
static int ReceiveClosing(char *szReply, STPC_REST *spRest)
{
    char szOpenCode[REPLY_CODE + 1] = "";
    if (sPrivate.bStrict && sPrivate.bMoreLines)
        x_CopyText(szOpenCode, sizeof szOpenCode, REPLY_OPENING);
    for (;;)
    {
        bool bOpening = szOpenCode[0] != '\0';
        int iRet = ReceiveLine(szReply, sPrivate.bServerLost ? AwaitShortly() : 0, spRest);
        bool bClosing = stpc_IsReply(szReply, REPLY_COMPLETE) || stpc_IsNegative(szReply);
        if (iRet < 1 || bClosing || !bOpening) return iRet;
        TRACE("BSAEndData: Received message: %s", i_MaskReply(szReply));
        stpc_EndsReply(szReply, szOpenCode);
    }
}

static int ReadClosing(STPC_REST *spRest)
{
    char szReply[XBSA_REPLY_SIZE + 1];
    int iReceived = ReceiveClosing(szReply, spRest);
    const bool bComplete = stpc_IsReply(szReply, REPLY_COMPLETE);
    const char *cpShown = i_MaskReply(szReply);
    if (iReceived < 1)
    {
        i_KeepMessage(0, "Server closed the control connection before its closing reply.");
    }
    else if (stpc_IsNegative(szReply))
    {
        i_Fail("BSAEndData", 0, "TRANSIENT or PERMANENT NEGATIVE reply: %s ", cpShown);
    }
    TRACE("BSAEndData: Received message: %s", cpShown);
    if (!bComplete)
    {
        i_KeepMessage(0, "Unexpected closing reply: %s", cpShown);
        TRACE("BSAEndData: Unexpected FTP code for last message");
    }
    return iReceived > 0 && bComplete ? BSA_RC_SUCCESS : BSA_RC_ABORT_SYSTEM_ERROR;
}

static int CloseData(bool bSocket, STPC_REST *spRest)
{
    int iRet = xbsa_CloseConnection(&sPrivate.sData, bSocket);
    if (iRet == 0) return ReadClosing(spRest);
    i_KeepMessage(GetSockErrCode(), "close() of the data connection failed.");
    return iRet;
}

// Some servers confirm half an object, so their reply counts only if the data connection ended
// well.
//   hKept  the data connection, kept open until the reply
static int CheckConfirmed(bool bEnded, int hKept)
{
    if (bEnded && hKept != -1 && x_SocketError(hKept) == 0) return BSA_RC_SUCCESS;
    i_KeepMessage(0, "The server confirmed the object, but the data connection was reset.");
    return BSA_RC_ABORT_SYSTEM_ERROR;
}

static int CloseWhole(STPC_REST *spRest)
{
    int hData = xbsa_DataSocket();
    bool bEnded = data_EndOrderly(hData);
    bool bSocket = bEnded || errno != ENOTSOCK;
    int hKept = sPrivate.bStrict ? x_Duplicate(hData) : -1;
    int iRet = CloseData(bSocket, spRest);
    if (sPrivate.bStrict && iRet == 0) iRet = CheckConfirmed(bEnded, hKept);
    if (hKept != -1) SOCKET_close(hKept);
    return iRet;
}

// A backup that is not whole ends with a reset; a restore is just closed.
static int CloseTransfer(STPC_REST *spRest)
{
    bool bStore = sPrivate.eTransfer == TRANSFER_STORING ||
                  (sPrivate.eTransfer == TRANSFER_IDLE && // the caller's own socket
                   (sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) != 0);
    if (sGlobal.sSession.SData <= 0) return BSA_RC_ABORT_SYSTEM_ERROR;
    data_ShareRange(xbsa_DataSocket(), true);
    if (bStore && !xbsa_IsIncomplete()) return CloseWhole(spRest);
    if (bStore) x_Reset(xbsa_DataSocket());
    return CloseData(x_IsSocket(xbsa_DataSocket()), spRest);
}

static int EndTransfer(STPC_REST *spRest)
{
    const bool bCut = xbsa_IsCut();
    if (bCut) i_KeepMessage(0, "The transfer was cut short before BSAEndData.");
    int iRet = CloseTransfer(spRest);
    return bCut ? static_cast<int>(BSA_RC_ABORT_SYSTEM_ERROR) : iRet;
}

// The status for the COM utility. A failed send remains a failure even if the server replies 226.
static void NoteStatus(int iRet)
{
    int *ipStatus = &sGlobal.sObject.sSMS.iOpStatus;
    if (sGlobal.iQAB == 0) return;
    const bool bWhole = iRet == BSA_RC_SUCCESS && !xbsa_IsIncomplete();
    if (bWhole) *ipStatus = OP_STATUS_GOOD;
    else if (iRet != BSA_RC_SUCCESS || *ipStatus == OP_STATUS_GOOD) *ipStatus = OP_STATUS_FAILED;
}

// A rejected call leaves the data connection open, and a server does not read QUIT during a
// transfer: both sides would wait for ever. The connection is reset, because the object is not
// whole. Returns the flags for receiving the reply.
static int FreeServer(bool bRejected)
{
    if (sPrivate.bServerLost) return AwaitShortly();
    int hData = xbsa_DataSocket();
    if (!bRejected || hData <= 0 || AwaitShortly() == 0) return 0;
    x_Reset(hData);
    if (hData == sPrivate.sData.hOwn) xbsa_CloseConnection(&sPrivate.sData, x_IsSocket(hData));
    return 0;
}

// A QUIT that could not be sent gets no reply.
static void SayQuit(bool bRejected, STPC_REST *spRest)
{
    char szQuit[] = "QUIT\r\n";
    char szReply[XBSA_REPLY_SIZE + 1];
    int iSent = stpc_send(xbsa_ControlSocket(), szQuit, sizeof szQuit - 1, 0);
    bool bSocket = iSent > 0 || errno != ENOTSOCK;
    int iFlags = iSent > 0 ? FreeServer(bRejected) : static_cast<int>(MSG_DONTWAIT);
    ReceiveLine(szReply, iFlags, spRest);
    TRACE("BSAEndData: Received message: %s ", i_MaskReply(szReply));
    xbsa_CloseConnection(&sPrivate.sControl, bSocket);
}

// Closes the job in Informix mode. Returns the result, or the given one if there is no job.
static int CloseJob(int iRet)
{
    ENUM_COM_TASK eTask = COM_CLOSE_WRITE;
    if ((sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) == 0)
    {
        eTask = COM_CLOSE_READ;
        if ((sGlobal.sSession.iLastCall & CALL_GET_OBJECT) == 0)
        {
            TRACE("BSAEndData: Invalid sKorva.iLastOp, Korva Server not contacted, ok");
            return iRet;
        }
    }
    if (sGlobal.iQAB == 0) return iRet;
    iRet = com_intf(eTask, &sGlobal.sCOM);
    if (iRet > 0) i_KeepMessage(0, "The COM utility could not be run.");
    return iRet;
}

// Whether closing the job must not hide the failure: a backup that was cut, and in strict mode an
// object that did not get through whole or had no job.
static bool HasFailed(int iData)
{
    if (xbsa_IsCut()) return true;
    if (!sPrivate.bStrict) return false;
    if ((sGlobal.sSession.iLastCall & (CALL_CREATE_OBJECT | CALL_GET_OBJECT)) == 0) return false;
    return iData != BSA_RC_SUCCESS || xbsa_IsIncomplete() || sPrivate.bNoUtility;
}

// The journal always records what only strict mode returns.
static void WriteJournal(int iData, int iRet)
{
    bool bWhole = iRet == BSA_RC_SUCCESS && iData == BSA_RC_SUCCESS && !xbsa_IsCut() &&
                  sPrivate.eHealth == OBJECT_WHOLE && !sPrivate.bNoUtility;
    journal_End(bWhole, "A call for the object failed.");
}

// By default the result of a restore is not reported, and the job's result replaces that of a
// backup: callers rely on it. Strict mode hides neither.
int xbsa_EndObject(int iCall)
{
    const bool bBackup = (sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) != 0 || xbsa_IsCut();
    const bool bRejected = iCall != BSA_RC_SUCCESS;
    STPC_REST sRest = {};
    int iData = bRejected ? iCall : EndTransfer(&sRest);
    NoteStatus(iData);
    if (bBackup) sGlobal.sSession.iOpStatus = iData;

    SayQuit(bRejected, &sRest);
    int iRet = CloseJob(bBackup ? iData : static_cast<int>(BSA_RC_SUCCESS));
    if (HasFailed(iData)) iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    if (iRet != 0 && sPrivate.eHealth == OBJECT_REJECTED && sPrivate.bStrict)
    {
        i_KeepMessage(0, "A block of the object was rejected.");
    }
    WriteJournal(iData, iRet);
    xbsa_ForgetObject();
    return iRet;
}
