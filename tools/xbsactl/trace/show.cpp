#include "trace/parts.h"

#include <algorithm>

#include "base/json.h"
#include "explain/explain.h"

namespace trace
{
namespace
{
constexpr const char *MIXED = "; which process wrote which line, and how long each step took, "
                              "cannot be determined: give each process its own log (XBSA_LOGFILE)";

bool SameDay(const SESSION &I_sSession)
{
    return I_sSession.sFirst.iTime / DAY == I_sSession.sLast.iTime / DAY;
}

std::string DataText(const STEP &I_sStep, bool I_bDay)
{
    std::string strText = Count(I_sStep.uBytes, "byte") + " " + I_sStep.strText + " in " +
                          Count(I_sStep.uBlocks, "block");
    const std::string strRate = Rate(I_sStep.uBytes, I_sStep.iEnd - I_sStep.iStart);
    if (!strRate.empty()) strText += ", " + strRate;
    if (I_sStep.iPause > 1)
        strText += ", longest pause " + Duration(I_sStep.iPause) + " from " +
                   Clock(I_sStep.iPauseStart, I_bDay);
    return strText;
}

std::string Row(const SHOWN &I_sShown, const STEP &I_sStep)
{
    const auto [strClock, strKind, strDuration, strText] = Cells(I_sShown, I_sStep);
    if (I_sStep.eKind == KIND::OBJECT) return "  " + strText + "\n";
    return base::Text("    ", strClock, "  ", std::left, std::setw(8), strKind, ' ', std::setw(9),
                      strDuration, "  ", strText, I_sStep.bFailed ? "  <-- failed\n" : "\n");
}

base::JSON StepJson(const STEP &I_sStep)
{
    base::JSON sJson = {{"kind", KindName(I_sStep.eKind)},
                        {"time", Stamp(I_sStep.iStart)},
                        {"text", I_sStep.strText},
                        {"result", I_sStep.strResult},
                        {"failed", I_sStep.bFailed}};
    if (!I_sStep.HasDuration()) return sJson;
    sJson["seconds"] = nullptr;
    if (I_sStep.bEnded) sJson["seconds"] = I_sStep.iEnd - I_sStep.iStart;
    if (I_sStep.eKind != KIND::DATA) return sJson;
    sJson["bytes"] = I_sStep.uBytes;
    sJson["blocks"] = I_sStep.uBlocks;
    sJson["longest_pause"] = I_sStep.iPause;
    return sJson;
}

base::JSON ErrorJson(const SESSION &I_sSession)
{
    if (!I_sSession.sError) return nullptr;
    const auto &[sPlace, strText, bWeak] = *I_sSession.sError;
    const auto [strMeaning, strHint] = explain::Advice(strText, I_sSession.bInformix);
    return {{"line", sPlace.uLine},
            {"time", Stamp(sPlace.iTime)},
            {"text", strText},
            {"meaning", strMeaning},
            {"hint", strHint}};
}
} // namespace

SHOWN Show(const SESSION &I_sSession, const std::vector<STEP> &I_vecMessages)
{
    SHOWN sShown{I_sSession, {}};
    std::ranges::merge(I_sSession.Steps(), I_vecMessages, std::back_inserter(sShown.vecSteps), {},
                       &STEP::iStart, &STEP::iStart);
    return sShown;
}

const char *KindName(KIND I_eKind)
{
    constexpr std::array<const char *, 7> NAMES = {"object", "control", "utility", "data",
                                                   "reply",  "call",    "database"};
    return NAMES[static_cast<size_t>(I_eKind)];
}

std::array<std::string, 4> Cells(const SHOWN &I_sShown, const STEP &I_sStep)
{
    const bool bDay = !SameDay(I_sShown.sSession);
    std::string strText = I_sStep.eKind == KIND::DATA ? DataText(I_sStep, bDay) : I_sStep.strText;
    if (!I_sStep.strResult.empty())
        strText += (I_sStep.eKind == KIND::OBJECT ? ", " : ": ") + I_sStep.strResult;
    return {Clock(I_sStep.iStart, bDay), KindName(I_sStep.eKind), StepDuration(I_sStep), strText};
}

std::string StepDuration(const STEP &I_sStep)
{
    if (!I_sStep.HasDuration()) return "";
    return I_sStep.bEnded ? Duration(I_sStep.iEnd - I_sStep.iStart) : "not ended";
}

std::vector<std::string> Facts(const SESSION &I_sSession)
{
    const auto &[uFirst, iFirst] = I_sSession.sFirst;
    const auto &[uLast, iLast] = I_sSession.sLast;
    const std::string strTime = I_sSession.IsMixed() ? "" : " (" + Duration(iLast - iFirst) + ")";
    const std::string strLast = SameDay(I_sSession) ? Clock(iLast, false) : Stamp(iLast);
    std::vector<std::string> vecFacts = {
        base::Text(Stamp(iFirst), " to ", strLast, strTime, ", lines ", uFirst, " to ", uLast)};
    if (I_sSession.IsMixed())
        vecFacts.push_back(
            "lines of several processes are mixed here: " + I_sSession.sMixture.strSign + MIXED);
    else if (I_sSession.eOrigin != ORIGIN::REPLIES)
        vecFacts.push_back(Count(I_sSession.sSteps.uObjects, "task") + ", " +
                           Count(I_sSession.uBytes, "byte"));
    if (!I_sSession.Note().empty()) vecFacts.push_back(I_sSession.Note());
    if (!I_sSession.sError) return vecFacts;
    const auto &[sPlace, strText, bWeak] = *I_sSession.sError;
    vecFacts.push_back(base::Text("first error, line ", sPlace.uLine, " at ",
                                  Clock(sPlace.iTime, false), ": ", strText));
    const auto [strMeaning, strHint] = explain::Advice(strText, I_sSession.bInformix);
    if (!strMeaning.empty()) vecFacts.push_back("meaning: " + strMeaning);
    if (!strHint.empty()) vecFacts.push_back("hint: " + strHint);
    return vecFacts;
}

std::string SessionText(const SHOWN &I_sShown)
{
    const SESSION &sSession = I_sShown.sSession;
    std::string strText = base::Text("session ", sSession.uNumber, ": ", sSession.OutcomeText(),
                                     ", ", sSession.Title(), '\n');
    for (const std::string &strFact : Facts(sSession)) strText += "  " + strFact + "\n";
    for (const STEP &sStep : I_sShown.vecSteps) strText += Row(I_sShown, sStep);
    return strText + "\n";
}

std::string SessionJson(const SHOWN &I_sShown)
{
    const SESSION &sSession = I_sShown.sSession;
    const bool bMixed = sSession.IsMixed(); // whose these are is unknown
    const std::string strOutcome = sSession.OutcomeText();
    base::JSON sJson = {{"number", sSession.uNumber},
                        {"outcome", strOutcome.substr(0, strOutcome.find(','))},
                        {"handles", sSession.setHandles},
                        {"informix", sSession.bInformix},
                        {"owner", bMixed ? "" : sSession.strOwner},
                        {"user", bMixed ? "" : sSession.strUser},
                        {"server", bMixed ? "" : sSession.strHost},
                        {"begin", Stamp(sSession.sFirst.iTime)},
                        {"end", Stamp(sSession.sLast.iTime)},
                        {"first_line", sSession.sFirst.uLine},
                        {"last_line", sSession.sLast.uLine},
                        {"objects", sSession.sSteps.uObjects},
                        {"bytes", bMixed ? 0 : sSession.uBytes},
                        {"mixed", sSession.sMixture.strSign},
                        {"note", sSession.Note()},
                        {"error", ErrorJson(sSession)},
                        {"steps", base::JSON::array()}};
    for (const STEP &sStep : I_sShown.vecSteps) sJson["steps"].push_back(StepJson(sStep));
    return base::Dump(sJson);
}
} // namespace trace
