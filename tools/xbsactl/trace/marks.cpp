#include "trace/marks.h"

#include "trace/steps.h"
#include "trace/text.h"

namespace
{
constexpr uint64_t NO_MATCH = 17; // codes that are answers, not failures
constexpr uint64_t NO_MORE_DATA = 18;

void AddFailure(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const std::string &I_strText)
{
    X_sSession.bFailed = true;
    STEP sStep;
    sStep.iStart = sStep.iEnd = I_sLine.iTime;
    sStep.bEnded = true;
    sStep.bFailed = true;
    sStep.strText = I_strText;
    session_AddStep(X_sSession, sStep);
}
} // namespace

void marks_Begin(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, STEP_KIND I_eKind,
                 const std::string &I_strText)
{
    if (X_sSession.bPending) session_AddStep(X_sSession, X_sSession.sPending);
    X_sSession.sPending = STEP{};
    X_sSession.sPending.eKind = I_eKind;
    X_sSession.sPending.iStart = X_sSession.sPending.iEnd = I_sLine.iTime;
    X_sSession.sPending.strText = I_strText;
    X_sSession.bPending = true;
}

void marks_End(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const std::string &I_strResult,
               bool I_bFailed)
{
    if (!X_sSession.bPending) return;
    X_sSession.bPending = false;
    X_sSession.sPending.iEnd = I_sLine.iTime;
    X_sSession.sPending.bEnded = true;
    X_sSession.sPending.bFailed = I_bFailed;
    X_sSession.sPending.strResult = I_strResult;
    session_AddStep(X_sSession, X_sSession.sPending);
}

void marks_Add(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, STEP_KIND I_eKind,
               const std::string &I_strText)
{
    STEP sStep;
    sStep.eKind = I_eKind;
    sStep.iStart = sStep.iEnd = I_sLine.iTime;
    sStep.bEnded = true;
    sStep.strText = I_strText;
    session_AddStep(X_sSession, sStep);
}

void marks_BeginData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const char *cpVerb)
{
    X_sSession.bData = true;
    X_sSession.sData = STEP{};
    X_sSession.sData.eKind = STEP_KIND::DATA;
    X_sSession.sData.strText = cpVerb;
    X_sSession.sData.iStart = X_sSession.sData.iEnd = I_sLine.iTime;
    X_sSession.iBlock = I_sLine.iTime;
}

void marks_EndData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine)
{
    if (!X_sSession.bData) return;
    X_sSession.bData = false;
    X_sSession.sData.iEnd = I_sLine.iTime;
    X_sSession.sData.bEnded = true;
    session_AddStep(X_sSession, X_sSession.sData);
}

void marks_GiveUpData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine)
{
    if (!X_sSession.bData) return;
    marks_EndData(X_sSession, I_sLine);
    AddFailure(X_sSession, I_sLine, "the object was given up: no BSAEndData");
}

void marks_Return(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svCode)
{
    X_sSession.uCall = IN_NONE;
    const uint64_t uCode = lines_TakeNumber(I_svCode);
    if (uCode == 0 || uCode == NO_MATCH || uCode == NO_MORE_DATA) return;
    steps_NoteError(X_sSession, I_sLine, true);
    AddFailure(X_sSession, I_sLine, text_Clean(I_sLine.svText));
}

bool marks_IsRefusal(std::string_view I_svReply)
{
    return !I_svReply.empty() && (I_svReply[0] == '4' || I_svReply[0] == '5');
}
