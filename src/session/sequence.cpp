// Sends the list of commands and reads the replies.
//
//   USER  PASS  TYPE  CWD    sends each, then reads its reply to the last line
//   STOR or RETR             fails after an earlier negative reply; after a refused CWD it is QUIT
//   QUIT                     only if the transfer command failed; its reply is not read
#include <cstdio>
#include <cstring>

#include "record/record.h"
#include "session/session.h"
#include "trace/trace.h"

// What follows a step of the sequence.
enum
{
    NEXT_COMMAND, // go on with the next slot
    STOP_SEQUENCE // the result is final
};

enum
{
    VERB_LENGTH = 4
};

// A refused command is reported, then the sequence continues and the transfer command fails. Only
// after a refused CWD it must not be sent, because the object would get into another directory.
static void NoteNegativeReply(OPEN_WORK *spWork)
{
    if (!stpc_IsNegative(spWork->szLine)) return;
    i_Fail("xbsa_open", 0, "TRANSIENT or PERMANENT NEGATIVE reply: %s ",
           i_MaskReply(spWork->szLine));
    if (strncmp(spWork->szPlain, "CWD", 3) == 0)
    {
        x_CopyText(spWork->cpaCommands[spWork->iSlot], XBSA_REPLY_SIZE, "QUIT");
    }
}

static int ReadReply(OPEN_WORK *spWork)
{
    do
    {
        if (stpc_ReadLine(xbsa_ControlSocket(), spWork->szLine) < 1)
        {
            const int iVerb = static_cast<int>(strcspn(spWork->szCommand, " \r"));
            i_KeepMessage(0, "Server closed the control connection before its reply to %.*s.",
                          iVerb, spWork->szCommand);
            TRACE("xbsa_open: Failed to recieve message from remote server, exiting.");
            return STOP_SEQUENCE;
        }
        stpc_TraceReply("xbsa_open", "Received message", spWork->szLine);
        NoteNegativeReply(spWork);
    } while (!stpc_EndsReply(spWork->szLine, spWork->szOpenCode));
    return NEXT_COMMAND;
}

// The password is shown for the service user only, whose password is just account and host.
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

static int PlayPlain(OPEN_WORK *spWork)
{
    TraceCommand(spWork);
    if (SendLine(spWork) < 1)
    {
        TRACE("xbsa_open: send() function failed to remote host. Exiting!");
        return STOP_SEQUENCE;
    }
    return ReadReply(spWork);
}

// The first word after the verb.
static char *TakeWord(OPEN_WORK *spWork)
{
    char *cpWord = spWork->szPlain + VERB_LENGTH;
    cpWord += strspn(cpWord, " ");
    cpWord[strcspn(cpWord, " ")] = '\0';
    return cpWord;
}

static int EndPlay(const OPEN_WORK *spWork, ENUM_DIRECTION eDirection)
{
    if (spWork->SData == -1) return NEXT_COMMAND;
    xbsaDSopt(spWork->SData, eDirection);
    return STOP_SEQUENCE;
}

// A name ends at its first blank, as existing callers expect. Strict mode uses the whole name, as
// the store of the same object did.
static int PlayRetrieve(OPEN_WORK *spWork)
{
    char *cpName = sPrivate.bStrict ? spWork->szPlain + strlen("RETR ") : TakeWord(spWork);
    spWork->SData = stpc_retr(cpName, xbsa_ControlSocket());
    return EndPlay(spWork, RETR_MODE);
}

static int PlayStore(OPEN_WORK *spWork)
{
    spWork->SData = stpc_stor(spWork->szPlain + strlen("STOR "), xbsa_ControlSocket());
    return EndPlay(spWork, STOR_MODE);
}

// The prepared list never contains LIST, but a caller's list may.
static int PlayList(OPEN_WORK *spWork)
{
    static char szHere[] = ".";
    char *cpFolder = TakeWord(spWork);
    spWork->SData = stpc_list(*cpFolder != '\0' ? cpFolder : szHere, xbsa_ControlSocket());
    return spWork->SData == -1 ? NEXT_COMMAND : STOP_SEQUENCE;
}

static int PlayQuit(OPEN_WORK *spWork)
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
    } asVerbs[] = {
        {"RETR", PlayRetrieve}, {"STOR", PlayStore}, {"LIST", PlayList}, {"QUIT", PlayQuit}};

    for (const auto &sVerb : asVerbs)
    {
        if (strncmp(spWork->szCommand, sVerb.cpVerb, VERB_LENGTH) == 0) return sVerb.fpPlay(spWork);
    }
    return PlayPlain(spWork);
}

void xbsa_PlaySequence(OPEN_WORK *spWork)
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
