// What the files of this room share, except the model of a session.
#ifndef XBSACTL_TRACE_PARTS_H
#define XBSACTL_TRACE_PARTS_H

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/base.h"
#include "trace/session.h"

namespace trace
{
// ---- text.cpp
// Texts of a log made safe to show, and readable numbers.
// Valid UTF-8 of bounded length without control characters, and with nothing of what follows PASS:
// safe on a terminal and in a page.
std::string Clean(std::string_view I_svText);

// The log records whole seconds: a step within one second took "<1 s".
std::string Duration(int64_t I_iSeconds);

// Bytes per second, or the bound that whole seconds allow: a difference of 1 may be nearly 2.
std::string Rate(uint64_t I_uBytes, int64_t I_iSeconds);

constexpr int64_t DAY = 86400; // seconds
constexpr const char *STAMP_FORM = "%Y-%m-%d %H:%M:%S";

std::string Stamp(int64_t I_iTime, const char *cpForm = STAMP_FORM); // of strftime
std::string Clock(int64_t I_iTime, bool I_bDay); // "17:46:34", or "11-24 17:46:34"

// The time when all of the text has this form of strptime, without a date one of 1970-01-01.
std::optional<int64_t> ParseTime(const std::string &I_strText, const char *cpForm = STAMP_FORM);

std::string Count(uint64_t I_uNumber, const char *cpThing); // "1 object", "2 objects"

// ---- lines.cpp
// The lines of a log, one at a time: a file of any size takes one buffer.
struct LOG_LINE
{
    PLACE sPlace;
    bool bWhole = true;      // false for the last one when it has no end
    bool bTrace = false;     // a line as the library begins it; else svText is all there is
    std::string_view svText; // what follows the stamp; good until the next line is asked for
};

class CLineReader
{
  public:
    explicit CLineReader(const std::string &I_strFile) // "-": standard input
        : sLines(I_strFile, LONGEST_LINE)
    {
    }

    // Null at the end. A line longer than the library writes is cut. Throws FAILURE.
    const LOG_LINE *Next();

  private:
    static constexpr size_t LONGEST_LINE = 4096; // more than the library ever writes

    base::CLines sLines;
    LOG_LINE sLine;
    std::string strStamp; // of the last line
};

// The time that the user gave ("2026-11-24 17", "17:00"), or the earliest possible one when it is
// empty; a time of day alone means the file's last day. Throws USAGE_ERROR, and FAILURE when the
// file cannot be read.
int64_t Moment(const std::string &I_strText, const std::string &I_strFile);

// ---- take.cpp
// What the library's lines mean.
struct FUNCTION;

// The function of the library that wrote the line; null when the line belongs to no session.
const FUNCTION *Writer(const LOG_LINE &I_sLine);

// Adds a line to the session. Sets strSign of its progress when the line cannot appear there.
void Take(SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sWriter);

// ---- sessions.cpp Separates the sessions of a log. A line does not name its process, so a session
// is a run of lines whose handles and order of calls fit one process. If they do not fit, the lines
// of several processes are mixed: the session, and each session whose handle appears in it, become
// one block that makes no claim about any of them.
class CSessions
{
  public:
    using SINK = std::function<void(const SESSION &)>;

    // The sink gets each session when it is complete, in the order of their beginnings.
    explicit CSessions(SINK I_fpSink) : fpSink(std::move(I_fpSink))
    {
    }

    void Take(const LOG_LINE &I_sLine);

    // Passes on sessions that have ended, and the oldest when more than that many are open.
    void Finish(size_t I_uKeep = 0);

  private:
    void Choose(const LOG_LINE &I_sLine);
    void TakeHandle(const LOG_LINE &I_sLine);
    void JudgeForeignHandle(const LOG_LINE &I_sLine);
    void Adopt(long I_lHandle, const LOG_LINE &I_sLine);
    void AddForeign(long I_lHandle, const std::string &I_strSign);
    template <typename TEST> SESSION *FindOther(TEST I_fpTest);
    void Merge(SESSION *X_spOther, const std::string &I_strSign);
    void TakeMixed(const LOG_LINE &I_sLine);
    void TakeCut(const LOG_LINE &I_sLine, const FUNCTION &I_sWriter);
    void Judge(const LOG_LINE &I_sLine);
    void FoldRejected();
    void End(STATE I_eState);

    SINK fpSink;
    std::list<SESSION> lstSessions; // some have ended, and wait for an earlier one to end
    SESSION *spCurrent = nullptr;   // the one that the last line belonged to
    uint64_t uSessions = 0;
};

// ---- actlog.cpp
// The database's activity log: "2026-11-24 17:46:34 12345  12340 Begin level 0 backup rootdbs."
class CActivityLog
{
  public:
    explicit CActivityLog(const std::string &I_strFile); // empty: there is none

    // The messages of the session's processes in its time, each handed out once, in order of time.
    std::vector<STEP> TakeFor(const SESSION &I_sSession);

    uint64_t Unused() const
    {
        return mapMessages.size();
    }

    uint64_t uDropped = 0; // the oldest messages of a log that does not fit into memory

  private:
    using KEY = std::pair<long, int64_t>; // process and time
    using MESSAGES = std::multimap<KEY, std::string>;
    struct MESSAGE
    {
        KEY sKey;
        std::string strText;
    };
    static std::optional<MESSAGE> Parse(std::string_view I_svLine);
    void Add(const MESSAGE &I_sMessage);

    MESSAGES mapMessages;
    std::deque<MESSAGES::iterator> deqOldest; // in the order of the log, while it is read
    size_t uBytes = 0;
};

// ---- show.cpp
// What text, page and JSON show of a session, in the words of all three.
struct SHOWN
{
    const SESSION &sSession;
    std::vector<STEP> vecSteps; // with the database's messages, in the order of time
};

// Within one second the order of steps and messages is not known.
SHOWN Show(const SESSION &I_sSession, const std::vector<STEP> &I_vecMessages);

const char *KindName(KIND I_eKind);
std::string StepDuration(const STEP &I_sStep); // "" where there is none to be shown

// Clock, kind, duration and text of the step.
std::array<std::string, 4> Cells(const SHOWN &I_sShown, const STEP &I_sStep);

std::vector<std::string> Facts(const SESSION &I_sSession); // when, how much, what else
std::string SessionText(const SHOWN &I_sShown);
std::string SessionJson(const SHOWN &I_sShown);

// ---- page.cpp
// Of the timeline picture.
struct BAR
{
    std::string strClass; // "control", "utility", "data", "mixed", "database"
    bool bFailed = false;
    double dStart = 0; // seconds
    double dEnd = 0;
    std::string strTitle; // shown for the pointer, safe in a page
    uint64_t uSteps = 1;
};

// The sessions as one self-contained page: no script, no font, no network.
class CPage
{
  public:
    explicit CPage(const std::string &I_strFile) : sOutput(I_strFile)
    {
    }

    void Add(const SHOWN &I_sShown);              // keeps as many of the newest as fit
    void Finish(const std::string &I_strSummary); // the file is there afterwards

  private:
    struct ENTRY
    {
        std::string strName; // "session 1"
        int64_t iFirst;
        int64_t iLast;
        std::vector<BAR> vecBars;
        std::string strLink{}; // of the overview
        std::string strSection{};
        size_t uBytes = 0;
    };

    void Write(std::string_view I_svText);
    void WriteOverview();

    base::COutput sOutput;
    std::deque<ENTRY> deqEntries;
    size_t uBytes = 0;
    uint64_t uLeftOut = 0;
};
} // namespace trace

#endif
