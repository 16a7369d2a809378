// What each line tells of the session that it belongs to.
#ifndef XBSACTL_TRACELOG_STEPS_H
#define XBSACTL_TRACELOG_STEPS_H

#include "trace/lines.h"
#include "trace/rules.h"
#include "trace/session.h"

// The function that wrote the line; null when it tells nothing of a session.
const FUNCTION *steps_Writer(const LOG_LINE &I_sLine);

// Takes a line into the session. strSign of the session says so when it cannot be its next line.
void steps_Take(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sWriter);

// Says that the line cannot be the session's.
void steps_SetSign(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine);

// Keeps the error unless an earlier one tells as much.
void steps_NoteError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, bool I_bWeak);

#endif
