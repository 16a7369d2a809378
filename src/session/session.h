// The conversation with the server for one object, from the connect to QUIT.
//
// Promises: after a successful open the record contains both connections. After a failed one the
// job is closed as failed, and nothing was stored under a wrong name. The end always sends QUIT,
// whatever happened before. A failure sets a last message.
// Needs: stpc, data, com (a failed open and the end close the job), record, trace, util.
//
//   connect.cpp    the control connection and its options
//   identity.cpp   the login made of account and host
//   commands.cpp   the list of command lines, and what is refused in them
//   sequence.cpp   sends the list and reads the replies
//   open.cpp       xbsa_open: all of these in order
//   close.cpp      the end of an object: data, closing reply, QUIT, job
#ifndef SESSION_SESSION_H
#define SESSION_SESSION_H

#include "stpc/stpc.h"
#include "xbsa_session.h"

// Positions of the lines in the command list.
enum
{
    SLOT_USER,
    SLOT_PASS,
    SLOT_TYPE,
    SLOT_CWD,
    SLOT_TRANSFER,
    SLOT_QUIT
};

// Buffers of one open, on the heap because the host's stack may be small. Each text has one spare
// byte, because a reply that fills its buffer has no terminator.
typedef struct
{
    char *cpaCommands[XBSA_COMMAND_SLOTS];
    char szSlots[XBSA_COMMAND_SLOTS][XBSA_REPLY_SIZE];
    char szLine[XBSA_REPLY_SIZE + 1];    // the line sent or received
    char szCommand[XBSA_REPLY_SIZE + 1]; // the command in upper case
    char szPlain[XBSA_REPLY_SIZE + 1];   // the command as prepared
    char szOpenCode[REPLY_CODE + 1];     // code of an unfinished multi-line reply, or empty
    int iMode;
    int iSlot;
    int SData; // the result
} OPEN_WORK;

// Sends the prepared list; leaves the data socket, or -1, in SData.
void xbsa_PlaySequence(OPEN_WORK *spWork);

// Ends the object: closes the data connection, reads the closing reply, sends QUIT, closes the job.
//   iCall  result of the checks; a rejected call leaves the data connection unchanged
// Returns the result of BSAEndData before it is mapped to one of two codes.
int xbsa_EndObject(int iCall);

#endif
