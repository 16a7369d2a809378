// The control connection: commands and replies.
#include "trace/takes.h"

#include "trace/marks.h"
#include "trace/steps.h"
#include "trace/text.h"

void take_User(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/, std::string_view I_svRest)
{
    X_sSession.strUser = text_Clean(I_svRest);
}

void take_Connect(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    X_sSession.strHost = text_Clean(I_svRest);
    marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "connect to " + X_sSession.strHost);
}

void take_Connected(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    marks_End(X_sSession, I_sLine, "connected", false);
}

void take_Broken(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    steps_NoteError(X_sSession, I_sLine, true);
    marks_End(X_sSession, I_sLine, "failed", true);
}

void take_Greeting(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "greeting");
}

void take_SentCommand(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, text_Clean(I_svRest));
    if (lines_StartsWith(I_svRest, "USER ")) take_User(X_sSession, I_sLine, I_svRest.substr(5));
}

// A reply of several lines ends with the one that has no "-" behind its code.
void take_Reply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (I_svRest.size() > 3 && I_svRest[3] == '-') return;
    marks_End(X_sSession, I_sLine, text_Clean(I_svRest), marks_IsRefusal(I_svRest));
}

void take_TransferReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                        std::string_view I_svRest)
{
    const bool bPositive = lines_StartsWith(I_svRest, "1");
    take_Reply(X_sSession, I_sLine, I_svRest);
    if (bPositive)
        marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "the server's data connection");
}

// At level 1 each reply stands alone.
void take_LoginReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (marks_IsRefusal(I_svRest)) steps_NoteError(X_sSession, I_sLine, true);
    if (X_sSession.bReplies) marks_Add(X_sSession, I_sLine, STEP_KIND::REPLY, text_Clean(I_svRest));
}
