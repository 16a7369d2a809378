// From the server's coordinates to an open data connection.
#include <cstdio>
#include <cstring>

#include "record/record.h"
#include "session/commands.h"
#include "trace/trace.h"
#include "util/text.h"

// What a step of the sequence asks for.
enum
{
    NEXT_COMMAND,  // go on with the next slot
    STOP_SEQUENCE, // the result stands
};

enum
{
    VERB_LENGTH = 4,
    CODE_LENGTH = 3
};

// Buffers of one call; on the heap, since the host's stack may be small. Each text has one byte
// more than is ever filled: a reply that fills its buffer comes without a terminator.
typedef struct
{
    char *cpaCommands[XBSA_COMMAND_SLOTS];
    char szSlots[XBSA_COMMAND_SLOTS][XBSA_REPLY_SIZE];
    char szLine[XBSA_REPLY_SIZE + 1];    // the line sent or received
    char szCommand[XBSA_REPLY_SIZE + 1]; // the command in upper case
    char szPlain[XBSA_REPLY_SIZE + 1];   // the command as it was
    char szCode[CODE_LENGTH + 1];        // code of an open reply of several lines, or empty
    int iMode;
    int iSlot;
    int SData; // the result
} OPEN_WORK;

static OPEN_WORK *NewWork(int iMode)
{
    OPEN_WORK *spWork = static_cast<OPEN_WORK *>(x_Malloc(sizeof(OPEN_WORK)));
    if (spWork == nullptr)
    {
        SysErrorTxt(0, 0, "Not enough memory for the transfer.");
        TRACE("xbsa_open: malloc() return NULL. Not enough space.");
        return nullptr;
    }
    for (int iSlot = 0; iSlot < XBSA_COMMAND_SLOTS; iSlot++)
    {
        spWork->cpaCommands[iSlot] = spWork->szSlots[iSlot];
        spWork->szSlots[iSlot][0] = '\0';
    }
    spWork->szCode[0] = '\0';
    spWork->iMode = iMode;
    spWork->iSlot = 0;
    spWork->SData = -1;
    return spWork;
}

// Reads one line into the work record, with the buffer cleared before it. Returns 1, 0 or -1.
static int ReadLine(OPEN_WORK *spWork)
{
    memset(spWork->szLine, 0, sizeof spWork->szLine);
    return stpc_recv(xbsa_ControlSocket(), spWork->szLine, XBSA_REPLY_SIZE, 0);
}

static int Connect()
{
    TRACE("xbsa_open: Calling xbsa_connect()");
    int hControl = xbsa_connect();
    if (hControl == -1)
    {
        TRACE("xbsa_open: Exiting, xbsa_connect() failed");
        return -1;
    }
    xbsa_StoreControl(hControl);
    return 0;
}

// A server that handed out no user wants to know which account on which host logs in.
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

    SysErrorTxt(0, 0, "Problem while retriving data for KORVA SECURE AUTHENTICATION.");
    TRACE("xbsa_open: make_KORVA_authentication() failed.");
    return -1;
}

// Only the first line of a greeting is read, and its code is not looked at.
static int ReadGreeting(OPEN_WORK *spWork)
{
    TRACE("xbsa_open: Calling stpc_recv()");
    if (ReadLine(spWork) < 1)
    {
        SysErrorTxt(0, 0, "No greeting, the control connection has ended.");
        TRACE("xbsa_open: stpc_recv() failed.");
        return -1;
    }
    if (spWork->szLine[0] == '\0')
    {
        SysErrorTxt(0, 0, "The greeting is empty.");
        TRACE("xbsa_open: Reply String empty. Exiting.");
        return -1;
    }
    TRACE_REPLY("LOGIN REPLY: %s", i_MaskReply(spWork->szLine));
    TRACE("xbsa_open: Welcome: %s", i_MaskReply(spWork->szLine));
    return 0;
}

// Tells whether a line ends the reply; keeps the code of one that goes on.
static bool IsLastLine(OPEN_WORK *spWork)
{
    if (strnlen(spWork->szLine, CODE_LENGTH) == CODE_LENGTH && spWork->szLine[CODE_LENGTH] == '-')
    {
        memcpy(spWork->szCode, spWork->szLine, CODE_LENGTH);
        spWork->szCode[CODE_LENGTH] = '\0';
        return false;
    }
    if (spWork->szCode[0] == '\0') return true;
    if (strncmp(spWork->szLine, spWork->szCode, CODE_LENGTH) != 0) return false;
    spWork->szCode[0] = '\0';
    return true;
}

// A refused command is reported and the sequence goes on: the transfer command fails then. Only
// after a refused CWD it must not be sent, for the object would land in another folder.
static void NoteNegativeReply(OPEN_WORK *spWork)
{
    if (spWork->szLine[0] != '4' && spWork->szLine[0] != '5') return;
    i_Report("xbsa_open", SysErrorTxt(0, 0, "TRANSIENT or PERMANENT NEGATIVE reply: %s ",
                                      i_MaskReply(spWork->szLine)));
    if (strncmp(spWork->szPlain, "CWD", 3) == 0)
    {
        x_CopyText(spWork->cpaCommands[spWork->iSlot], XBSA_REPLY_SIZE, "QUIT");
    }
}

static int ReadReply(OPEN_WORK *spWork)
{
    do
    {
        if (ReadLine(spWork) < 1)
        {
            SysErrorTxt(0, 0, "No reply to %.4s, the control connection has ended.",
                        spWork->szCommand);
            TRACE("xbsa_open: Failed to recieve message from remote server, exiting.");
            return STOP_SEQUENCE;
        }
        TRACE_REPLY("LOGIN REPLY: %s", i_MaskReply(spWork->szLine));
        TRACE("xbsa_open: Received message: %s", i_MaskReply(spWork->szLine));
        NoteNegativeReply(spWork);
    } while (!IsLastLine(spWork));
    return NEXT_COMMAND;
}

// The password shows only for the service user, whose password is no secret: account and host.
static void TraceCommand(const OPEN_WORK *spWork)
{
    bool bSecret = strncmp(spWork->szCommand, "PASS", VERB_LENGTH) == 0 &&
                   strcmp(sGlobal.sObject.sSMS.szUser, "sms") != 0;
    TRACE("xbsa_open: Send command: %s", bSecret ? "PASS " TRACE_SECRET : spWork->szLine);
}

static int SendLine(OPEN_WORK *spWork)
{
    int iLength = static_cast<int>(strlen(spWork->szLine));
    return stpc_send(xbsa_ControlSocket(), spWork->szLine, iLength, 0);
}

static int PlainCommand(OPEN_WORK *spWork)
{
    TraceCommand(spWork);
    if (SendLine(spWork) < 1)
    {
        TRACE("xbsa_open: send() function failed to remote host. Exiting!");
        return STOP_SEQUENCE;
    }
    return ReadReply(spWork);
}

// The first word behind the verb, ending at a blank, as callers of old have it; strict mode takes
// the whole name, which is what the store of the same object sent.
static void TakeRetrieveName(const OPEN_WORK *spWork, char *cpName)
{
    const char *cpRest = spWork->szPlain + strlen("RETR ");
    if (sPrivate.bStrict)
    {
        x_CopyText(cpName, XBSA_REPLY_SIZE, cpRest);
        return;
    }
    cpRest += strspn(cpRest, " ");
    x_CopyText(cpName, XBSA_REPLY_SIZE, cpRest, strcspn(cpRest, " "));
}

static int Retrieve(OPEN_WORK *spWork)
{
    char *cpName = static_cast<char *>(x_Malloc(XBSA_REPLY_SIZE));
    if (cpName == nullptr)
    {
        SysErrorTxt(0, 0, "Not enough memory for the transfer.");
        TRACE("xbsa_open: malloc() return NULL. Not enough space.");
        return STOP_SEQUENCE;
    }
    TakeRetrieveName(spWork, cpName);
    spWork->SData = stpc_retr(cpName, xbsa_ControlSocket());
    x_Free(cpName);
    if (spWork->SData == -1) return NEXT_COMMAND;
    xbsaDSopt(spWork->SData, RETR_MODE);
    return STOP_SEQUENCE;
}

static int Store(OPEN_WORK *spWork)
{
    spWork->SData = stpc_stor(spWork->szPlain + strlen("STOR "), xbsa_ControlSocket());
    if (spWork->SData == -1) return NEXT_COMMAND;
    xbsaDSopt(spWork->SData, STOR_MODE);
    return STOP_SEQUENCE;
}

// The prepared list never holds LIST; this serves a list that does.
static int List(OPEN_WORK *spWork)
{
    char *cpFolder = spWork->szPlain + VERB_LENGTH;
    cpFolder += strspn(cpFolder, " ");
    cpFolder[strcspn(cpFolder, " ")] = '\0';
    static char szHere[] = ".";
    spWork->SData = stpc_list(*cpFolder != '\0' ? cpFolder : szHere, xbsa_ControlSocket());
    return spWork->SData == -1 ? NEXT_COMMAND : STOP_SEQUENCE;
}

static int Quit(OPEN_WORK *spWork)
{
    SendLine(spWork);
    return STOP_SEQUENCE;
}

static int PlayCommand(OPEN_WORK *spWork)
{
    static const struct
    {
        const char *cpVerb;
        int (*fpPlay)(OPEN_WORK *spWork);
    } asVerbs[] = {{"RETR", Retrieve}, {"STOR", Store}, {"LIST", List}, {"QUIT", Quit}};

    for (const auto &sVerb : asVerbs)
    {
        if (strncmp(spWork->szCommand, sVerb.cpVerb, VERB_LENGTH) == 0) return sVerb.fpPlay(spWork);
    }
    return PlainCommand(spWork);
}

static void PlaySequence(OPEN_WORK *spWork)
{
    int iNext = NEXT_COMMAND;
    while (iNext == NEXT_COMMAND && spWork->iSlot < XBSA_COMMAND_SLOTS)
    {
        const char *cpSlot = spWork->cpaCommands[spWork->iSlot];
        x_CopyText(spWork->szPlain, XBSA_REPLY_SIZE, cpSlot);
        x_CopyText(spWork->szCommand, XBSA_REPLY_SIZE, cpSlot);
        strupr(spWork->szCommand);
        snprintf(spWork->szLine, sizeof spWork->szLine, "%s\r\n", cpSlot);
        spWork->iSlot++;
        iNext = PlayCommand(spWork);
    }
}

// Tells the COM utility that the transfer failed and has it close job and session.
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

static int OpenTransfer(OPEN_WORK *spWork)
{
    TRACE("xbsa_open: Start");
    int iRet = Connect();
    if (iRet == 0) iRet = MakeIdentity();
    if (iRet == 0) iRet = xbsa_prepare_commands(spWork->cpaCommands, spWork->iMode);
    if (iRet == 0) iRet = ReadGreeting(spWork);
    if (iRet == 0) PlaySequence(spWork);
    return spWork->SData;
}

// A backup that this restore cut stays known as such.
static void StoreTransfer(int hData, int iMode)
{
    const TRANSFER eMode = iMode == STOR_MODE ? TRANSFER_STORING : TRANSFER_RESTORING;
    const bool bCut = sPrivate.eTransfer == TRANSFER_CUT_BY_RESTORE && iMode == RETR_MODE;
    xbsa_StoreData(hData);
    sPrivate.eHealth = OBJECT_WHOLE;
    if (!bCut) sPrivate.eTransfer = hData != -1 ? eMode : TRANSFER_IDLE;
}

int xbsa_open(int iMode)
{
    OPEN_WORK *spWork = NewWork(iMode);
    int hData = spWork != nullptr ? OpenTransfer(spWork) : -1;
    if (hData == -1) CloseFailedJob(iMode);
    StoreTransfer(hData, iMode);
    if (spWork != nullptr) memset(spWork->szSlots[SLOT_PASS], 0, XBSA_REPLY_SIZE);
    x_Free(spWork);
    return hData;
}
