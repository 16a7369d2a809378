// What text, page and JSON show of a session, in the words of all three.
#ifndef XBSACTL_TRACE_SHOW_H
#define XBSACTL_TRACE_SHOW_H

#include <string>
#include <vector>

#include "base/json.h"
#include "trace/session.h"

namespace trace
{
struct SHOWN
{
    const SESSION &sSession;
    std::vector<STEP> vecSteps; // with the database's messages, in the order of time
};

// Within one second the order of steps and messages is not known.
SHOWN Show(const SESSION &I_sSession, const std::vector<STEP> &I_vecMessages);

const char *KindName(KIND I_eKind); // "" for a heading
std::string StepClock(const SHOWN &I_sShown, const STEP &I_sStep);
std::string StepText(const SHOWN &I_sShown, const STEP &I_sStep);
std::string StepDuration(const STEP &I_sStep); // "" where there is none to be shown

std::vector<std::string> Facts(const SESSION &I_sSession); // when, how much, what else
std::string SessionText(const SHOWN &I_sShown);
base::JSON SessionJson(const SHOWN &I_sShown);
} // namespace trace

#endif
