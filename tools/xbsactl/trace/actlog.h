// The database's activity log: "2026-11-24 17:46:34 12345  12340 Begin level 0 backup rootdbs."
#ifndef XBSACTL_TRACE_ACTLOG_H
#define XBSACTL_TRACE_ACTLOG_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "trace/session.h"

namespace trace
{
class CActivityLog
{
  public:
    explicit CActivityLog(const std::string &I_strFile); // empty: there is none

    // The messages of the session's processes in its time, each handed out once, in order of time.
    std::vector<STEP> TakeFor(const SESSION &I_sSession);

    uint64_t Unused() const;
    uint64_t Dropped() const; // the oldest, of a log that does not fit into memory

  private:
    struct MESSAGE
    {
        long lProcess = 0;
        int64_t iTime = 0;
        bool bUsed = false;
        std::string strText;
    };
    static bool Parse(std::string_view I_svLine, MESSAGE &O_sMessage);
    void Add(const MESSAGE &I_sMessage);

    std::deque<MESSAGE> deqMessages; // by process and time once all are read
    size_t uBytes = 0;
    uint64_t uDropped = 0;
};
} // namespace trace

#endif
