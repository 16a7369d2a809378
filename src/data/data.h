// The data connection, from its listener to its end.
//
// Promises: the library does not wait for ever for a connection that will not come. A process that
// dies during a backup resets the connection, so that no server takes half an object for a whole
// one. A full block is one system call. Functions return results with errno; callers write the
// messages.
// Needs: record, trace, util.
//
//   new listener          data_SetKeepAlive      inherited by the connection
//                         data_SetBuffers
//                         data_ShareRange        for its port
//                         x_ResetAtClose         for a store, until its orderly end
//   after the 150         data_Accept            or a refusal, a close, a time-out
//   store                 data_LimitRate
//   blocks                data_Send, data_SendOn, data_Receive
//   end of a good store   data_EndOrderly, then close
//   end of a broken one   x_Reset, then close
//   server gone           data_NoteLoss          no more long waits for a reply
#ifndef DATA_DATA_H
#define DATA_DATA_H

#include <cerrno>
#include <sys/socket.h>

#include "record/record.h"

// Options of a listener that its connections inherit. A server that vanishes while a connection is
// idle is noticed after 60 + 8 * 15 seconds. A slow server answers the probes.
void data_SetKeepAlive(int hListener);

// KORVA_SOCKET_BUFFER. Must be set before listen(): connections inherit the buffers, which
// determine the window scale that they announce.
void data_SetBuffers(int hListener);

// KORVA_RATE_LIMIT, for the connection of a store. The system paces the packets, so a block costs
// nothing. If the system cannot do this, the store runs at full speed.
void data_LimitRate(int hData);

// With KORVA_PORT_RANGE, sets whether another listener may share the port of a socket. The system
// remembers a connection for a minute after its end, which would limit a hundred ports to a hundred
// objects per minute. So an ended connection shares its port with the next listener. A live one
// does not, because a server that always connects from its port 20 could not reach both.
void data_ShareRange(int hSocket, bool bShare);

// Why the wait for the connection ended.
enum
{
    DATA_FAILED = -1, // errno says why
    DATA_REFUSED = -2 // a negative reply waits on the control connection
};

// Waits for the server's connection, for BSA_TIMEOUT seconds if that is set.
//   hListener   set to O_NONBLOCK, because the connection usually waits already
//   fpRefuses   whether a reply that begins with this byte means that no connection will come
//   cpFunction  name for the trace
// Returns the data socket, which the caller closes, or one of the two values above.
int data_Accept(int hListener, int SControl, bool (*fpRefuses)(const char *szReply),
                const char *cpFunction);

// Sends the rest of a block once.
inline ssize_t data_Send(const BSA_DataBlock *spBlock, size_t uSent)
{
    return send(xbsa_DataSocket(), spBlock->bufferPtr + uSent, spBlock->bufferLen - uSent,
                MSG_NOSIGNAL);
}

// How far a block got.
typedef struct
{
    unsigned int uMoved; // bytes
    ssize_t iLast;       // result of the last call
} DATA_PROGRESS;

// Sends what the first send of a block left, and retries each failed send five times.
//   iFirst  result of that send
DATA_PROGRESS data_SendOn(const BSA_DataBlock *spBlock, ssize_t iFirst);

// Receives until the block is full or the server has closed. Sets errno after a failure.
inline DATA_PROGRESS data_Receive(const BSA_DataBlock *spBlock)
{
    DATA_PROGRESS sRead = {0, 0};
    while (sRead.uMoved < spBlock->bufferLen)
    {
        errno = 0;
        sRead.iLast = recv(xbsa_DataSocket(), spBlock->bufferPtr + sRead.uMoved,
                           spBlock->bufferLen - sRead.uMoved, 0);
        if (sRead.iLast < 1) break;
        sRead.uMoved += static_cast<unsigned int>(sRead.iLast);
    }
    return sRead;
}

// Records that the server has vanished if the error of a send or receive shows it.
void data_NoteLoss(int iError);

// Announces the end of a whole object, even if a child of the host shares the connection. Returns
// false with errno if the connection had ended before.
bool data_EndOrderly(int hData);

#endif
