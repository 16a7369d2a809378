// The control connection, which only this room reads or writes.
//
// Promises: a line is received with all signals blocked, and no byte after it, unless the caller
// reads the rest of the connection. Replies are interpreted in one place. The three transfer
// commands return an accepted data connection, or have reported why there is none.
// Needs: data (a transfer command ends with the data connection), record, trace, util.
//
//   line.cpp      stpc_recv, stpc_send: one line in, one command out
//   reply.cpp     the meaning of a reply line, and its trace
//   port.cpp      PORT: the listener and its address
//   transfer.cpp  STOR, RETR, LIST
#ifndef STPC_STPC_H
#define STPC_STPC_H

// --- Lines (line.cpp) ---

// Bytes that arrived with a line and belong to the next one.
typedef struct
{
    char acBytes[256]; // most replies are shorter
    int iFrom;
    int iTo;
} STPC_REST;

// stpc_recv for a caller that reads the rest of the connection: bytes after the line may be
// received with it, and wait in spRest for the next call.
int stpc_RecvAhead(int SControl, char *szMessage, int iMsgLen, int iRecvOpt, STPC_REST *spRest);

// --- Replies (reply.cpp) ---

// Codes are compared as text, never converted.
#define REPLY_OPENING "150"  // the server opens the data connection
#define REPLY_DONE "200"     // PORT was accepted
#define REPLY_COMPLETE "226" // the transfer is complete

enum
{
    REPLY_CODE = 3 // characters of a code
};

bool stpc_IsReply(const char *szReply, const char *cpCode);
bool stpc_IsNegative(const char *szReply);

// Whether a line ends its reply. A line with "-" after its code begins a multi-line reply, which
// ends with the next line that begins with that code.
//   szOpenCode  REPLY_CODE + 1 bytes: code of the unfinished reply, or empty
bool stpc_EndsReply(const char *szLine, char *szOpenCode);

// Clears szReply (XBSA_REPLY_SIZE + 1 bytes) and reads one line into it. The spare byte terminates
// a line that fills the buffer. Returns 1, 0 if the peer closed, -1 for an error.
int stpc_ReadLine(int SControl, char *szReply);

// Traces a line of a reply, first as "LOGIN REPLY", then with the caller's label.
//   cpLabel  such as "Received message"
void stpc_TraceReply(const char *cpFunction, const char *cpLabel, const char *szReply);

// Reads and traces the one line that answers PORT or a transfer command. Returns 0, or -1 after
// reporting a receive error. If the peer closed, only the line shows it.
int stpc_ReadAnswer(int SControl, const char *cpFunction, char *szReply);

// --- Commands (port.cpp, transfer.cpp) ---

// Sends one line with a single call; a partly sent command is a failure. Returns 0, or -1 with
// errno.
int stpc_SendOnce(int SControl, const char *cpLine);

// stpc_port with options for the listener's socket, such as SOCK_NONBLOCK.
int stpc_Port(int SControl, int iOptions);

#endif
