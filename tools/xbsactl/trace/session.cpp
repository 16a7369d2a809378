#include "trace/parts.h"

#include <algorithm>

namespace trace
{
namespace
{
constexpr std::ptrdiff_t STEPS_KEPT = 200; // at each end of a session
constexpr size_t HANDLES_KEPT = 16;        // of a mixed one
constexpr size_t OBJECTS_NAMED = 5;

std::string Named(const char *cpName, const std::string &I_strValue)
{
    return I_strValue.empty() ? "" : std::string(", ") + cpName + " " + I_strValue;
}
} // namespace

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
    vecSteps.push_back(I_sStep);
    if (vecSteps.size() < 3 * STEPS_KEPT) return;
    vecSteps.erase(vecSteps.begin() + STEPS_KEPT, vecSteps.end() - STEPS_KEPT);
    uLeftOut += STEPS_KEPT;
}

std::vector<STEP> CSteps::All() const
{
    std::vector<STEP> vecAll = vecSteps;
    if (vecAll.size() <= 2 * STEPS_KEPT && uLeftOut == 0) return vecAll;
    const auto spOut = vecAll.erase(vecAll.begin() + STEPS_KEPT, vecAll.end() - STEPS_KEPT);
    const uint64_t uOut = uLeftOut + vecSteps.size() - 2 * STEPS_KEPT;
    vecAll.insert(spOut, {KIND::OBJECT, std::prev(spOut)->iEnd,
                          "(" + std::to_string(uOut) + " steps are omitted here)"});
    return vecAll;
}

std::string CSteps::Names() const
{
    std::string strNames;
    uint64_t uNamed = 0;
    for (size_t uStep = 0; uStep < std::min<size_t>(vecSteps.size(), STEPS_KEPT); uStep++)
    {
        const STEP &sStep = vecSteps[uStep];
        if (sStep.eKind != KIND::OBJECT || uNamed == OBJECTS_NAMED) continue;
        strNames += (uNamed++ == 0 ? "" : ", ") + sStep.strText;
        if (!sStep.strResult.empty()) strNames += ", " + sStep.strResult;
    }
    return uObjects <= uNamed ? strNames
                              : strNames + " and " + std::to_string(uObjects - uNamed) + " more";
}

void CSteps::NameCopy(const std::string &I_strJob, const std::string &I_strCopy)
{
    for (STEP &sStep : vecSteps)
    {
        if (sStep.strJob.empty() || sStep.strJob != I_strJob) continue;
        sStep.strResult = I_strCopy;
        sStep.strJob.clear();
    }
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
    if (sError && Outcome() == OUTCOME::DONE) return "done, after an error";
    if (sError && Outcome() == OUTCOME::REPLIES) return "refused";
    return TEXTS[static_cast<size_t>(Outcome())];
}

std::string SESSION::Title() const
{
    std::string strTitle = setHandles.empty()       ? "handle unknown"
                           : setHandles.size() == 1 ? "handle "
                                                    : "handles ";
    const char *cpBreak = "";
    for (const long lHandle : setHandles)
        strTitle += std::exchange(cpBreak, ", ") + std::to_string(lHandle);
    if (setHandles.size() >= HANDLES_KEPT) strTitle += ", ...";
    if (IsMixed()) return strTitle;
    return strTitle + (bInformix ? ", Informix" : "") + Named("owner", strOwner) +
           Named("user", strUser) + Named("server", strHost);
}

std::string SESSION::Note() const
{
    if (eOrigin == ORIGIN::REPLIES)
        return "a trace of level 1 contains only the server's replies: no handles, no objects";
    std::string strNote = eOrigin == ORIGIN::INIT ? "" : "its beginning is not in this log";
    if (eState == STATE::TERMINATED || IsMixed()) return strNote;
    if (!strNote.empty()) strNote += "; ";
    if (eState == STATE::REPLACED)
        return strNote + "the process started a new session without BSATerminate";
    return strNote + "it has no BSATerminate: the process ended or was stopped before, still runs, "
                     "or its last lines are not in this log";
}
} // namespace trace
