// The database's activity log: "2026-11-24 17:46:34 12345  12340 Begin level 0 backup rootdbs."
#ifndef XBSACTL_ACTLOG_H
#define XBSACTL_ACTLOG_H

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "trace/session.h"

struct ACT_MESSAGE
{
    int64_t iTime = 0;
    long lProcess = 0;
    bool bUsed = false;
    std::string strText;
};

class CActivityLog
{
  public:
    CActivityLog() = default;
    explicit CActivityLog(const std::string &I_strFile); // empty: there is none

    // The messages of the session's processes in its time, each handed out once.
    std::vector<ACT_MESSAGE> TakeFor(const TRACE_SESSION &I_sSession);

    uint64_t Unused() const;
    uint64_t Dropped() const; // the oldest, of a log that does not fit into memory

  private:
    void Add(const ACT_MESSAGE &I_sMessage);
    void Index();

    std::deque<ACT_MESSAGE> deqMessages;
    std::unordered_map<long, std::vector<size_t>> mapProcesses;
    size_t uBytes = 0;
    uint64_t uDropped = 0;
};

#endif
