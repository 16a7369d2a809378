// How steps come into a session.
#ifndef XBSACTL_TRACELOG_MARKS_H
#define XBSACTL_TRACELOG_MARKS_H

#include <string>
#include <string_view>

#include "trace/lines.h"
#include "trace/session.h"

// A step begins; one that goes on still is kept as not ended.
void marks_Begin(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, STEP_KIND I_eKind,
                 const std::string &I_strText);
void marks_End(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const std::string &I_strResult,
               bool I_bFailed);

// A step without a duration.
void marks_Add(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, STEP_KIND I_eKind,
               const std::string &I_strText);

void marks_BeginData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const char *cpVerb);
void marks_EndData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine);
void marks_GiveUpData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine); // if it goes on

// A call has returned this code.
void marks_Return(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svCode);

bool marks_IsRefusal(std::string_view I_svReply); // 4xx, 5xx

#endif
