// What each line tells of the session that it belongs to.
#ifndef XBSACTL_TRACELOG_STEPS_H
#define XBSACTL_TRACELOG_STEPS_H

#include "tracelog_lines.h"
#include "tracelog_session.h"

// Tells whether a line says something of a session; the others are told by no process in particular.
bool steps_Counts(const LOG_LINE &I_sLine);

// Takes a line into the session. strSign of the session says so when it cannot be its next line.
void steps_Take(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine);

// Keeps the error unless an earlier one tells as much.
void steps_NoteError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, bool I_bWeak);

#endif
