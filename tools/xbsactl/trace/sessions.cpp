#include "trace/sessions.h"

#include <algorithm>
#include <array>
#include <utility>

#include "trace/steps.h"

namespace
{
constexpr size_t OPEN_SESSIONS = 16; // that may go on at a time, or wait for such a one

constexpr std::string_view INIT_HANDLE = "BSAInit: BSA Handle (process ID) = ";
constexpr std::string_view DATA_HANDLE = "BSAEndData: Start - bsaHandle = ";
constexpr std::array<std::string_view, 4> HANDLES = {
    INIT_HANDLE, "BSABeginTxn: Start, Input: bsaHandle = ", "BSAEndTxn: Start, Input: bsaHandle = ",
    DATA_HANDLE};

// The handle that a line names, 0 for none.
long HandleOf(std::string_view I_svText)
{
    if (!lines_StartsWith(I_svText, "BSA") || lines_StartsWith(I_svText, "BSASend")) return 0;
    for (std::string_view svStart : HANDLES)
    {
        if (!lines_StartsWith(I_svText, svStart)) continue;
        I_svText.remove_prefix(svStart.size());
        return static_cast<long>(lines_TakeNumber(I_svText));
    }
    return 0;
}

void Extend(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine)
{
    X_sSession.uLastLine = I_sLine.uNumber;
    if (X_sSession.iLast == I_sLine.iTime && !X_sSession.strLast.empty()) return;
    X_sSession.iLast = I_sLine.iTime;
    X_sSession.strLast = I_sLine.svStamp;
}

void AddHandle(TRACE_SESSION &X_sSession, long I_lHandle)
{
    if (X_sSession.setHandles.size() < MIXED_HANDLES) X_sSession.setHandles.insert(I_lHandle);
}

// A copy that an answer named may be another process's; the close of the job names it again.
void AddObjects(TRACE_SESSION &X_sInto, const std::vector<STEP> &I_vecSteps)
{
    for (STEP sStep : I_vecSteps)
    {
        if (sStep.eKind != STEP_KIND::OBJECT) continue;
        if (!sStep.strJob.empty()) sStep.strResult.clear();
        session_AddStep(X_sInto, sStep);
    }
}

void Absorb(TRACE_SESSION &X_sInto, const TRACE_SESSION &I_sFrom)
{
    for (const long lHandle : I_sFrom.setHandles) AddHandle(X_sInto, lHandle);
    AddObjects(X_sInto, session_Steps(I_sFrom));
    X_sInto.uProcesses += I_sFrom.uProcesses;
    X_sInto.uTerminated += I_sFrom.uTerminated;
    if (I_sFrom.uLastLine > X_sInto.uLastLine)
    {
        X_sInto.uLastLine = I_sFrom.uLastLine;
        X_sInto.strLast = I_sFrom.strLast;
        X_sInto.iLast = I_sFrom.iLast;
    }
    if (!X_sInto.strError.empty() || I_sFrom.strError.empty()) return;
    X_sInto.strError = I_sFrom.strError;
    X_sInto.strErrorStamp = I_sFrom.strErrorStamp;
    X_sInto.uErrorLine = I_sFrom.uErrorLine;
}

// Only what still is true of lines of several processes.
void BecomeMixed(TRACE_SESSION &X_sSession, const std::string &I_strSign)
{
    if (session_IsMixed(X_sSession)) return;
    X_sSession.strMixed = I_strSign;
    const std::vector<STEP> vecSteps = session_Steps(X_sSession);
    X_sSession.vecSteps.clear();
    X_sSession.deqSteps.clear();
    X_sSession.uObjects = X_sSession.uLeftOut = 0;
    AddObjects(X_sSession, vecSteps);
}
} // namespace

CSessions::CSessions(SINK I_fpSink) : fpSink(std::move(I_fpSink))
{
}

void CSessions::Open(const LOG_LINE &I_sLine, bool I_bHead)
{
    TRACE_SESSION sSession;
    sSession.bHead = I_bHead;
    sSession.uCall = I_bHead ? IN_NONE : IN_UNKNOWN;
    sSession.bReplies = lines_StartsWith(I_sLine.svText, "LOGIN REPLY: ");
    sSession.uFirstLine = I_sLine.uNumber;
    sSession.iFirst = I_sLine.iTime;
    sSession.strFirst = I_sLine.svStamp;
    deqSessions.push_back(std::move(sSession));
    uCurrent = deqSessions.size() - 1;
}

TRACE_SESSION &CSessions::Current(const LOG_LINE &I_sLine)
{
    const std::string_view svText = I_sLine.svText;
    const bool bReply = lines_StartsWith(svText, "LOGIN REPLY: ");
    const bool bReplies = uCurrent != NONE && deqSessions[uCurrent].bReplies;
    if (bReplies && bReply && lines_StartsWith(svText.substr(13), "220")) End(); // next connection
    if (lines_StartsWith(svText, "BSAInit: Start"))
    {
        if (bReplies) End();
        Open(I_sLine, true);
    }
    else if (uCurrent == NONE) Open(I_sLine, false);
    if (!bReply) deqSessions[uCurrent].bReplies = false;
    return deqSessions[uCurrent];
}

// Another one than the current, that may go on still or, where asked for, had its BSATerminate.
size_t CSessions::FindOther(long I_lHandle, bool I_bTerminated) const
{
    for (size_t uPlace = 0; uPlace < deqSessions.size(); uPlace++)
    {
        const TRACE_SESSION &sSession = deqSessions[uPlace];
        const bool bFits = !sSession.bEnded || (I_bTerminated && sSession.bTerminated);
        if (uPlace != uCurrent && bFits && session_HasHandle(sSession, I_lHandle)) return uPlace;
    }
    return NONE;
}

// One that was interrupted in its BSAInit, before it had a handle.
size_t CSessions::FindNameless() const
{
    for (size_t uPlace = 0; uPlace < deqSessions.size(); uPlace++)
    {
        const TRACE_SESSION &sSession = deqSessions[uPlace];
        if (uPlace != uCurrent && !sSession.bEnded && sSession.bHead && sSession.setHandles.empty())
            return uPlace;
    }
    return NONE;
}

// The current one and another become one block, and go on as such.
void CSessions::Merge(size_t I_uOther, const std::string &I_strSign)
{
    const size_t uInto = std::min(I_uOther, uCurrent);
    const size_t uFrom = std::max(I_uOther, uCurrent);
    const std::string strEarlier = deqSessions[uCurrent].strMixed;
    BecomeMixed(deqSessions[uInto], strEarlier.empty() ? I_strSign : strEarlier);
    Absorb(deqSessions[uInto], deqSessions[uFrom]);
    deqSessions[uInto].bEnded = false;
    deqSessions.erase(deqSessions.begin() + static_cast<std::ptrdiff_t>(uFrom));
    uCurrent = uInto;
}

// A session gets its handle. When an interrupted one had it, that one has ended in another BSAInit,
// or it goes on here: then what interrupted it was another process. When one had it that was
// terminated, the BSATerminate was another process's.
void CSessions::Adopt(long I_lHandle, const LOG_LINE &I_sLine, bool I_bInit)
{
    const size_t uEarlier = FindOther(I_lHandle, !I_bInit);
    AddHandle(deqSessions[uCurrent], I_lHandle);
    if (uEarlier == NONE) return;
    if (I_bInit && !session_IsMixed(deqSessions[uEarlier]))
    {
        deqSessions[uEarlier].bReplaced = true;
        deqSessions[uEarlier].bEnded = true;
        return;
    }
    Merge(uEarlier, "handle " + std::to_string(I_lHandle) + " comes back at line " +
                        std::to_string(I_sLine.uNumber));
}

// A handle that others than the current one may have had.
void CSessions::AddForeign(long I_lHandle, const std::string &I_strSign)
{
    size_t uOwner = FindOther(I_lHandle, false);
    if (uOwner == NONE) uOwner = FindNameless();
    if (uOwner != NONE && !session_HasHandle(deqSessions[uCurrent], I_lHandle))
        Merge(uOwner, I_strSign);
    BecomeMixed(deqSessions[uCurrent], I_strSign);
    AddHandle(deqSessions[uCurrent], I_lHandle);
}

void CSessions::TakeHandle(long I_lHandle, const LOG_LINE &I_sLine, bool I_bInit)
{
    TRACE_SESSION &sSession = deqSessions[uCurrent];
    if (session_IsMixed(sSession)) AddForeign(I_lHandle, std::string(sSession.strMixed));
    else if (sSession.setHandles.empty()) Adopt(I_lHandle, I_sLine, I_bInit);
    else if (!session_HasHandle(sSession, I_lHandle)) sSession.lForeignHandle = I_lHandle;
}

// A caller that names a wrong handle is told so in the next line.
void CSessions::JudgeForeignHandle(const LOG_LINE &I_sLine)
{
    if (uCurrent == NONE || deqSessions[uCurrent].lForeignHandle == 0) return;
    TRACE_SESSION &sSession = deqSessions[uCurrent];
    const long lHandle = std::exchange(sSession.lForeignHandle, 0);
    if (I_sLine.svText.find("Invalid Handle") != std::string_view::npos ||
        I_sLine.svText.find("Return: 6 ") != std::string_view::npos)
        return;
    AddForeign(lHandle, "handle " + std::to_string(lHandle) + " comes in between before line " +
                            std::to_string(I_sLine.uNumber));
}

// It ends when all of its processes have, those too that only a handle tells of.
void CSessions::TakeMixed(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine)
{
    X_sSession.uCall = IN_UNKNOWN;
    X_sSession.bTotalKnown = false;
    X_sSession.bNamed = false;
    X_sSession.bTerminated = false;
    X_sSession.strSign.clear();
    X_sSession.uProcesses = std::max(X_sSession.uProcesses, X_sSession.setHandles.size());
    if (!lines_StartsWith(I_sLine.svText, "BSATerminate: Closing")) return;
    if (++X_sSession.uTerminated >= X_sSession.uProcesses) End();
}

// The BSAInit of a process that has a session already is refused, and that session goes on.
void CSessions::FoldRejected()
{
    const TRACE_SESSION sRejected = deqSessions[uCurrent];
    deqSessions.pop_back();
    uCurrent = deqSessions.size() - 1;
    TRACE_SESSION &sSession = deqSessions[uCurrent];
    sSession.bFailed = true;
    for (const STEP &sStep : session_Steps(sRejected)) session_AddStep(sSession, sStep);
    if (!sSession.strError.empty()) return;
    sSession.strError = sRejected.strError;
    sSession.strErrorStamp = sRejected.strErrorStamp;
    sSession.uErrorLine = sRejected.uErrorLine;
}

// The last line may be cut anywhere: what fits is taken, and nothing is concluded from the rest.
void CSessions::TakeCut(const LOG_LINE &I_sLine, const FUNCTION &I_sWriter)
{
    TRACE_SESSION &sSession = Current(I_sLine);
    TRACE_SESSION sNext = sSession;
    steps_Take(sNext, I_sLine, I_sWriter);
    if (sNext.strSign.empty()) sSession = sNext;
    Extend(sSession, I_sLine);
}

// What a line that was taken says of the sessions as such.
void CSessions::Judge(const LOG_LINE &I_sLine)
{
    TRACE_SESSION &sSession = deqSessions[uCurrent];
    if (!session_IsMixed(sSession) && !sSession.strSign.empty())
        BecomeMixed(sSession, sSession.strSign);
    if (session_IsMixed(sSession)) TakeMixed(sSession, I_sLine);
    else if (sSession.bTerminated) End();
    else if (sSession.bRejected && sSession.uCall == IN_NONE && uCurrent > 0 &&
             !deqSessions[uCurrent - 1].bEnded && sSession.setHandles.empty())
        FoldRejected();
}

void CSessions::Take(const LOG_LINE &I_sLine)
{
    if (!I_sLine.bTrace) return;
    JudgeForeignHandle(I_sLine);
    const FUNCTION *spWriter = steps_Writer(I_sLine);
    if (spWriter == nullptr)
    {
        if (uCurrent != NONE) deqSessions[uCurrent].bReplies = false;
        return;
    }
    if (!I_sLine.bWhole) return TakeCut(I_sLine, *spWriter);
    TRACE_SESSION &sSession = Current(I_sLine);
    Extend(sSession, I_sLine);
    steps_Take(sSession, I_sLine, *spWriter);
    if (const long lHandle = HandleOf(I_sLine.svText); lHandle != 0)
        TakeHandle(lHandle, I_sLine, lines_StartsWith(I_sLine.svText, INIT_HANDLE));
    Extend(deqSessions[uCurrent], I_sLine);
    Judge(I_sLine);
    Flush(OPEN_SESSIONS);
}

void CSessions::End()
{
    deqSessions[uCurrent].bEnded = true;
    uCurrent = NONE;
}

void CSessions::Flush(size_t I_uKeep)
{
    while (!deqSessions.empty() && (deqSessions[0].bEnded || deqSessions.size() > I_uKeep))
    {
        deqSessions[0].uNumber = ++uSessions;
        fpSink(deqSessions[0]);
        deqSessions.pop_front();
        uCurrent = uCurrent == 0 || uCurrent == NONE ? NONE : uCurrent - 1;
    }
}

void CSessions::Finish()
{
    Flush(0);
}
