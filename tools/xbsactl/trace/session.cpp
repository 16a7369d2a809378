#include "trace/session.h"

#include <algorithm>

namespace
{
constexpr size_t OBJECTS_NAMED = 5;
}

bool session_HasDuration(const STEP &I_sStep)
{
    return I_sStep.eKind == STEP_KIND::CONTROL || I_sStep.eKind == STEP_KIND::UTILITY ||
           I_sStep.eKind == STEP_KIND::DATA;
}

bool session_IsMixed(const TRACE_SESSION &I_sSession)
{
    return !I_sSession.strMixed.empty();
}

bool session_HasHandle(const TRACE_SESSION &I_sSession, long I_lHandle)
{
    return I_sSession.setHandles.count(I_lHandle) > 0;
}

void session_AddStep(TRACE_SESSION &X_sSession, const STEP &I_sStep)
{
    if (I_sStep.eKind == STEP_KIND::OBJECT) X_sSession.uObjects++;
    if (session_IsMixed(X_sSession) && I_sStep.eKind != STEP_KIND::OBJECT) return;
    if (X_sSession.vecSteps.size() < STEPS_KEPT)
    {
        X_sSession.vecSteps.push_back(I_sStep);
        return;
    }
    X_sSession.deqSteps.push_back(I_sStep);
    if (X_sSession.deqSteps.size() <= STEPS_KEPT) return;
    X_sSession.deqSteps.pop_front();
    X_sSession.uLeftOut++;
}

std::string session_Handles(const TRACE_SESSION &I_sSession)
{
    if (I_sSession.setHandles.empty()) return "handle unknown";
    std::string strText;
    for (const long lHandle : I_sSession.setHandles)
        strText += (strText.empty() ? "" : ", ") + std::to_string(lHandle);
    if (I_sSession.setHandles.size() >= MIXED_HANDLES) strText += ", ...";
    return (I_sSession.setHandles.size() == 1 ? "handle " : "handles ") + strText;
}

std::string session_Outcome(const TRACE_SESSION &I_sSession)
{
    if (session_IsMixed(I_sSession)) return "mixed";
    if (I_sSession.bReplies) return I_sSession.strError.empty() ? "replies only" : "refused";
    if (I_sSession.bFailed) return "failed";
    if (!I_sSession.bTerminated) return "unfinished";
    return I_sSession.strError.empty() ? "done" : "done, with an error on the way";
}

std::string session_Note(const TRACE_SESSION &I_sSession)
{
    if (I_sSession.bReplies)
        return "a trace of level 1 has only the server's replies: neither handle nor object";
    std::string strNote;
    if (!I_sSession.bHead) strNote = "its beginning is not in this log";
    if (I_sSession.bTerminated || session_IsMixed(I_sSession)) return strNote;
    if (!strNote.empty()) strNote += "; ";
    if (I_sSession.bReplaced) return strNote + "the process began anew without BSATerminate";
    return strNote + "it has no BSATerminate: the process ended or was stopped before, still runs, "
                     "or its last lines are not in this log";
}

std::vector<STEP> session_Steps(const TRACE_SESSION &I_sSession)
{
    std::vector<STEP> vecSteps = I_sSession.vecSteps;
    if (I_sSession.uLeftOut > 0)
    {
        STEP sGap;
        sGap.eKind = STEP_KIND::OBJECT;
        sGap.iStart = sGap.iEnd = vecSteps.back().iEnd;
        sGap.strText = "(" + std::to_string(I_sSession.uLeftOut) + " steps are left out here)";
        vecSteps.push_back(sGap);
    }
    vecSteps.insert(vecSteps.end(), I_sSession.deqSteps.begin(), I_sSession.deqSteps.end());
    if (session_IsMixed(I_sSession)) return vecSteps;
    if (I_sSession.bData) vecSteps.push_back(I_sSession.sData);
    if (I_sSession.bPending) vecSteps.push_back(I_sSession.sPending);
    return vecSteps;
}

std::string session_Objects(const TRACE_SESSION &I_sSession)
{
    std::string strText;
    uint64_t uNamed = 0;
    for (const STEP &sStep : I_sSession.vecSteps)
    {
        if (sStep.eKind != STEP_KIND::OBJECT || uNamed == OBJECTS_NAMED) continue;
        strText += (uNamed++ == 0 ? "" : ", ") + sStep.strText;
        if (!sStep.strResult.empty()) strText += ", " + sStep.strResult;
    }
    if (I_sSession.uObjects > uNamed)
        strText += " and " + std::to_string(I_sSession.uObjects - uNamed) + " more";
    return strText;
}
