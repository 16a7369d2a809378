// Bounded handling of texts and descriptors; nothing here knows the session record.
#ifndef UTIL_TEXT_H
#define UTIL_TEXT_H

#include <cstddef>

// Copies a text of at most uMaxLength bytes (it may lack its terminator) and terminates the copy.
// Returns 1 when the target's uSize bytes did not suffice and the text was cut, else 0.
int x_CopyText(char *cpTarget, size_t uSize, const char *cpText, size_t uMaxLength);

// The same for a terminated text.
int x_CopyText(char *cpTarget, size_t uSize, const char *cpText);

// atoi that stops at the limits of an int in place of wrapping: 4294967317 is no port 21.
int x_Number(const char *cpText);

// 1 when the text holds a control character (CR and LF among them), else 0.
int x_HasControl(const char *cpText);

// First character that is no space.
char *x_SkipSpaces(char *cpText);

// Moves a descriptor to 3 or above, close-on-exec: a host may have closed 0, 1 and 2, and a socket
// must not become its standard error. Takes -1 too. Returns the new number, or -1 with errno.
int x_HighDescriptor(int hDescriptor);

// Makes the close of a connection a reset: to a server the plain end of one means a whole object.
void x_ResetAtClose(int hSocket);

// Resets a connection now, for every process that holds it, and drops what was not sent.
void x_Reset(int hSocket);

#endif
