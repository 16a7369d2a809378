// What the library says: the trace, error texts, the last message.
//
// Promises: off means one comparison, the arguments of a TRACE are not even evaluated. A line is one
// write, never raises a signal and never goes into a file of the host's. errno is as it was. The first
// error since BSAGetLastError stays the last message. A password reaches neither.
// Needs: record, util. Take errno first, trace second.
//
//   trace.cpp     from a message to the caller's sink, the log and standard error
//   log.cpp       opening, naming and closing the log
//   errors.cpp    texts of failures; messages.cpp has their tables
//   secrets.cpp   hides passwords
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

// A failure that callers may fetch: keeps it as the last message when there is none, and traces it
// after the function's name.
//   ulError  errno, or 0 for a description alone
// Returns -1.
int i_Fail(const char *cpFunction, unsigned long ulError, const char *cpFormat, ...)
    __attribute__((format(printf, 3, 4)));

// The same for a failure that has a trace line of its own, or none.
void i_KeepMessage(unsigned long ulError, const char *cpFormat, ...)
    __attribute__((format(printf, 2, 3)));

// Bounded copy into a field of the record that says in the trace when it had to cut. Returns 1 then,
// else 0.
int i_CopyField(const char *cpWhat, char *cpField, size_t uSize, const char *cpText);

// The level byte of a decimal text (its low eight bits), with the log switched on.
unsigned char i_LevelToLog(const char *cpText);

// Makes the owner text fit for the trace: what follows the tag of the second token is hidden.
//   cpMasked  receives the text, at least 64 + sizeof(TRACE_SECRET) bytes
void i_MaskOwner(char *cpMasked, size_t uSize, const char *cpOwner);

// A server's reply with the password of the login hidden. Returns the reply itself where there is
// nothing to hide, else a text that is valid until the next call.
const char *i_MaskReply(const char *cpReply);

// Lets go of log and buffer; the unloading of the library calls it.
void i_ReleaseTrace();

#endif
