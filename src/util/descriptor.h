// Descriptors and sockets by their numbers; nothing here knows the session record.
#ifndef UTIL_DESCRIPTOR_H
#define UTIL_DESCRIPTOR_H

// What a descriptor number denotes. The host may close a number of ours and use it for something else.
typedef struct
{
    unsigned long long ullDevice;
    unsigned long long ullInode;
    long long llSize; // bytes, of a regular file
    bool bRegular;    // a regular file
    bool bSocket;
} FILE_ID;

// Returns false for a number that is not open.
bool x_Identify(int hDescriptor, FILE_ID *spFile);

// Whether the number still denotes that file or socket.
bool x_IsSame(int hDescriptor, const FILE_ID *spFile);

// Whether the number denotes a socket.
bool x_IsSocket(int hDescriptor);

// Moves a descriptor to 3 or above, close-on-exec: a host may have closed 0, 1 and 2, and a socket
// must not become its standard error. Takes -1 too. Returns the new number, or -1 with errno.
int x_HighDescriptor(int hDescriptor);

// A second number for an open socket, 3 or above, close-on-exec. Returns -1 with errno.
int x_Duplicate(int hSocket);

// Makes the close of a connection a reset: to a server the plain end of one means a whole object.
void x_ResetAtClose(int hSocket);

// Resets a connection now, for every process that holds it, and drops what was not sent.
void x_Reset(int hSocket);

// Waits until bytes or the end have arrived on a socket. Returns false when the time ran out.
bool x_AwaitBytes(int hSocket, int iMilliseconds);

// The error that the network has left on a socket, 0 for none.
int x_SocketError(int hSocket);

#endif
