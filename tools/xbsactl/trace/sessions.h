// Tells the sessions of a log apart. A line names no process, so a session is a run of lines whose
// handles and order of calls fit one process. Where they do not fit, the lines of several processes
// are mixed: the session, and each whose handle comes up in it, become one block that claims
// nothing about any of them.
#ifndef XBSACTL_TRACELOG_SESSIONS_H
#define XBSACTL_TRACELOG_SESSIONS_H

#include <deque>
#include <functional>

#include "trace/lines.h"
#include "trace/rules.h"
#include "trace/session.h"

class CSessions
{
  public:
    using SINK = std::function<void(const TRACE_SESSION &)>;

    // The sink gets each session once it is known whole, in the order of their beginnings.
    explicit CSessions(SINK I_fpSink);

    void Take(const LOG_LINE &I_sLine);
    void Finish(); // the log has ended

  private:
    static constexpr size_t NONE = static_cast<size_t>(-1);

    TRACE_SESSION &Current(const LOG_LINE &I_sLine);
    void Open(const LOG_LINE &I_sLine, bool I_bHead);
    void TakeHandle(long I_lHandle, const LOG_LINE &I_sLine, bool I_bInit);
    void JudgeForeignHandle(const LOG_LINE &I_sLine);
    void Adopt(long I_lHandle, const LOG_LINE &I_sLine, bool I_bInit);
    void AddForeign(long I_lHandle, const std::string &I_strSign);
    size_t FindOther(long I_lHandle, bool I_bTerminated) const;
    size_t FindNameless() const;
    void Merge(size_t I_uOther, const std::string &I_strSign);
    void TakeMixed(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine);
    void TakeCut(const LOG_LINE &I_sLine, const FUNCTION &I_sWriter);
    void Judge(const LOG_LINE &I_sLine);
    void FoldRejected();
    void End();
    void Flush(size_t I_uKeep);

    SINK fpSink;
    std::deque<TRACE_SESSION> deqSessions; // some have ended, and wait for an earlier one to end
    size_t uCurrent = NONE;                // the one that the last line belonged to
    uint64_t uSessions = 0;
};

#endif
