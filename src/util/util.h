// The lowest room: texts of fixed size, descriptors, files to append to, memory, environment,
// stopwatch.
//
// Promises: nothing here uses the session record or writes a trace. No copy runs past its target;
// the result shows whether a text was cut. After a failed call on a descriptor, errno shows why.
// Functions that callers of the library may use too are declared in xbsa_session.h.
// Needs: only the C library.
#ifndef UTIL_UTIL_H
#define UTIL_UTIL_H

#include <cstddef>
#include <sys/types.h>

// --- Texts (text.cpp) ---

// Copies a text of at most uMaxLength bytes (it may lack a terminator) and terminates the copy.
// Returns 1 if the text was cut because it did not fit into uSize bytes, else 0.
int x_CopyText(char *cpTarget, size_t uSize, const char *cpText, size_t uMaxLength);

// The same for a terminated text.
int x_CopyText(char *cpTarget, size_t uSize, const char *cpText);

// atoi that stops at the limits of an int instead of wrapping: 4294967317 is not port 21.
int x_Number(const char *cpText);

// strtol and strtoul. With glibc 2.38 or later these names and atol compile to newer functions,
// which older hosts lack.
extern "C" long x_ToLong(const char *cpText, char **cppEnd, int iBase) __asm__("strtol");
extern "C" unsigned long x_ToULong(const char *cpText, char **cppEnd, int iBase) __asm__("strtoul");

// Whether the text contains a control character, such as CR or LF.
bool x_HasControl(const char *cpText);

// The first character that is not a space.
char *x_SkipSpaces(char *cpText);

// --- Descriptors (descriptor.cpp) ---

// What a descriptor refers to. The host may close our descriptor and reuse its number.
typedef struct
{
    unsigned long long ullDevice;
    unsigned long long ullInode;
    bool bRegular; // a regular file
    bool bSocket;
} FILE_ID;

// Returns false if the number is not open.
bool x_Identify(int hDescriptor, FILE_ID *spFile);

// Whether the number still refers to that file or socket.
bool x_IsSame(int hDescriptor, const FILE_ID *spFile);

// Whether the number is a socket.
bool x_IsSocket(int hDescriptor);

// Moves a descriptor to 3 or above and sets close-on-exec: a host may have closed 0, 1 and 2, and a
// socket must not become its standard error. Accepts -1. Returns the new number, or -1 with errno.
int x_AboveStandardError(int hDescriptor);

// A second number for an open socket, 3 or above, close-on-exec. Returns -1 with errno.
int x_Duplicate(int hSocket);

// Makes closing a connection a reset: for a server an orderly close means a whole object.
void x_ResetAtClose(int hSocket);

// Resets a connection now, for every process that shares it, and drops unsent data.
void x_Reset(int hSocket);

// Waits until bytes or the end have arrived on a socket. Returns false after a time-out.
bool x_AwaitBytes(int hSocket, int iSeconds);

// The pending error of a socket, or 0.
int x_SocketError(int hSocket);

// --- Files that lines are appended to (append.cpp) ---

typedef struct
{
    int hFile;   // opened by us; -1 none
    FILE_ID sID; // what hFile referred to then
} APPENDED;

// Opens the file, or creates it with mode 0600. Leaves hFile at -1 with errno after a failure.
//   bForStarter  the path comes from the user who started the process, who may have fewer rights
void x_OpenAppended(APPENDED *spFile, const char *cpPath, bool bForStarter);

// Whether the number still refers to the file: the host may have closed it.
bool x_IsOpen(const APPENDED *spFile);

void x_CloseAppended(APPENDED *spFile);

// Writes once, without raising a signal. Returns the result with errno.
ssize_t x_Append(const APPENDED *spFile, const char *cpLine, size_t uLength);

// The same for a descriptor that we did not open.
ssize_t x_WriteHeld(int hTarget, const char *cpLine, size_t uLength);

#endif
