// The data connection, its whole life.
//
// Promises: nobody waits for ever for a connection that will not come; a process that dies in the middle
// of a backup resets the connection, so that no server takes half an object for a whole one; a full block
// is one system call. Results are results of calls with errno: messages are the callers' business.
// Needs: record, trace, util.
//
//   listener made         data_SetKeepAlive      inherited by the connection
//                         data_SetBuffers
//                         data_ShareRange        for its port
//   150 was read          data_Accept            or a refusal, the end, a time-out
//   store                 x_ResetAtClose         until the orderly end
//                         data_LimitRate
//   blocks                data_Send, data_SendOn, data_Receive
//   end of a good store   data_EndOrderly, then close
//   end of a broken one   x_Reset, then close
//   server gone           data_NoteLoss          no reply is worth a long wait any more
#ifndef DATA_DATA_H
#define DATA_DATA_H

#include <cerrno>
#include <sys/socket.h>

#include "record/record.h"

// Options of a listener that its connections inherit: on an idle connection a server that vanished is
// noticed after 60 + 8 * 15 seconds of silence; a slow one answers the probes and never is.
void data_SetKeepAlive(int hListener);

// KORVA_SOCKET_BUFFER, for a listener that does not listen yet: its connections inherit the buffers,
// and the window scale that they announce follows from them.
void data_SetBuffers(int hListener);

// KORVA_RATE_LIMIT, for the connection of a store. The system spreads the packets: a block costs
// nothing. One that cannot do it leaves the store as fast as it is.
void data_LimitRate(int hData);

// With KORVA_PORT_RANGE, whether the port of a socket is free for another listener already. The system
// remembers a connection for a minute after its end, so a hundred ports would carry a hundred objects
// each minute. An ended connection shares its port with the next listener; a live one does not, for a
// server that always connects from its port 20 could not reach both.
void data_ShareRange(int hSocket, bool bShare);

// What ended the wait for the connection.
enum
{
    DATA_FAILED = -1, // errno says why
    DATA_REFUSED = -2 // such a reply waits on the control connection
};

// Waits for the server's connection, for BSA_TIMEOUT seconds when that is set.
//   hListener   set to O_NONBLOCK: as a rule the connection is there already
//   fpRefuses   whether a reply of which the first byte is here means that no connection will come
//   cpFunction  name for the trace
// Returns the data socket, the caller's, or one of the two values above.
int data_Accept(int hListener, int SControl, bool (*fpRefuses)(const char *szReply),
                const char *cpFunction);

// One send of the rest of a block.
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

// Sends what the first send of a block left, with five retries for each send that fails.
//   iFirst  result of that send
DATA_PROGRESS data_SendOn(const BSA_DataBlock *spBlock, ssize_t iFirst);

// Receives until the block is full or the server has closed. Leaves errno after a failure.
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

// Notes that the server has vanished when the error of a send or receive says so.
void data_NoteLoss(int iError);

// Announces the end of a whole object; a child of the host that holds the connection too cannot hide
// it. Returns false with errno when the connection had ended before.
bool data_EndOrderly(int hData);

#endif
