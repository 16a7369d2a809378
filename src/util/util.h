// The ground floor: texts of fixed size, descriptors by their numbers, files that lines are appended to,
// memory, environment, stopwatch.
//
// Promises: nothing here knows the session record or writes a trace, no copy runs past its target, a
// text that had to be cut is reported by the result, and errno says why a call on a descriptor
// failed. The functions that callers of the library may use too are declared in xbsa_session.h.
// Needs: the C library alone.
#ifndef UTIL_UTIL_H
#define UTIL_UTIL_H

#include <cstddef>
#include <sys/types.h>

// --- Texts (text.cpp) ---

// Copies a text of at most uMaxLength bytes (it may lack its terminator) and terminates the copy.
// Returns 1 when the target's uSize bytes did not suffice and the text was cut, else 0.
int x_CopyText(char *cpTarget, size_t uSize, const char *cpText, size_t uMaxLength);

// The same for a terminated text.
int x_CopyText(char *cpTarget, size_t uSize, const char *cpText);

// atoi that stops at the limits of an int instead of wrapping: 4294967317 is not port 21.
int x_Number(const char *cpText);

// strtol and strtoul. Under these names, and as atol, glibc 2.38 and later give newer functions to what
// is compiled there, which older hosts lack.
extern "C" long x_ToLong(const char *cpText, char **cppEnd, int iBase) __asm__("strtol");
extern "C" unsigned long x_ToULong(const char *cpText, char **cppEnd, int iBase) __asm__("strtoul");

// Whether the text holds a control character (CR and LF among them).
bool x_HasControl(const char *cpText);

// First character that is not a space.
char *x_SkipSpaces(char *cpText);

// --- Descriptors (descriptor.cpp) ---

// What a descriptor number denotes. The host may close a number of ours and use it for something else.
typedef struct
{
    unsigned long long ullDevice;
    unsigned long long ullInode;
    bool bRegular; // a regular file
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
int x_AboveStandardError(int hDescriptor);

// A second number for an open socket, 3 or above, close-on-exec. Returns -1 with errno.
int x_Duplicate(int hSocket);

// Makes the close of a connection a reset: to a server the plain end of one means a whole object.
void x_ResetAtClose(int hSocket);

// Resets a connection now, for every process that holds it, and drops what was not sent.
void x_Reset(int hSocket);

// Waits until bytes or the end have arrived on a socket. Returns false when the time ran out.
bool x_AwaitBytes(int hSocket, int iSeconds);

// The error that the network has left on a socket, 0 for none.
int x_SocketError(int hSocket);

// --- Files that lines are appended to (append.cpp) ---

typedef struct
{
    int hFile;   // of our own opening; -1 none
    FILE_ID sID; // what hFile denoted then
} APPENDED;

// Opens it, or makes it with mode 0600. Leaves hFile at -1 with errno after a failure.
//   bForStarter  the path comes from whoever started the process, who may have fewer rights
void x_OpenAppended(APPENDED *spFile, const char *cpPath, bool bForStarter);

// Whether the number still denotes the file: the host may have closed it.
bool x_IsOpen(const APPENDED *spFile);

void x_CloseAppended(APPENDED *spFile);

// One write without a signal for the host. Returns its result with errno.
ssize_t x_Append(const APPENDED *spFile, const char *cpLine, size_t uLength);

// The same for a descriptor that is not ours.
ssize_t x_WriteHeld(int hTarget, const char *cpLine, size_t uLength);

#endif
