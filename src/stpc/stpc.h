// Inside of the transfer protocol client.
#ifndef STPC_STPC_H
#define STPC_STPC_H

// One of the three transfer commands.
typedef struct
{
    const char *cpVerb;     // as sent
    const char *cpFunction; // as traced
} STPC_TRANSFER;

// Sends one line with a single call: a command in two pieces is a failure. Returns 0 or -1 with
// errno.
int stpc_SendOnce(int SControl, const char *cpLine);

// Reads one reply into szReply (XBSA_REPLY_SIZE + 1 bytes) and traces it.
// Returns 0, or -1 after having reported the receive error.
int stpc_ReadReply(int SControl, const char *cpFunction, char *szReply);

// Waits for the server's data connection while it may still refuse on the control connection.
// Returns the data socket, the caller's, or -1 after having reported the failure.
int stpc_Accept(int hListener, int SControl, const STPC_TRANSFER *spTransfer);

// Reports "VERB failed. NEGATIVE reply: ...".
void stpc_ReportNegative(const STPC_TRANSFER *spTransfer, const char *cpReply);

#endif
