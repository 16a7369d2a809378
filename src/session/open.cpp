// Opens a transfer: from the server's address to a data connection.
#include <cstring>

#include "record/record.h"
#include "session/session.h"
#include "trace/trace.h"
#include "util/util.h"

static OPEN_WORK *NewWork(int iMode)
{
    OPEN_WORK *spWork = static_cast<OPEN_WORK *>(x_Malloc(sizeof(OPEN_WORK)));
    if (spWork == nullptr)
    {
        i_KeepMessage(0, "Not enough memory for the transfer.");
        TRACE("xbsa_open: malloc() return NULL. Not enough space.");
        return nullptr;
    }
    for (int iSlot = 0; iSlot < XBSA_COMMAND_SLOTS; iSlot++)
    {
        spWork->cpaCommands[iSlot] = spWork->szSlots[iSlot];
        spWork->szSlots[iSlot][0] = '\0';
    }
    spWork->szOpenCode[0] = '\0';
    spWork->iMode = iMode;
    spWork->iSlot = 0;
    spWork->SData = -1;
    return spWork;
}

static int ConnectControl()
{
    TRACE("xbsa_open: Calling xbsa_connect()");
    int hControl = xbsa_connect();
    if (hControl == -1)
    {
        TRACE("xbsa_open: Exiting, xbsa_connect() failed");
        return -1;
    }
    xbsa_StoreConnection(&sPrivate.sControl, hControl);
    return 0;
}

// A server that has assigned no user wants to know which account on which host logs in.
static int MakeIdentity()
{
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    TRACE("xbsa_open: Calling make_KORVA_authentication() function.");
    if (strcmp(spSMS->szUser, XBSA_SECURE_USER) != 0) return 0;

    TRACE("xbsa_open: Calling make_KORVA_authentication() function on demand.");
    unsigned int uUser = sizeof spSMS->szUser;
    unsigned int uPass = sizeof spSMS->szPass;
    int iRet = make_KORVA_authentication(xbsa_ControlSocket(), spSMS->szUser, &uUser, spSMS->szPass,
                                         &uPass);
    if (iRet != -1) return 0;

    i_KeepMessage(0, "Problem while retriving data for KORVA SECURE AUTHENTICATION.");
    TRACE("xbsa_open: make_KORVA_authentication() failed.");
    return -1;
}

// Reads only the first line of the greeting, and ignores its code.
static int ReadGreeting(OPEN_WORK *spWork)
{
    TRACE("xbsa_open: Calling stpc_recv()");
    if (stpc_ReadLine(xbsa_ControlSocket(), spWork->szLine) < 1)
    {
        i_KeepMessage(0, "Server closed the control connection before its greeting.");
        TRACE("xbsa_open: stpc_recv() failed.");
        return -1;
    }
    if (spWork->szLine[0] == '\0')
    {
        i_KeepMessage(0, "The server's greeting is empty.");
        TRACE("xbsa_open: Reply String empty. Exiting.");
        return -1;
    }
    stpc_TraceReply("xbsa_open", "Welcome", spWork->szLine);
    return 0;
}

// Makes the COM utility close job and session as failed.
static void CloseFailedJob(int iMode)
{
    sGlobal.sSession.iOpStatus = -1;
    if (sGlobal.iQAB == 0) return;

    sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_FAILED;
    int iRet = com_intf(iMode == RETR_MODE ? COM_CLOSE_READ : COM_CLOSE_WRITE, &sGlobal.sCOM);
    if (iRet == 0) return;
    if (iMode == RETR_MODE) TRACE("xbsa_open: qab_com (QAB_CLOSE_READ...) failed");
    else TRACE("xbsa_open: qab_com (QAB_CLOSE_WRITE...) failed");
}

static int OpenConversation(OPEN_WORK *spWork)
{
    TRACE("xbsa_open: Start");
    int iRet = ConnectControl();
    if (iRet == 0) iRet = MakeIdentity();
    if (iRet == 0) iRet = xbsa_prepare_commands(spWork->cpaCommands, spWork->iMode);
    if (iRet == 0) iRet = ReadGreeting(spWork);
    if (iRet == 0) xbsa_PlaySequence(spWork);
    return spWork->SData;
}

// A backup that this restore has cut stays marked as cut.
static void StoreTransfer(int hData, int iMode)
{
    const TRANSFER eMode = iMode == STOR_MODE ? TRANSFER_STORING : TRANSFER_RESTORING;
    const bool bCut = sPrivate.eTransfer == TRANSFER_CUT_BY_RESTORE && iMode == RETR_MODE;
    xbsa_StoreConnection(&sPrivate.sData, hData);
    sPrivate.eHealth = OBJECT_WHOLE;
    if (!bCut) sPrivate.eTransfer = hData != -1 ? eMode : TRANSFER_IDLE;
}

int xbsa_open(int iMode)
{
    OPEN_WORK *spWork = NewWork(iMode);
    int hData = spWork != nullptr ? OpenConversation(spWork) : -1;
    if (hData == -1) CloseFailedJob(iMode);
    StoreTransfer(hData, iMode);
    x_Free(spWork);
    return hData;
}
