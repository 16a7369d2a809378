#include "trace/parts.h"

#include <algorithm>

namespace trace
{
namespace
{
constexpr size_t STEPS_KEPT = 200;  // at each end of a session
constexpr size_t HANDLES_KEPT = 16; // of a mixed one
constexpr size_t OBJECTS_NAMED = 5;

std::string Named(const char *cpName, const std::string &I_strValue)
{
    return I_strValue.empty() ? "" : std::string(", ") + cpName + " " + I_strValue;
}
} // namespace

STEP::STEP(KIND I_eKind, int64_t I_iTime, std::string I_strText)
    : eKind(I_eKind), iStart(I_iTime), iEnd(I_iTime), strText(std::move(I_strText))
{
}

void STEP::AddBlock(uint64_t I_uBytes, int64_t I_iTime)
{
    uBytes += I_uBytes;
    uBlocks += I_uBytes > 0 ? 1 : 0;
    if (I_iTime - iEnd > iPause)
    {
        iPause = I_iTime - iEnd;
        iPauseStart = iEnd;
    }
    iEnd = I_iTime;
}

void CSteps::Add(const STEP &I_sStep)
{
    if (I_sStep.eKind == KIND::OBJECT) uObjects++;
    if (vecFirst.size() < STEPS_KEPT) return vecFirst.push_back(I_sStep);
    deqLast.push_back(I_sStep);
    if (deqLast.size() <= STEPS_KEPT) return;
    deqLast.pop_front();
    uLeftOut++;
}

std::vector<STEP> CSteps::All() const
{
    std::vector<STEP> vecSteps = vecFirst;
    if (uLeftOut > 0)
    {
        vecSteps.push_back({KIND::OBJECT, vecSteps.back().iEnd,
                            "(" + std::to_string(uLeftOut) + " steps are left out here)"});
    }
    vecSteps.insert(vecSteps.end(), deqLast.begin(), deqLast.end());
    return vecSteps;
}

STEP *CSteps::Last()
{
    if (!deqLast.empty()) return &deqLast.back();
    return vecFirst.empty() ? nullptr : &vecFirst.back();
}

std::string CSteps::Names() const
{
    std::string strNames;
    uint64_t uNamed = 0;
    for (const STEP &sStep : vecFirst)
    {
        if (sStep.eKind != KIND::OBJECT || uNamed == OBJECTS_NAMED) continue;
        strNames += (uNamed++ == 0 ? "" : ", ") + sStep.strText;
        if (!sStep.strResult.empty()) strNames += ", " + sStep.strResult;
    }
    return uObjects <= uNamed ? strNames
                              : strNames + " and " + std::to_string(uObjects - uNamed) + " more";
}

void CSteps::NameCopy(const std::string &I_strJob, const std::string &I_strCopy)
{
    const auto fpName = [&](STEP &X_sStep) {
        if (X_sStep.strJob.empty() || X_sStep.strJob != I_strJob) return;
        X_sStep.strResult = I_strCopy;
        X_sStep.strJob.clear();
    };
    std::for_each(vecFirst.begin(), vecFirst.end(), fpName);
    std::for_each(deqLast.begin(), deqLast.end(), fpName);
}

void SESSION::AddHandle(long I_lHandle)
{
    if (setHandles.size() < HANDLES_KEPT) setHandles.insert(I_lHandle);
}

void SESSION::AddStep(const STEP &I_sStep)
{
    if (!IsMixed() || I_sStep.eKind == KIND::OBJECT) sSteps.Add(I_sStep);
}

std::vector<STEP> SESSION::Steps() const
{
    std::vector<STEP> vecSteps = sSteps.All();
    if (!IsMixed() && sProgress.sPending) vecSteps.push_back(*sProgress.sPending);
    return vecSteps;
}

OUTCOME SESSION::Outcome() const
{
    if (IsMixed()) return OUTCOME::MIXED;
    if (eOrigin == ORIGIN::REPLIES) return OUTCOME::REPLIES;
    if (bFailed) return OUTCOME::FAILED;
    return eState == STATE::TERMINATED ? OUTCOME::DONE : OUTCOME::UNFINISHED;
}

std::string SESSION::OutcomeText() const
{
    constexpr std::array<const char *, 5> TEXTS = {"done", "failed", "unfinished", "mixed",
                                                   "replies only"};
    const bool bError = sError.sPlace.uLine != 0;
    if (bError && Outcome() == OUTCOME::DONE) return "done, with an error on the way";
    if (bError && Outcome() == OUTCOME::REPLIES) return "refused";
    return TEXTS[static_cast<size_t>(Outcome())];
}

std::string SESSION::Title() const
{
    std::string strTitle;
    for (const long lHandle : setHandles)
        strTitle += (strTitle.empty() ? "" : ", ") + std::to_string(lHandle);
    if (setHandles.size() >= HANDLES_KEPT) strTitle += ", ...";
    if (setHandles.empty()) strTitle = "handle unknown";
    else strTitle.insert(0, setHandles.size() == 1 ? "handle " : "handles ");
    if (IsMixed()) return strTitle;
    return strTitle + (bInformix ? ", Informix" : "") + Named("owner", strOwner) +
           Named("user", strUser) + Named("server", strHost);
}

std::string SESSION::Note() const
{
    if (eOrigin == ORIGIN::REPLIES)
        return "a trace of level 1 has only the server's replies: neither handle nor object";
    std::string strNote;
    if (eOrigin != ORIGIN::INIT) strNote = "its beginning is not in this log";
    if (eState == STATE::TERMINATED || IsMixed()) return strNote;
    if (!strNote.empty()) strNote += "; ";
    if (eState == STATE::REPLACED) return strNote + "the process began anew without BSATerminate";
    return strNote + "it has no BSATerminate: the process ended or was stopped before, still runs, "
                     "or its last lines are not in this log";
}
} // namespace trace
