// The calls: whose session it is, what is asked for, what they return.
#include "trace/takes.h"

#include "trace/marks.h"
#include "trace/steps.h"
#include "trace/text.h"

namespace
{
void AddPlainObject(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const char *cpWhat,
                    std::string_view I_svPath)
{
    const bool bUnknown = (X_sSession.uCall & IN_UNKNOWN) != 0;
    if (!X_sSession.bNamed && !bUnknown) steps_SetSign(X_sSession, I_sLine);
    const bool bPair = X_sSession.bNamed && !session_IsMixed(X_sSession);
    const std::string strName = bPair ? X_sSession.strName : "an object";
    X_sSession.bNamed = false;
    marks_Add(X_sSession, I_sLine, STEP_KIND::OBJECT,
              cpWhat + strName + " in " + text_Clean(I_svPath));
}
} // namespace

void take_Owner(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/, std::string_view I_svRest)
{
    X_sSession.strOwner = text_Clean(I_svRest);
}

void take_Informix(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/,
                   std::string_view /*rest*/)
{
    X_sSession.bInformix = true;
}

// A process writes name and path one behind the other: only then they are one object's.
void take_Name(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (X_sSession.bNamed) steps_SetSign(X_sSession, I_sLine);
    X_sSession.bNamed = true;
    X_sSession.strName = text_Clean(I_svRest);
}

void take_StorePath(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddPlainObject(X_sSession, I_sLine, "backup of ", I_svRest);
}

void take_ReadPath(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddPlainObject(X_sSession, I_sLine, "restore of ", I_svRest);
}

void take_Return(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    marks_Return(X_sSession, I_sLine, I_svRest);
}

// The code comes one line before the end of these calls.
void take_EarlyReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const unsigned uCall = X_sSession.uCall;
    marks_Return(X_sSession, I_sLine, I_svRest);
    X_sSession.uCall = uCall;
    X_sSession.bRejected = uCall == IN_INIT && lines_StartsWith(I_svRest, "5 ");
}

void take_CallEnd(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/,
                  std::string_view /*rest*/)
{
    X_sSession.uCall = IN_NONE;
}

void take_TransactionEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                         std::string_view /*rest*/)
{
    marks_GiveUpData(X_sSession, I_sLine);
    X_sSession.uCall = IN_NONE;
}

void take_Found(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    marks_Add(X_sSession, I_sLine, STEP_KIND::CALL,
              "found copy id " + text_Clean(I_svRest.substr(0, I_svRest.find(':'))));
}

void take_NoMatch(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    marks_Add(X_sSession, I_sLine, STEP_KIND::CALL, "found no match");
}

void take_Terminated(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    marks_GiveUpData(X_sSession, I_sLine);
    X_sSession.uCall = IN_NONE;
    X_sSession.bTerminated = true;
}

void take_TerminateError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                         std::string_view /*rest*/)
{
    X_sSession.uCall = IN_NONE;
    X_sSession.bFailed = true;
    steps_NoteError(X_sSession, I_sLine, true);
}
