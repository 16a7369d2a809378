#include "trace/parts.h"

#include <algorithm>
#include <utility>

namespace trace
{
namespace
{
constexpr size_t OPEN_SESSIONS = 16; // at a time that may continue, or wait for one that does

// A copy that an answer named may belong to another process; the close of the job names it again.
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

// Keeps only what is true for lines of several processes.
void BecomeMixed(SESSION &X_sSession, const std::string &I_strSign)
{
    if (X_sSession.IsMixed()) return;
    const std::vector<STEP> vecSteps = X_sSession.Steps();
    X_sSession.sMixture.strSign = I_strSign;
    X_sSession.sSteps = CSteps();
    AddObjects(X_sSession, vecSteps);
}
} // namespace

// The session that the line goes to; at level 1 the next connection is the next session.
void CSessions::Choose(const LOG_LINE &I_sLine)
{
    const bool bInit = I_sLine.svText.starts_with("BSAInit: Start");
    const bool bReply = I_sLine.svText.starts_with("LOGIN REPLY: ");
    const bool bNext = bInit || I_sLine.svText.starts_with("LOGIN REPLY: 220");
    if (bNext && spCurrent != nullptr && spCurrent->eOrigin == ORIGIN::REPLIES) End(STATE::OVER);
    if (bInit || spCurrent == nullptr)
    {
        spCurrent = &lstSessions.emplace_back();
        spCurrent->eOrigin = bInit ? ORIGIN::INIT : bReply ? ORIGIN::REPLIES : ORIGIN::MIDDLE;
        spCurrent->sProgress.uCall = bInit ? IN_NONE : IN_UNKNOWN;
        spCurrent->sFirst = I_sLine.sPlace;
    }
    if (!bReply && spCurrent->eOrigin == ORIGIN::REPLIES) spCurrent->eOrigin = ORIGIN::MIDDLE;
}

// A session other than the current one.
template <typename TEST> SESSION *CSessions::FindOther(TEST I_fpTest)
{
    for (SESSION &sSession : lstSessions)
        if (&sSession != spCurrent && I_fpTest(sSession)) return &sSession;
    return nullptr;
}

// Merges the current session and another one into one block, which continues.
void CSessions::Merge(SESSION *X_spOther, const std::string &I_strSign)
{
    const std::string strSign = spCurrent->IsMixed() ? spCurrent->sMixture.strSign : I_strSign;
    if (X_spOther->sFirst.uLine < spCurrent->sFirst.uLine) std::swap(spCurrent, X_spOther);
    BecomeMixed(*spCurrent, strSign);
    Absorb(*spCurrent, *X_spOther);
    spCurrent->eState = STATE::OPEN;
    lstSessions.remove_if([&](const SESSION &sSession) { return &sSession == X_spOther; });
}

// A session gets its handle. If an interrupted session had it, that session ended with another
// BSAInit, or it continues here and another process interrupted it. If a terminated session had it,
// the BSATerminate came from another process.
void CSessions::Adopt(long I_lHandle, const LOG_LINE &I_sLine)
{
    const bool bInit = I_sLine.svText.starts_with("BSAInit");
    SESSION *spEarlier = FindOther([&](const SESSION &sSession) {
        return sSession.setHandles.contains(I_lHandle) &&
               (sSession.eState == STATE::OPEN || (sSession.eState == STATE::TERMINATED && !bInit));
    });
    spCurrent->AddHandle(I_lHandle);
    if (spEarlier == nullptr) return;
    if (bInit && !spEarlier->IsMixed()) spEarlier->eState = STATE::REPLACED;
    else
        Merge(spEarlier,
              base::Text("handle ", I_lHandle, " appears again in line ", I_sLine.sPlace.uLine));
}

// A handle of another session than the current one, or of one that was interrupted in its BSAInit,
// before it had a handle.
void CSessions::AddForeign(long I_lHandle, const std::string &I_strSign)
{
    SESSION *spOwner = FindOther([&](const SESSION &sSession) {
        return sSession.eState == STATE::OPEN && sSession.setHandles.contains(I_lHandle);
    });
    if (spOwner == nullptr)
        spOwner = FindOther([](const SESSION &sSession) {
            return sSession.eState == STATE::OPEN && sSession.eOrigin == ORIGIN::INIT &&
                   sSession.setHandles.empty();
        });
    if (spOwner != nullptr && !spCurrent->setHandles.contains(I_lHandle)) Merge(spOwner, I_strSign);
    BecomeMixed(*spCurrent, I_strSign);
    spCurrent->AddHandle(I_lHandle);
}

void CSessions::TakeHandle(const LOG_LINE &I_sLine)
{
    const long lHandle = spCurrent->sProgress.lHandle;
    if (lHandle == 0) return;
    if (spCurrent->IsMixed()) AddForeign(lHandle, ""); // it has its sign
    else if (spCurrent->setHandles.empty()) Adopt(lHandle, I_sLine);
    else if (!spCurrent->setHandles.contains(lHandle)) spCurrent->sProgress.lForeign = lHandle;
}

// When a caller passes a wrong handle, the next line says so.
void CSessions::JudgeForeignHandle(const LOG_LINE &I_sLine)
{
    if (spCurrent == nullptr) return;
    const long lHandle = std::exchange(spCurrent->sProgress.lForeign, 0);
    if (lHandle == 0 || I_sLine.svText.find("Invalid Handle") != std::string_view::npos ||
        I_sLine.svText.find("Return: 6 ") != std::string_view::npos)
        return;
    AddForeign(lHandle, base::Text("handle ", lHandle, " appears in between, before line ",
                                   I_sLine.sPlace.uLine));
}

// It ends when all its processes have ended, including those of which only a handle is known.
void CSessions::TakeMixed(const LOG_LINE &I_sLine)
{
    spCurrent->sProgress = PROGRESS();
    spCurrent->eState = STATE::OPEN;
    MIXTURE &sMixture = spCurrent->sMixture;
    sMixture.uProcesses = std::max(sMixture.uProcesses, spCurrent->setHandles.size());
    if (!I_sLine.svText.starts_with("BSATerminate: Closing")) return;
    if (++sMixture.uTerminated >= sMixture.uProcesses) End(STATE::OVER);
}

// The library refuses BSAInit in a process that already has a session, and that session continues.
void CSessions::FoldRejected()
{
    const SESSION sRejected = std::move(lstSessions.back());
    lstSessions.pop_back();
    spCurrent = &lstSessions.back();
    spCurrent->bFailed = true;
    for (const STEP &sStep : sRejected.Steps()) spCurrent->AddStep(sStep);
    if (!spCurrent->sError) spCurrent->sError = sRejected.sError;
}

// The last line may be cut anywhere: it is used if it fits, and proves nothing if not.
void CSessions::TakeCut(const LOG_LINE &I_sLine, const FUNCTION &I_sWriter)
{
    SESSION sNext = *spCurrent;
    trace::Take(sNext, I_sLine, I_sWriter);
    if (sNext.sProgress.strSign.empty()) *spCurrent = sNext;
    spCurrent->sLast = I_sLine.sPlace;
}

// What the line means for the sessions as such.
void CSessions::Judge(const LOG_LINE &I_sLine)
{
    const PROGRESS &sProgress = spCurrent->sProgress;
    if (!sProgress.strSign.empty()) BecomeMixed(*spCurrent, sProgress.strSign);
    if (spCurrent->IsMixed()) TakeMixed(I_sLine);
    else if (spCurrent->eState == STATE::TERMINATED) End(STATE::TERMINATED);
    else if (sProgress.bRejected && sProgress.uCall == IN_NONE && spCurrent->setHandles.empty() &&
             lstSessions.size() > 1 && std::next(lstSessions.rbegin())->eState == STATE::OPEN)
        FoldRejected();
}

void CSessions::Take(const LOG_LINE &I_sLine)
{
    if (!I_sLine.bTrace) return;
    JudgeForeignHandle(I_sLine);
    const FUNCTION *spWriter = Writer(I_sLine);
    const bool bReplies = spCurrent != nullptr && spCurrent->eOrigin == ORIGIN::REPLIES;
    if (spWriter == nullptr && bReplies) spCurrent->eOrigin = ORIGIN::MIDDLE;
    if (spWriter == nullptr) return;
    Choose(I_sLine);
    if (!I_sLine.bWhole) return TakeCut(I_sLine, *spWriter);
    trace::Take(*spCurrent, I_sLine, *spWriter);
    TakeHandle(I_sLine);
    spCurrent->sLast = I_sLine.sPlace;
    Judge(I_sLine);
    Finish(OPEN_SESSIONS);
}

void CSessions::End(STATE I_eState)
{
    spCurrent->eState = I_eState;
    spCurrent = nullptr;
}

void CSessions::Finish(size_t I_uKeep)
{
    while (!lstSessions.empty() &&
           (lstSessions.front().eState != STATE::OPEN || lstSessions.size() > I_uKeep))
    {
        SESSION &sSession = lstSessions.front();
        sSession.uNumber = ++uSessions;
        fpSink(sSession);
        if (spCurrent == &sSession) spCurrent = nullptr;
        lstSessions.pop_front();
    }
}
} // namespace trace
