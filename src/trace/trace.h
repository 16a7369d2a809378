// The library's messages: trace, error texts, last message.
//
// Promises: a switched-off trace costs one comparison and does not evaluate the arguments of TRACE.
// A line is one write, never raises a signal and never goes into a file of the host. errno does not
// change. The last message is the first error since BSAGetLastError. Passwords are masked in both.
// Needs: record, util. Save errno before you trace.
//
//   trace.cpp     sends messages to the caller's sink, the log and standard error
//   log.cpp       opens, names and closes the log
//   errors.cpp    texts of failures; messages.cpp contains the tables
//   secrets.cpp   masks passwords
//   dump.cpp      hex dump
#ifndef TRACE_TRACE_H
#define TRACE_TRACE_H

#include "xbsa_session.h"

// Shown instead of a password.
#define TRACE_SECRET "********"

enum
{
    OWNER_TAG = 5 // characters before the value in an owner token, such as "user="
};

inline int i_Verbosity()
{
    return sGlobal.ucXBSATraceLevel & TRACE_VERBOSITY;
}

// Composes one line in the trace buffer and sends it to ie_trace.
void i_TraceLine(const char *cpFormat, ...) __attribute__((format(printf, 1, 2), cold));

#define TRACE_WHEN(bCondition, ...)                                                                \
    do                                                                                             \
    {                                                                                              \
        if (bCondition) i_TraceLine(__VA_ARGS__);                                                  \
    } while (0)

#define TRACE(...) TRACE_WHEN(i_Verbosity() >= TRACE_STEPS, __VA_ARGS__)      // each step
#define TRACE_CALL(...) TRACE_WHEN(i_Verbosity() == TRACE_CALLS, __VA_ARGS__) // each system call
#define TRACE_REPLY(...) TRACE_WHEN(i_Verbosity() > 0, __VA_ARGS__)           // server's replies

// A failure that callers may fetch: sets the last message if it is empty, and traces the text after
// the function's name.
//   ulError  errno, or 0 for the description alone
// Returns -1.
int i_Fail(const char *cpFunction, unsigned long ulError, const char *cpFormat, ...)
    __attribute__((format(printf, 3, 4)));

// The same for a failure with another trace line, or none.
void i_KeepMessage(unsigned long ulError, const char *cpFormat, ...)
    __attribute__((format(printf, 2, 3)));

// Bounded copy into a field of the record. If it cuts the text, it traces that and returns 1, else
// 0.
int i_CopyField(const char *cpWhat, char *cpField, size_t uSize, const char *cpText);

// The low eight bits of a decimal text as level byte, with the log switched on.
unsigned char i_LevelToLog(const char *cpText);

// Masks the owner text for the trace: hides what follows the tag of the second token.
//   cpMasked  receives the text, at least 64 + sizeof(TRACE_SECRET) bytes
void i_MaskOwner(char *cpMasked, size_t uSize, const char *cpOwner);

// Masks the password of the login in a server's reply. Returns the reply itself if there is nothing
// to mask, else a text that is valid until the next call.
const char *i_MaskReply(const char *cpReply);

// Releases log and buffer. Called when the library is unloaded.
void i_ReleaseTrace();

#endif
