// The control connection: the only room that reads or writes it.
//
// Promises: a line is received with all signals blocked, and no byte after it is taken, except by
// somebody who reads all that is still to come. A reply is judged in one place. The three transfer
// commands hand out an accepted data connection or have reported why there is none.
// Needs: data (a transfer command ends with the data connection), record, trace, util.
//
//   line.cpp      stpc_recv, stpc_send: one line in, one command out
//   reply.cpp     what a line of a reply means, and its trace
//   port.cpp      PORT: the listener and its announcement
//   transfer.cpp  STOR, RETR, LIST
#ifndef STPC_STPC_H
#define STPC_STPC_H

// --- Lines (line.cpp) ---

// Bytes that were received with a line and belong to the next one.
typedef struct
{
    char acBytes[256]; // most replies are shorter
    int iFrom;
    int iTo;
} STPC_REST;

// stpc_recv for somebody who reads all that is still to come on this connection: bytes after the
// line may be received with it, and wait in spRest for the next call.
int stpc_RecvAhead(int SControl, char *szMessage, int iMsgLen, int iRecvOpt, STPC_REST *spRest);

// --- Replies (reply.cpp) ---

// Codes are compared as text, never converted.
#define REPLY_OPENING "150"  // the data connection is about to open
#define REPLY_DONE "200"     // PORT was accepted
#define REPLY_COMPLETE "226" // the transfer is complete

enum
{
    REPLY_CODE = 3 // characters of a code
};

bool stpc_IsReply(const char *szReply, const char *cpCode);
bool stpc_IsNegative(const char *szReply);

// Whether a line ends its reply: a line with "-" after its code opens a reply of several lines, which
// ends with the next line that begins with that code.
//   szOpenCode  REPLY_CODE + 1 bytes: code of the reply that is open; empty for none
bool stpc_EndsReply(const char *szLine, char *szOpenCode);

// Reads one line into szReply (XBSA_REPLY_SIZE + 1 bytes), cleared before it: a line that fills its room
// comes without a terminator. Returns 1, 0 when the peer closed, -1 for an error.
int stpc_ReadLine(int SControl, char *szReply);

// Traces a line of a reply, first as "LOGIN REPLY", then as the caller's own.
//   cpLabel  such as "Received message"
void stpc_TraceReply(const char *cpFunction, const char *cpLabel, const char *szReply);

// Reads and traces the one line that answers PORT or a transfer command. Returns 0, or -1 after having
// reported the receive error; a peer that closed shows in the line alone.
int stpc_ReadAnswer(int SControl, const char *cpFunction, char *szReply);

// --- Commands (port.cpp, transfer.cpp) ---

// Sends one line with a single call: a command in two pieces is a failure. Returns 0, or -1 with errno.
int stpc_SendOnce(int SControl, const char *cpLine);

// stpc_port with options for the listener's socket, such as SOCK_NONBLOCK.
int stpc_Port(int SControl, int iOptions);

#endif
