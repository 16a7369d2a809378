// Ends the object of a backup or a restore.
#include <cstring>
#include <sys/socket.h>

#include "api/object.h"
#include "session/record.h"
#include "trace/trace.h"
#include "util/text.h"

// The end of a good backup is an orderly one, and the server sees it even while a child of the host
// holds the connection too. A backup whose send failed is reset: it is not whole.
static void EndConnection()
{
    int hData = xbsa_DataSocket();
    if ((sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) == 0) return;
    if (sPrivate.iDataBroken != 0)
    {
        x_Reset(hData);
        return;
    }
    struct linger sOrderly = {0, 0};
    setsockopt(hData, SOL_SOCKET, SO_LINGER, &sOrderly, sizeof sOrderly);
    shutdown(hData, SHUT_WR);
}

// Whether a line ends a reply: a number, and a blank or nothing behind it.
static bool IsLastLine(const char *cpLine)
{
    bool bNumber = strspn(cpLine, "0123456789") == 3;
    return bNumber && (cpLine[3] == ' ' || cpLine[3] == '\0');
}

// Of an opening reply of several lines only the first was read. Strict mode passes over the others,
// up to the last: the closing reply comes after that one.
static int ReceiveReply(char *szReply)
{
    // of a server that has vanished only what is there already is read
    int iFlags = sPrivate.iServerLost != 0 ? MSG_DONTWAIT : 0;
    bool bOpening = sPrivate.iStrict != 0 && sPrivate.iOpeningGoesOn != 0;
    for (;;)
    {
        memset(szReply, 0, XBSA_REPLY_SIZE + 1);
        int iRet = stpc_recv(xbsa_ControlSocket(), szReply, XBSA_REPLY_SIZE, iFlags);
        bool bLast = IsLastLine(szReply);
        if (iRet < 1 || !bOpening || (bLast && strncmp(szReply, "150", 3) != 0)) return iRet;
        TRACE("BSAEndData: Received message: %s", szReply);
        bOpening = !bLast;
    }
}

static int ReadClosingReply()
{
    int iRet = BSA_RC_SUCCESS;
    char szReply[XBSA_REPLY_SIZE + 1];
    if (ReceiveReply(szReply) < 1)
    {
        SysErrorTxt(0, 0, "No closing reply, the control connection has ended.");
        iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    }
    else if (szReply[0] == '4' || szReply[0] == '5')
    {
        i_Report("BSAEndData",
                 SysErrorTxt(0, 0, "TRANSIENT or PERMANENT NEGATIVE reply: %s ", szReply));
        iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    }
    TRACE("BSAEndData: Received message: %s", szReply);
    if (strncmp(szReply, "226", 3) != 0)
    {
        SysErrorTxt(0, 0, "Unexpected closing reply: %s", szReply);
        TRACE("BSAEndData: Unexpected FTP code for last message");
        iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    }
    return iRet;
}

static int CloseTransfer()
{
    if (sGlobal.sSession.SData <= 0) return BSA_RC_ABORT_SYSTEM_ERROR;
    EndConnection();
    int iRet = xbsa_CloseData();
    if (iRet == 0) return ReadClosingReply();
    SysErrorTxt(GetSockErrCode(), 3, "close() of the data connection failed.");
    return iRet;
}

static int FailGivenUp()
{
    SysErrorTxt(0, 0, "%s",
                sPrivate.iGivenUp == GIVEN_UP_RESTORE
                    ? "The backup was given up for a restore in the same transaction."
                    : "The backup was given up, its transaction had ended.");
    return BSA_RC_ABORT_SYSTEM_ERROR;
}

static int EndTransfer(long lHandle)
{
    if (sGlobal.sSession.iLastCall & CALL_END_DATA) return BSA_RC_INVALID_CALL_SEQUENCE;
    sGlobal.sSession.iLastCall |= CALL_END_DATA;
    if (lHandle != sGlobal.sSession.lBSAHandle) return BSA_RC_INVALID_HANDLE;
    int iGivenUp = sPrivate.iGivenUp != GIVEN_UP_NONE ? FailGivenUp() : BSA_RC_SUCCESS;
    int iRet = CloseTransfer();
    return iGivenUp != BSA_RC_SUCCESS ? iGivenUp : iRet;
}

// What the COM utility is told. A failed send stays, even when the server then says 226.
static void NoteStatus(int iRet)
{
    if (sGlobal.iQAB == 0) return;
    if (iRet != BSA_RC_SUCCESS) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_FAILED;
    else if (sPrivate.iDataFailed == 0) sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_GOOD;
}

// A rejected call leaves the data connection open, and a server in the middle of a transfer reads no
// QUIT: both sides would wait for ever. It is reset, for the object is not whole.
static void DropOpenTransfer()
{
    if (sPrivate.hOwnData == -1 || sPrivate.hOwnData != xbsa_DataSocket()) return;
    x_Reset(xbsa_DataSocket());
    xbsa_CloseData();
}

static void SayQuit()
{
    char szQuit[] = "QUIT\r\n";
    char szReply[XBSA_REPLY_SIZE + 1] = "";
    // no reply comes to a QUIT that could not be sent, nor from a server that has vanished
    bool bSent = stpc_send(xbsa_ControlSocket(), szQuit, sizeof szQuit - 1, 0) > 0;
    int iFlags = bSent && sPrivate.iServerLost == 0 ? 0 : MSG_DONTWAIT;
    stpc_recv(xbsa_ControlSocket(), szReply, XBSA_REPLY_SIZE, iFlags);
    TRACE("BSAEndData: Received message: %s ", szReply);
    xbsa_CloseControl();
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
    sGlobal.sCOM.iOpenJobStarted = 0; // no later failure may close, and spoil, this job again
    xbsa_ReportJob(iRet);
    if (iRet == 0 && sPrivate.iJobMissing != 0) iRet = BSA_RC_ABORT_SYSTEM_ERROR;
    return iRet;
}

// Tells whether an object was open and did not get through whole.
static bool HasFailed(int iData)
{
    if ((sGlobal.sSession.iLastCall & (CALL_CREATE_OBJECT | CALL_GET_OBJECT)) == 0) return false;
    return iData != BSA_RC_SUCCESS || sPrivate.iDataBroken != 0;
}

int BSAEndData(long bsaHandle)
{
    TRACE("BSAEndData: Start - bsaHandle = %ld", bsaHandle);
    const bool bBackup = (sGlobal.sSession.iLastCall & CALL_CREATE_OBJECT) != 0 ||
                         sPrivate.iGivenUp != GIVEN_UP_NONE;
    int iData = EndTransfer(bsaHandle);
    NoteStatus(iData);
    if (bBackup) sGlobal.sSession.iOpStatus = iData;

    // A restore's own result is not reported, and that of a backup gives way to the job's: callers
    // know it so. Strict mode hides neither.
    int iRet = bBackup ? iData : static_cast<int>(BSA_RC_SUCCESS);
    DropOpenTransfer();
    SayQuit();
    iRet = CloseJob(iRet);
    if (sPrivate.iStrict != 0 && HasFailed(iData)) iRet = BSA_RC_ABORT_SYSTEM_ERROR;

    TRACE("BSAEndData: Return CODE: %d ", iRet);
    sGlobal.sSession.dBytes = 0;
    return iRet != 0 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}
