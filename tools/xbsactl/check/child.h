// Work that may hang or crash, in a process of its own that is ended when its time is over.
#ifndef XBSACTL_CHECK_CHILD_H
#define XBSACTL_CHECK_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/base.h"

namespace check
{
// What the work says, as it comes: a name without a blank, and a value of one line.
using SAY = std::function<void(const char *cpName, const std::string &I_strValue)>;
using WORK = std::function<void(const SAY &)>;

struct EVENT
{
    std::string strName;
    std::string strValue;
    long lMilliseconds = 0; // since the start of the work
};

using CLOCK = std::chrono::steady_clock;
inline long Milliseconds(CLOCK::duration I_sTime)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(I_sTime).count());
}

// What follows the beginning; null when the text begins otherwise.
const char *After(const std::string &I_strText, const std::string &I_strBegin);

// All that was said, whatever became of the work.
struct OUTCOME
{
    std::vector<EVENT> vecEvents;
    std::string strFailure; // what the work threw, its crash, its silence; empty: it is done

    // The last one of that name; null for none.
    const EVENT *Find(const char *cpName) const;
    std::string Value(const char *cpName) const;
};

class CChild
{
  public:
    explicit CChild(const WORK &I_fpWork);
    CChild(const CChild &) = delete;
    CChild &operator=(const CChild &) = delete;
    ~CChild(); // ends the process and what it has started

    // Until the work has ended or was silent for that time, or until it has said that name.
    const OUTCOME &Wait(std::chrono::milliseconds I_sSilence, const char *cpUntil = "");

  private:
    bool ReadMore(CLOCK::time_point I_sEnd, std::chrono::milliseconds I_sSilence);
    std::string End();

    pid_t iProcess = -1;
    base::CDescriptor sPipe;
    CLOCK::time_point sStart = CLOCK::now();
    std::string strInput; // not yet a whole line
    OUTCOME sOutcome;
};

// The outcome of work that is waited for at once.
OUTCOME RunChild(std::chrono::milliseconds I_sSilence, const WORK &I_fpWork);
} // namespace check

#endif
