// Tells the sessions of a log apart. A line names no process, so a session is a run of lines whose
// handles and order of calls fit one process. Where they do not fit, the lines of several processes
// are mixed: the session, and each whose handle comes up in it, become one block that claims
// nothing about any of them.
#ifndef XBSACTL_TRACE_SESSIONS_H
#define XBSACTL_TRACE_SESSIONS_H

#include <deque>
#include <functional>

#include "trace/take.h"

namespace trace
{
class CSessions
{
  public:
    using SINK = std::function<void(const SESSION &)>;

    // The sink gets each session once it is known whole, in the order of their beginnings.
    explicit CSessions(SINK I_fpSink);

    void Take(const LOG_LINE &I_sLine);
    void Finish(); // the log has ended

  private:
    static constexpr size_t NONE = static_cast<size_t>(-1);

    SESSION &Current()
    {
        return deqSessions[uCurrent];
    }
    void Open(const LOG_LINE &I_sLine, ORIGIN I_eOrigin);
    void Choose(const LOG_LINE &I_sLine);
    void TakeHandle(const LOG_LINE &I_sLine);
    void JudgeForeignHandle(const LOG_LINE &I_sLine);
    void Adopt(long I_lHandle, const LOG_LINE &I_sLine, bool I_bInit);
    void AddForeign(long I_lHandle, const std::string &I_strSign);
    template <typename TEST> size_t FindOther(TEST I_fpTest) const;
    void Merge(size_t I_uOther, const std::string &I_strSign);
    void TakeMixed(const LOG_LINE &I_sLine);
    void TakeCut(const LOG_LINE &I_sLine, const FUNCTION &I_sWriter);
    void Judge(const LOG_LINE &I_sLine);
    void FoldRejected();
    void End(STATE I_eState);
    void Flush(size_t I_uKeep);

    SINK fpSink;
    std::deque<SESSION> deqSessions; // some have ended, and wait for an earlier one to end
    size_t uCurrent = NONE;          // the one that the last line belonged to
    uint64_t uSessions = 0;
};
} // namespace trace

#endif
