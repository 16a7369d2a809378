// How the library's own code writes the trace. Off means one comparison: the arguments of a TRACE
// are not even evaluated.
#ifndef TRACE_TRACE_H
#define TRACE_TRACE_H

#include "xbsa_session.h"

// Shown in place of a password.
#define TRACE_SECRET "********"

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

// Traces an error text behind the function's name. The text is made whether anybody listens or not,
// since it is the session's last message too: i_Report("xbsa_connect", SysErrorTxt(...)).
void i_Report(const char *cpFunction, const char *cpErrorText);

// Bounded copy into a field of the record that says in the trace when it had to cut. Returns 1 then,
// else 0.
int i_CopyField(const char *cpWhat, char *cpField, size_t uSize, const char *cpText);

// The level byte of a decimal text (its low eight bits), with the log switched on.
unsigned char i_LevelToLog(const char *cpText);

// Makes the owner text fit for the trace: what follows the tag of the second token is hidden.
//   cpMasked  receives the text, at least 64 + sizeof(TRACE_SECRET) bytes
void i_MaskOwner(char *cpMasked, size_t uSize, const char *cpOwner);

// A server's reply with the password of the login hidden. Returns the reply itself where there is
// nothing to hide, else a static text, valid until the next call.
const char *i_MaskReply(const char *cpReply);

// Lets go of log and buffer when the library is unloaded.
void i_ReleaseTrace();

#endif
