#include "trace/parts.h"

#include <algorithm>
#include <utility>

namespace trace
{
namespace
{
constexpr size_t OPEN_SESSIONS = 16; // that may go on at a time, or wait for such a one

// A copy that an answer named may be another process's; the close of the job names it again.
void AddObjects(SESSION &X_sInto, const std::vector<STEP> &I_vecSteps)
{
    for (STEP sStep : I_vecSteps)
    {
        if (!sStep.strJob.empty()) sStep.strResult.clear();
        if (sStep.eKind == KIND::OBJECT) X_sInto.AddStep(sStep);
    }
}

void Absorb(SESSION &X_sInto, const SESSION &I_sFrom)
{
    for (const long lHandle : I_sFrom.setHandles) X_sInto.AddHandle(lHandle);
    AddObjects(X_sInto, I_sFrom.Steps());
    X_sInto.sMixture.uProcesses += I_sFrom.sMixture.uProcesses;
    X_sInto.sMixture.uTerminated += I_sFrom.sMixture.uTerminated;
    if (I_sFrom.sLast.uLine > X_sInto.sLast.uLine) X_sInto.sLast = I_sFrom.sLast;
    if (!X_sInto.sError) X_sInto.sError = I_sFrom.sError;
}

// Only what still is true of lines of several processes.
void BecomeMixed(SESSION &X_sSession, const std::string &I_strSign)
{
    if (X_sSession.IsMixed()) return;
    const std::vector<STEP> vecSteps = X_sSession.Steps();
    X_sSession.sMixture.strSign = I_strSign;
    X_sSession.sSteps = CSteps();
    AddObjects(X_sSession, vecSteps);
}
} // namespace

CSessions::CSessions(SINK I_fpSink) : fpSink(std::move(I_fpSink))
{
}

// The session that the line goes to; at level 1 the next connection is the next session.
void CSessions::Choose(const LOG_LINE &I_sLine)
{
    const bool bInit = I_sLine.svText.starts_with("BSAInit: Start");
    const bool bReply = I_sLine.svText.starts_with("LOGIN REPLY: ");
    const bool bNext = bInit || I_sLine.svText.starts_with("LOGIN REPLY: 220");
    if (bNext && uCurrent != NONE && Current().eOrigin == ORIGIN::REPLIES) End(STATE::OVER);
    if (bInit || uCurrent == NONE)
    {
        uCurrent = deqSessions.size();
        SESSION &sSession = deqSessions.emplace_back();
        sSession.eOrigin = bInit ? ORIGIN::INIT : bReply ? ORIGIN::REPLIES : ORIGIN::MIDDLE;
        sSession.sProgress.uCall = bInit ? IN_NONE : IN_UNKNOWN;
        sSession.sFirst = I_sLine.sPlace;
    }
    if (!bReply && Current().eOrigin == ORIGIN::REPLIES) Current().eOrigin = ORIGIN::MIDDLE;
}

// Another one than the current.
template <typename TEST> size_t CSessions::FindOther(TEST I_fpTest) const
{
    for (size_t uPlace = 0; uPlace < deqSessions.size(); uPlace++)
        if (uPlace != uCurrent && I_fpTest(deqSessions[uPlace])) return uPlace;
    return NONE;
}

// The current one and another become one block, and go on as such.
void CSessions::Merge(size_t I_uOther, const std::string &I_strSign)
{
    const size_t uInto = std::min(I_uOther, uCurrent);
    const size_t uFrom = std::max(I_uOther, uCurrent);
    const std::string strEarlier = Current().sMixture.strSign;
    BecomeMixed(deqSessions[uInto], strEarlier.empty() ? I_strSign : strEarlier);
    Absorb(deqSessions[uInto], deqSessions[uFrom]);
    deqSessions[uInto].eState = STATE::OPEN;
    deqSessions.erase(deqSessions.begin() + static_cast<std::ptrdiff_t>(uFrom));
    uCurrent = uInto;
}

// A session gets its handle. When an interrupted one had it, that one has ended in another BSAInit,
// or it goes on here: then what interrupted it was another process. When one had it that was
// terminated, the BSATerminate was another process's.
void CSessions::Adopt(long I_lHandle, const LOG_LINE &I_sLine, bool I_bInit)
{
    const size_t uEarlier = FindOther([&](const SESSION &sSession) {
        return sSession.HasHandle(I_lHandle) &&
               (sSession.eState == STATE::OPEN ||
                (sSession.eState == STATE::TERMINATED && !I_bInit));
    });
    Current().AddHandle(I_lHandle);
    if (uEarlier == NONE) return;
    if (I_bInit && !deqSessions[uEarlier].IsMixed())
    {
        deqSessions[uEarlier].eState = STATE::REPLACED;
        return;
    }
    Merge(uEarlier, "handle " + std::to_string(I_lHandle) + " comes back at line " +
                        std::to_string(I_sLine.sPlace.uLine));
}

// A handle that others than the current one may have had, or one that was interrupted in its
// BSAInit, before it had a handle.
void CSessions::AddForeign(long I_lHandle, const std::string &I_strSign)
{
    size_t uOwner = FindOther([&](const SESSION &sSession) {
        return sSession.eState == STATE::OPEN && sSession.HasHandle(I_lHandle);
    });
    if (uOwner == NONE)
        uOwner = FindOther([](const SESSION &sSession) {
            return sSession.eState == STATE::OPEN && sSession.eOrigin == ORIGIN::INIT &&
                   sSession.setHandles.empty();
        });
    if (uOwner != NONE && !Current().HasHandle(I_lHandle)) Merge(uOwner, I_strSign);
    BecomeMixed(Current(), I_strSign);
    Current().AddHandle(I_lHandle);
}

void CSessions::TakeHandle(const LOG_LINE &I_sLine)
{
    SESSION &sSession = Current();
    const long lHandle = sSession.sProgress.lHandle;
    if (lHandle == 0) return;
    if (sSession.IsMixed()) AddForeign(lHandle, std::string(sSession.sMixture.strSign));
    else if (sSession.setHandles.empty())
        Adopt(lHandle, I_sLine, I_sLine.svText.starts_with("BSAInit"));
    else if (!sSession.HasHandle(lHandle)) sSession.sProgress.lForeign = lHandle;
}

// A caller that names a wrong handle learns so in the next line.
void CSessions::JudgeForeignHandle(const LOG_LINE &I_sLine)
{
    if (uCurrent == NONE) return;
    const long lHandle = std::exchange(Current().sProgress.lForeign, 0);
    if (lHandle == 0 || I_sLine.svText.find("Invalid Handle") != std::string_view::npos ||
        I_sLine.svText.find("Return: 6 ") != std::string_view::npos)
        return;
    AddForeign(lHandle, "handle " + std::to_string(lHandle) + " comes in between before line " +
                            std::to_string(I_sLine.sPlace.uLine));
}

// It ends when all of its processes have, those too that only a handle shows.
void CSessions::TakeMixed(const LOG_LINE &I_sLine)
{
    SESSION &sSession = Current();
    sSession.sProgress = PROGRESS();
    sSession.eState = STATE::OPEN;
    MIXTURE &sMixture = sSession.sMixture;
    sMixture.uProcesses = std::max(sMixture.uProcesses, sSession.setHandles.size());
    if (!I_sLine.svText.starts_with("BSATerminate: Closing")) return;
    if (++sMixture.uTerminated >= sMixture.uProcesses) End(STATE::OVER);
}

// The BSAInit of a process that has a session already is refused, and that session goes on.
void CSessions::FoldRejected()
{
    const SESSION sRejected = Current();
    deqSessions.pop_back();
    uCurrent = deqSessions.size() - 1;
    Current().bFailed = true;
    for (const STEP &sStep : sRejected.Steps()) Current().AddStep(sStep);
    if (!Current().sError) Current().sError = sRejected.sError;
}

// The last line may be cut anywhere: what fits is taken, and nothing is concluded from the rest.
void CSessions::TakeCut(const LOG_LINE &I_sLine, const FUNCTION &I_sWriter)
{
    SESSION sNext = Current();
    trace::Take(sNext, I_sLine, I_sWriter);
    if (sNext.sProgress.strSign.empty()) Current() = sNext;
    Current().sLast = I_sLine.sPlace;
}

// What a line that was taken means for the sessions as such.
void CSessions::Judge(const LOG_LINE &I_sLine)
{
    SESSION &sSession = Current();
    const PROGRESS &sProgress = sSession.sProgress;
    if (!sProgress.strSign.empty()) BecomeMixed(sSession, sProgress.strSign);
    if (sSession.IsMixed()) TakeMixed(I_sLine);
    else if (sSession.eState == STATE::TERMINATED) End(STATE::TERMINATED);
    else if (sProgress.bRejected && sProgress.uCall == IN_NONE && uCurrent > 0 &&
             deqSessions[uCurrent - 1].eState == STATE::OPEN && sSession.setHandles.empty())
        FoldRejected();
}

void CSessions::Take(const LOG_LINE &I_sLine)
{
    if (!I_sLine.bTrace) return;
    JudgeForeignHandle(I_sLine);
    const FUNCTION *spWriter = Writer(I_sLine);
    if (spWriter == nullptr)
    {
        if (uCurrent != NONE && Current().eOrigin == ORIGIN::REPLIES)
            Current().eOrigin = ORIGIN::MIDDLE;
        return;
    }
    Choose(I_sLine);
    if (!I_sLine.bWhole) return TakeCut(I_sLine, *spWriter);
    trace::Take(Current(), I_sLine, *spWriter);
    TakeHandle(I_sLine);
    Current().sLast = I_sLine.sPlace;
    Judge(I_sLine);
    Flush(OPEN_SESSIONS);
}

void CSessions::End(STATE I_eState)
{
    Current().eState = I_eState;
    uCurrent = NONE;
}

void CSessions::Flush(size_t I_uKeep)
{
    while (!deqSessions.empty() &&
           (deqSessions[0].eState != STATE::OPEN || deqSessions.size() > I_uKeep))
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
} // namespace trace
