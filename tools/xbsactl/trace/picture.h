// The timeline picture: one lane a session, as SVG.
#ifndef XBSACTL_TRACELOG_PICTURE_H
#define XBSACTL_TRACELOG_PICTURE_H

#include <string>
#include <vector>

#include "trace/actlog.h"
#include "trace/session.h"

struct BAR
{
    const char *cpClass = ""; // "control", "utility", "data", "mixed", "database"
    bool bFailed = false;
    double dStart = 0; // seconds
    double dEnd = 0;
    uint64_t uSteps = 1;
    std::string strTitle; // for the pointer that rests on it, fit for a page
};

// Text as a page can hold it, in elements and in attributes.
std::string picture_Escape(const std::string &I_strText);

// The steps as bars. The log's clock has whole seconds: what begins or ends within one second is
// spread over it in its order, so that the order can be seen.
std::vector<BAR> picture_Bars(const TRACE_SESSION &I_sSession,
                              const std::vector<ACT_MESSAGE> &I_vecMessages);

// The lane from one moment to another; bars of one kind that touch are drawn as one when told so.
std::string picture_Lane(const std::vector<BAR> &I_vecBars, double I_dFrom, double I_dTo,
                         bool I_bJoin, const std::string &I_strTitle);

#endif
