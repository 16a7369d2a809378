// What the lines mean that the library writes.
#ifndef XBSACTL_TRACE_TAKE_H
#define XBSACTL_TRACE_TAKE_H

#include "trace/lines.h"
#include "trace/session.h"

namespace trace
{
struct FUNCTION;

// The function of the library that wrote the line; null when the line belongs to no session.
const FUNCTION *Writer(const LOG_LINE &I_sLine);

// Takes a line into the session. strSign of its progress is set when the line cannot come there.
void Take(SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sWriter);
} // namespace trace

#endif
