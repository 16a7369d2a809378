// Bounded handling of texts; nothing here knows the session record.
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

#endif
