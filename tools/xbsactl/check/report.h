// What a step found, and how the findings are shown: line by line as they come, as one JSON text at
// the end, or as the one line of a monitoring plug-in.
#ifndef XBSACTL_CHECK_REPORT_H
#define XBSACTL_CHECK_REPORT_H

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "check/check.h"
#include "check/child.h"

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
    std::string strFound{};  // what there is
    std::string strNext{};   // what to do about it; empty when all is well
    long lMilliseconds = -1; // that the step took; -1: since the last finding
    std::string strStep{};   // "network.login"; by CReport::Add
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

// A name, and what finds out about it.
using STEPS = std::vector<std::pair<const char *, std::function<FINDING()>>>;

class CReport
{
  public:
    CReport(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions);

    // Returns false after a failure: what builds on the step makes no sense then.
    bool Add(const std::string &I_strStep, FINDING I_sFinding);

    // Runs steps that build on each other until one fails. Returns whether all were run and none did.
    //   I_strWhy  why none of them can be tried; empty: they can
    bool Climb(const STEPS &I_vecSteps, const std::string &I_strWhy = "");

    // A text that others wrote, safe to show: one line, without the password.
    std::string Foreign(const std::string &I_strText) const;

    // Prints what is left to print. Returns the exit code.
    int Finish() const;

  private:
    int Count(STATUS I_eStatus) const;
    std::string Counts() const;
    std::string Json() const;
    int FinishNagios() const;

    std::vector<FINDING> vecFindings;
    const base::CONNECTION sConnection;
    const OPTIONS sOptions;
    CLOCK::time_point sStart = CLOCK::now();
    CLOCK::time_point sLast = sStart;
};
} // namespace check

#endif
