// The timeline picture: one lane for each session, as SVG.
#ifndef XBSACTL_TRACE_PICTURE_H
#define XBSACTL_TRACE_PICTURE_H

#include <string>
#include <vector>

#include "trace/show.h"

namespace trace
{
struct BAR
{
    std::string strClass; // "control", "utility", "data", "mixed", "database"
    bool bFailed = false;
    double dStart = 0; // seconds
    double dEnd = 0;
    uint64_t uSteps = 1;
    std::string strTitle; // for the pointer that rests on it, fit for a page
};

// Text as a page can hold it, in elements and in attributes.
std::string Escape(const std::string &I_strText);

// The steps as bars. The log's clock has whole seconds: what begins or ends within one second is
// spread over it in its order, so that the order can be seen.
std::vector<BAR> Bars(const SHOWN &I_sShown);

// The lane from one moment to another.
std::string Lane(const std::vector<BAR> &I_vecBars, double I_dFrom, double I_dTo,
                 const std::string &I_strTitle);

// The same with bars of one kind that touch drawn as one.
std::string JoinedLane(const std::vector<BAR> &I_vecBars, double I_dFrom, double I_dTo,
                       const std::string &I_strTitle);
} // namespace trace

#endif
