// Ends the object of a backup or a restore.
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "api/object.h"
#include "record/record.h"
#include "stpc/stpc.h"
#include "trace/trace.h"
#include "util/text.h"

enum
{
    PATIENCE = 1000 // milliseconds for a reply that may never come
};

// The end of a good backup is an orderly one, and the server sees it even while a child of the host
// holds the connection too. Returns false with errno when the connection had ended before.
static bool EndConnection(int hData)
{
    struct linger sOrderly = {0, 0};
    setsockopt(hData, SOL_SOCKET, SO_LINGER, &sOrderly, sizeof sOrderly);
    return shutdown(hData, SHUT_WR) == 0;
}

// Whether a line ends a reply: a number, then a blank or nothing.
static bool IsLastLine(const char *cpLine)
{
    bool bNumber = strspn(cpLine, "0123456789") == 3;
    return bNumber && (cpLine[3] == ' ' || cpLine[3] == '\0');
}

// Gives a server that may not answer a last chance. Returns the flags for the receive.
static int AwaitShortly()
{
    return x_AwaitBytes(xbsa_ControlSocket(), PATIENCE) ? 0 : static_cast<int>(MSG_DONTWAIT);
}

// Reads one line of the server. Nothing is read from the connection after the object's end, so
// bytes that came with this line may wait for the next call.
//   iFlags  MSG_DONTWAIT takes only what has arrived
static int ReceiveLine(char *szReply, int iFlags, STPC_REST *spRest)
{
    memset(szReply, 0, XBSA_REPLY_SIZE + 1);
    int iRet = stpc_RecvAhead(xbsa_ControlSocket(), szReply, XBSA_REPLY_SIZE, iFlags, spRest);
    if (iRet > 0) TRACE_REPLY("LOGIN REPLY: %s", i_MaskReply(szReply));
    return iRet;
}

// Of an opening reply of several lines only the first was read. Strict mode passes over the others,
// up to the last: the closing reply comes after that one.
static int ReceiveReply(char *szReply, STPC_REST *spRest)
{
    bool bOpening = sPrivate.bStrict && sPrivate.bMoreLines;
    for (;;)
    {
        int iRet = ReceiveLine(szReply, sPrivate.bServerLost ? AwaitShortly() : 0, spRest);
        bool bLast = IsLastLine(szReply);
        if (iRet < 1 || !bOpening || (bLast && strncmp(szReply, "150", 3) != 0)) return iRet;
        TRACE("BSAEndData: Received message: %s", i_MaskReply(szReply));
        bOpening = !bLast;
    }
}

static int ReadClosingReply(STPC_REST *spRest)
{
    int iRet = BSA_RC_SUCCESS;
    char szReply[XBSA_REPLY_SIZE + 1];
    if (ReceiveReply(szReply, spRest) < 1)
    {
        SysErrorTxt(0, 0, "No closing reply, the control connection has ended.");
        iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    }
    else if (szReply[0] == '4' || szReply[0] == '5')
    {
        i_Report("BSAEndData", SysErrorTxt(0, 0, "TRANSIENT or PERMANENT NEGATIVE reply: %s ",
                                           i_MaskReply(szReply)));
        iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    }
    TRACE("BSAEndData: Received message: %s", i_MaskReply(szReply));
    if (strncmp(szReply, "226", 3) != 0)
    {
        SysErrorTxt(0, 0, "Unexpected closing reply: %s", i_MaskReply(szReply));
        TRACE("BSAEndData: Unexpected FTP code for last message");
        iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    }
    return iRet;
}

// Some servers confirm half an object: what they say counts only when the connection ended well.
static int CheckConfirmed(bool bEnded, int hKept)
{
    if (bEnded && hKept != -1 && x_SocketError(hKept) == 0) return BSA_RC_SUCCESS;
    SysErrorTxt(0, 0, "The server confirmed the object, but its data connection had been reset.");
    return BSA_RC_ABORT_SYSTEM_ERROR;
}

static int CloseData(bool bSocket, STPC_REST *spRest)
{
    int iRet = xbsa_CloseData(bSocket);
    if (iRet == 0) return ReadClosingReply(spRest);
    SysErrorTxt(GetSockErrCode(), 3, "close() of the data connection failed.");
    return iRet;
}

static int CloseWhole(STPC_REST *spRest)
{
    int hData = xbsa_DataSocket();
    bool bEnded = EndConnection(hData);
    bool bSocket = bEnded || errno != ENOTSOCK;
    int hKept = sPrivate.bStrict ? x_Duplicate(hData) : -1;
    int iRet = CloseData(bSocket, spRest);
    if (sPrivate.bStrict && iRet == 0) iRet = CheckConfirmed(bEnded, hKept);
    if (hKept != -1) SOCKET_close(hKept);
    return iRet;
}

// The end of a backup that is not whole is a reset, that of a restore needs no ceremony.
static int CloseTransfer(STPC_REST *spRest)
{
    bool bStore = (sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) != 0 ||
                  sPrivate.eTransfer == TRANSFER_STORING;
    if (sGlobal.sSession.SData <= 0) return BSA_RC_ABORT_SYSTEM_ERROR;
    if (bStore && !xbsa_IsIncomplete()) return CloseWhole(spRest);
    if (bStore) x_Reset(xbsa_DataSocket());
    return CloseData(x_IsSocket(xbsa_DataSocket()), spRest);
}

static int FailCut()
{
    SysErrorTxt(0, 0, "%s",
                sPrivate.eTransfer == TRANSFER_CUT_BY_RESTORE
                    ? "The backup was given up for a restore in the same transaction."
                    : "The backup was given up, its transaction had ended.");
    return BSA_RC_ABORT_SYSTEM_ERROR;
}

static bool IsCut()
{
    return sPrivate.eTransfer == TRANSFER_CUT_BY_RESTORE ||
           sPrivate.eTransfer == TRANSFER_CUT_BY_END;
}

static int EndTransfer(STPC_REST *spRest)
{
    int iCut = IsCut() ? FailCut() : BSA_RC_SUCCESS;
    int iRet = CloseTransfer(spRest);
    return iCut != BSA_RC_SUCCESS ? iCut : iRet;
}

static int CheckCall(long lHandle)
{
    if (sGlobal.sSession.iLastCall & CALL_END_DATA) return BSA_RC_INVALID_CALL_SEQUENCE;
    sGlobal.sSession.iLastCall |= CALL_END_DATA;
    return lHandle == sGlobal.sSession.lBSAHandle ? BSA_RC_SUCCESS : BSA_RC_INVALID_HANDLE;
}

// What the COM utility is given as the status. A failed send stays, even when the server then says
// 226.
static void NoteStatus(int iRet)
{
    if (sGlobal.iQAB == 0) return;
    if (iRet != BSA_RC_SUCCESS) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_FAILED;
    else if (!xbsa_IsIncomplete()) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_GOOD;
}

// A rejected call leaves the data connection open, and a server in the middle of a transfer does not
// read QUIT: both sides would wait for ever. Such a connection is reset, for the object is not whole.
// Returns the flags for the receive of the reply.
static int FreeServer(bool bRejected)
{
    if (sPrivate.bServerLost) return AwaitShortly();
    int hData = xbsa_DataSocket();
    if (!bRejected || hData <= 0 || AwaitShortly() == 0) return 0;
    x_Reset(hData);
    if (hData == sPrivate.sData.hOwn) xbsa_CloseData(x_IsSocket(hData));
    return 0;
}

// No reply comes to a QUIT that could not be sent.
static void SayQuit(bool bRejected, STPC_REST *spRest)
{
    char szQuit[] = "QUIT\r\n";
    char szReply[XBSA_REPLY_SIZE + 1];
    int iSent = stpc_send(xbsa_ControlSocket(), szQuit, sizeof szQuit - 1, 0);
    bool bSocket = iSent > 0 || errno != ENOTSOCK;
    int iFlags = iSent > 0 ? FreeServer(bRejected) : static_cast<int>(MSG_DONTWAIT);
    ReceiveLine(szReply, iFlags, spRest);
    TRACE("BSAEndData: Received message: %s ", i_MaskReply(szReply));
    xbsa_CloseControl(bSocket);
}

// Closes the job of an Informix session. Returns its result, or the one given when there is none.
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
    if (iRet > 0) SysErrorTxt(0, 0, "The COM utility could not be run.");
    return iRet;
}

// Whether the failure shows whatever the job's close returns: a backup that was cut, and in strict mode
// an object that did not get through whole or had no job.
static bool HasFailed(int iData)
{
    if (IsCut()) return true;
    if (!sPrivate.bStrict) return false;
    if ((sGlobal.sSession.iLastCall & (CALL_CREATE_OBJECT | CALL_GET_OBJECT)) == 0) return false;
    return iData != BSA_RC_SUCCESS || xbsa_IsIncomplete() || sPrivate.bJobMissing;
}

// A restore's own result is not reported, and that of a backup gives way to the job's: callers know
// it so. Strict mode hides neither.
static int EndObject(long lHandle)
{
    const bool bBackup = (sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) != 0 || IsCut();
    STPC_REST sRest = {};
    int iData = CheckCall(lHandle);
    const bool bRejected = iData != BSA_RC_SUCCESS;
    if (!bRejected) iData = EndTransfer(&sRest);
    NoteStatus(iData);
    if (bBackup) sGlobal.sSession.iOpStatus = iData;

    SayQuit(bRejected, &sRest);
    int iRet = CloseJob(bBackup ? iData : static_cast<int>(BSA_RC_SUCCESS));
    return HasFailed(iData) ? static_cast<int>(BSA_RC_ABORT_SYSTEM_ERROR) : iRet;
}

int BSAEndData(long bsaHandle)
{
    TRACE("BSAEndData: Start - bsaHandle = %ld", bsaHandle);
    if (xbsa_IsForeignProcess()) return BSA_RC_INVALID_HANDLE; // the connections are its parent's
    int iRet = EndObject(bsaHandle);
    TRACE("BSAEndData: Return CODE: %d ", iRet);
    sGlobal.sSession.dBytes = 0;
    xbsa_ForgetObject();
    return iRet != 0 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}
