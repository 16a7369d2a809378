#include "check/parts.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/json.h"
#include "explain/explain.h"

namespace check
{
namespace
{
constexpr size_t SHOWN = 300; // bytes of a foreign text: more does not help the reader

// By STATUS.
constexpr std::array<const char *, 4> WORDS = {"ok", "warn", "FAIL", "--"};
constexpr std::array<const char *, 4> JSON_WORDS = {"ok", "warn", "fail", "not_tried"};

void PrintLine(const FINDING &I_sFinding)
{
    printf("%-5s %-26s %6ld ms  %s\n", WORDS.at(static_cast<size_t>(I_sFinding.eStatus)),
           I_sFinding.strStep.c_str(), I_sFinding.lMilliseconds, I_sFinding.strFound.c_str());
    if (!I_sFinding.strNext.empty()) printf("      next: %s\n", I_sFinding.strNext.c_str());
    fflush(stdout);
}

// From the row for the step, the reply, or the message in it.
std::string Advice(const FINDING &I_sFinding, bool I_bInformix)
{
    const std::string strLine = Text(I_sFinding.strStep, ": ", I_sFinding.strFound);
    const std::string strHint = explain::Advice(strLine, I_bInformix).strHint;
    return strHint.empty() ? "run the check with --trace 2 to see the library's steps" : strHint;
}
} // namespace

CReport::CReport(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
    : sConnection(I_sConnection), sOptions(I_sOptions)
{
}

bool CReport::Add(const std::string &I_strStep, FINDING I_sFinding)
{
    const CLOCK::time_point sNow = CLOCK::now();
    if (I_sFinding.lMilliseconds < 0) I_sFinding.lMilliseconds = (sNow - sLast) / 1ms;
    sLast = sNow;
    I_sFinding.strStep = I_strStep;
    I_sFinding.strFound =
        base::Printable(I_sFinding.strFound); // paths and variables are foreign, too
    const bool bBad = I_sFinding.eStatus == STATUS::WARN || I_sFinding.eStatus == STATUS::FAIL;
    if (bBad && I_sFinding.strNext.empty())
        I_sFinding.strNext = Advice(I_sFinding, sConnection.bInformix);
    I_sFinding.strNext = base::Printable(I_sFinding.strNext);
    if (!sOptions.bJson && !sOptions.bNagios) PrintLine(I_sFinding);
    vecFindings.push_back(std::move(I_sFinding));
    return vecFindings.back().eStatus != STATUS::FAIL;
}

bool CReport::Climb(const STEPS &I_vecSteps, const std::string &I_strWhy)
{
    const std::string strWhy = I_strWhy.empty() ? "an earlier step failed" : I_strWhy;
    bool bGoing = I_strWhy.empty();
    for (const auto &[cpName, fpRun] : I_vecSteps)
        bGoing = Add(cpName, bGoing ? fpRun() : NotTried(strWhy)) && bGoing;
    return bGoing;
}

std::string CReport::Foreign(const std::string &I_strText) const
{
    return base::Printable(base::Masked(I_strText, sConnection.strPassword).substr(0, SHOWN));
}

int CReport::Count(STATUS I_eStatus) const
{
    return static_cast<int>(std::ranges::count(vecFindings, I_eStatus, &FINDING::eStatus));
}

std::string CReport::Counts() const
{
    return Text(Count(STATUS::OK), " ok, ", Count(STATUS::WARN), " warn, ", Count(STATUS::FAIL),
                " FAIL, ", Count(STATUS::NOT_TRIED), " not tried");
}

// docs/check.md describes it: fields may be added, none may change.
std::string CReport::Json() const
{
    base::JSON sAnswer = {{"schema", 2}, {"mode", sConnection.bInformix ? "informix" : "plain"}};
    for (size_t uStatus = 0; uStatus < JSON_WORDS.size(); uStatus++)
        sAnswer[JSON_WORDS.at(uStatus)] = Count(static_cast<STATUS>(uStatus));
    sAnswer["steps"] = base::JSON::array();
    for (const FINDING &sFinding : vecFindings)
        sAnswer["steps"].push_back(
            {{"id", sFinding.strStep},
             {"status", JSON_WORDS.at(static_cast<size_t>(sFinding.eStatus))},
             {"found", sFinding.strFound},
             {"next", sFinding.strNext},
             {"milliseconds", sFinding.lMilliseconds}});
    return base::Dump(sAnswer);
}

// The worst finding and its remedy; what follows a "|" is for graphs. The codes are those of
// Nagios.
int CReport::FinishNagios() const
{
    const int iExit = Count(STATUS::FAIL) > 0 ? 2 : Count(STATUS::WARN) > 0 ? 1 : 0;
    constexpr std::array<const char *, 3> STATES = {"OK", "WARNING", "CRITICAL"};
    std::string strLine;
    const auto sGravest =
        std::ranges::find(vecFindings, static_cast<STATUS>(iExit), &FINDING::eStatus);
    if (iExit > 0)
        strLine =
            Text(sGravest->strStep, ": ", sGravest->strFound, "; next: ", sGravest->strNext, "; ");
    std::replace(strLine.begin(), strLine.end(), '|', '/');
    printf("XBSA %s - %s%s | ok=%d warn=%d fail=%d not_tried=%d time=%.3fs\n",
           STATES.at(static_cast<size_t>(iExit)), strLine.c_str(), Counts().c_str(),
           Count(STATUS::OK), Count(STATUS::WARN), Count(STATUS::FAIL), Count(STATUS::NOT_TRIED),
           static_cast<double>((sLast - sStart) / 1ms) / 1000);
    return iExit;
}

int NagiosUnknown(std::string I_strReason)
{
    std::replace(I_strReason.begin(), I_strReason.end(), '|', '/');
    printf("XBSA UNKNOWN - %s\n", I_strReason.c_str());
    return 3;
}

int CReport::Finish() const
{
    if (sOptions.bNagios) return FinishNagios();
    printf("%s\n", sOptions.bJson ? Json().c_str() : Counts().c_str());
    return Count(STATUS::FAIL) == 0 ? base::EXIT_DONE : base::EXIT_FAILED;
}
} // namespace check
