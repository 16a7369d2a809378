// What a step found, and how the findings are shown: line by line as they come, as one JSON text at
// the end, or as the one line of a monitoring plug-in.
#ifndef XBSACTL_CHECK_REPORT_H
#define XBSACTL_CHECK_REPORT_H

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "check/check.h"

namespace check
{
enum class STATUS
{
    OK,
    WARN,
    FAIL,
    NOT_TRIED
};

struct FINDING
{
    STATUS eStatus = STATUS::OK;
    std::string strFound = ""; // what there is
    std::string strNext = "";  // what to do about it; empty when all is well
    long lMilliseconds = -1;   // that the step took; -1: since the last finding
    std::string strStep = "";  // "network.login"; by CReport::Add
};

// The parts in one text.
template <typename... PARTS> std::string Text(const PARTS &...I_tParts)
{
    std::ostringstream sText;
    (sText << ... << I_tParts);
    return sText.str();
}

// What to do about a message of the library, or a reply: "CWD /db: 550 No such folder".
std::string Remedy(const std::string &I_strText, bool I_bInformix = false);

inline FINDING Ok(const std::string &I_strFound)
{
    return {STATUS::OK, I_strFound};
}
inline FINDING Warn(const std::string &I_strFound, const std::string &I_strNext)
{
    return {STATUS::WARN, I_strFound, I_strNext};
}
inline FINDING Fail(const std::string &I_strFound, const std::string &I_strNext)
{
    return {STATUS::FAIL, I_strFound, I_strNext};
}
inline FINDING NotTried(const std::string &I_strWhy)
{
    return {STATUS::NOT_TRIED, "not tried: " + I_strWhy};
}

struct STEP
{
    const char *cpName;
    std::function<FINDING()> fpRun;
};
using STEPS = std::vector<STEP>;

class CReport
{
  public:
    CReport(const std::string &I_strPassword, bool I_bInformix, const OPTIONS &I_sOptions);

    // Returns false after a failure: what builds on the step makes no sense then.
    bool Add(const std::string &I_strStep, FINDING I_sFinding);

    void Skip(const STEPS &I_vecSteps, const std::string &I_strWhy);

    // A text that others wrote, safe to show: one line, without the password.
    std::string Foreign(const std::string &I_strText) const;

    // Prints what is left to print. Returns the exit code.
    int Finish() const;

  private:
    using CLOCK = std::chrono::steady_clock;

    int Count(STATUS I_eStatus) const;
    std::string Counts() const;
    std::string Json() const;
    int FinishNagios() const;

    std::vector<FINDING> vecFindings;
    std::string strPassword;
    bool bInformix;
    OPTIONS sOptions;
    CLOCK::time_point sStart = CLOCK::now();
    CLOCK::time_point sLast = sStart;
};

// Runs steps that build on each other until one fails. Returns whether none did.
bool Climb(CReport &X_sReport, const STEPS &I_vecSteps);
} // namespace check

#endif
