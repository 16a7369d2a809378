// Inside of the transfer protocol client.
#ifndef STPC_STPC_H
#define STPC_STPC_H

// One of the three transfer commands.
typedef struct
{
    const char *cpVerb;     // as sent
    const char *cpFunction; // as traced
} STPC_TRANSFER;

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

// stpc_port with options for the listener's socket, such as SOCK_NONBLOCK.
int stpc_Port(int SControl, int iOptions);

// Sends one line with a single call: a command in two pieces is a failure. Returns 0 or -1 with
// errno.
int stpc_SendOnce(int SControl, const char *cpLine);

// Reads one reply into szReply (XBSA_REPLY_SIZE + 1 bytes) and traces it.
// Returns 0, or -1 after having reported the receive error.
int stpc_ReadReply(int SControl, const char *cpFunction, char *szReply);

// Waits for the server's data connection while it may still refuse on the control connection.
//   hListener  set to O_NONBLOCK: as a rule the connection is there already
// Returns the data socket, the caller's, or -1 after having reported the failure.
int stpc_Accept(int hListener, int SControl, const STPC_TRANSFER *spTransfer);

// Reports "VERB failed. NEGATIVE reply: ...".
void stpc_ReportNegative(const STPC_TRANSFER *spTransfer, const char *cpReply);

#endif
