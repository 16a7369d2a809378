// The lines that the library writes: for each function how they begin and what they tell.
#ifndef XBSACTL_TRACELOG_RULES_H
#define XBSACTL_TRACELOG_RULES_H

#include <string_view>

#include "trace/lines.h"
#include "trace/session.h"

struct RULE
{
    std::string_view svStart; // of what follows the function's name
    void (*fpTake)(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                   std::string_view I_svRest); // null: the line tells nothing
};

struct FUNCTION
{
    std::string_view svName;
    unsigned uCall;   // the call that its line "Start" begins; 0 for none
    unsigned uWithin; // the calls in which its other lines can come
    const RULE *spRules;
    size_t uRules;
};

// Null for a name that belongs to no session.
const FUNCTION *rules_Find(std::string_view I_svName);

#endif
