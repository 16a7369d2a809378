// The model of one session of a log, which text, page and JSON show.
#ifndef XBSACTL_TRACE_SESSION_H
#define XBSACTL_TRACE_SESSION_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace trace
{
enum class KIND
{
    OBJECT, // a heading: the steps of an object or a query follow
    CONTROL,
    UTILITY,
    DATA,
    REPLY,   // of a server, in a log that has nothing else
    CALL,    // what a call returned
    DATABASE // a message of its activity log
};

struct STEP
{
    KIND eKind;
    int64_t iStart;
    std::string strText;
    int64_t iEnd = iStart;
    bool bEnded = false;
    bool bFailed = false;
    std::string strResult{}; // of an object: its copy, when it is known
    std::string strJob{};    // a backup's, until it is certain which copy it is
    uint64_t uBytes = 0;     // data
    uint64_t uBlocks = 0;
    int64_t iPause = 0; // the longest between two blocks, and when it began
    int64_t iPauseStart = 0;

    void AddBlock(uint64_t I_uBytes, int64_t I_iTime);
    bool HasDuration() const
    {
        return eKind == KIND::CONTROL || eKind == KIND::UTILITY || eKind == KIND::DATA;
    }
};

// The first and the last steps; those in between are counted.
class CSteps
{
  public:
    void Add(const STEP &I_sStep);
    std::vector<STEP> All() const; // with a heading for those that are left out
    STEP *Last()                   // null when there is none
    {
        return vecSteps.empty() ? nullptr : &vecSteps.back();
    }

    // "backup of a, restore of b": as many headings as fit.
    std::string Names() const;

    // The copy of this job's backup is certain now.
    void NameCopy(const std::string &I_strJob, const std::string &I_strCopy);

    uint64_t uObjects = 0;

  private:
    std::vector<STEP> vecSteps; // if there are many, some in the middle are omitted
    uint64_t uLeftOut = 0;
};

struct PLACE
{
    uint64_t uLine = 0; // from 1
    int64_t iTime = 0;  // seconds of the log's clock, read as UTC
};

struct LOGGED_ERROR
{
    PLACE sPlace;
    std::string strText;
    bool bWeak; // a later one may say more
};

enum class ORIGIN
{
    INIT,   // begins with BSAInit
    MIDDLE, // its beginning is not in the log
    REPLIES // nothing but replies of a server: a trace of level 1
};

enum class STATE
{
    OPEN,       // lines can belong to it still
    TERMINATED, // by BSATerminate
    REPLACED,   // the same process began another one without BSATerminate
    OVER        // in another way
};

// The library's calls, as bits.
enum CALL : unsigned
{
    IN_NONE = 1U << 0U, // between calls
    IN_INIT = 1U << 1U,
    IN_BEGIN = 1U << 2U,
    IN_CREATE = 1U << 3U,
    IN_GET = 1U << 4U,
    IN_QUERY = 1U << 5U,
    IN_NEXT = 1U << 6U,
    IN_END_DATA = 1U << 7U,
    IN_END_TXN = 1U << 8U,
    IN_TERMINATE = 1U << 9U,
    IN_UNKNOWN = 1U << 10U // the log began in the middle
};

// The state of its process after the last line.
struct PROGRESS
{
    unsigned uCall = IN_UNKNOWN;
    std::optional<STEP> sPending;       // still open
    bool bTransfer = false;             // the server has accepted STOR or RETR
    std::optional<uint64_t> uTotal;     // bytes that the process counted
    std::optional<std::string> strName; // of the object, until its path is known
    long lHandle = 0;                   // that the last line names; 0: none
    long lForeign = 0;                  // the same of the line before: perhaps the caller's mistake
    bool bRejected = false;             // BSAInit came too early, and is not a new session
    std::string strSign;                // set for a line that one process cannot have written here
};

// What is known of the processes when several are mixed.
struct MIXTURE
{
    std::string strSign;   // how it shows; empty: they are not mixed
    size_t uProcesses = 1; // that are known of
    size_t uTerminated = 0;
};

enum class OUTCOME
{
    DONE,
    FAILED,
    UNFINISHED,
    MIXED,
    REPLIES
};

struct SESSION
{
    uint64_t uNumber = 0; // in the log, from 1
    PLACE sFirst;
    PLACE sLast;
    ORIGIN eOrigin = ORIGIN::MIDDLE;
    STATE eState = STATE::OPEN;
    std::set<long> setHandles; // several where processes are mixed
    bool bInformix = false;
    std::string strOwner;
    std::string strUser;
    std::string strHost;
    CSteps sSteps;
    uint64_t uBytes = 0;
    bool bFailed = false;               // a call returned an error
    std::optional<LOGGED_ERROR> sError; // the first one
    MIXTURE sMixture;
    PROGRESS sProgress;

    bool IsMixed() const
    {
        return !sMixture.strSign.empty();
    }
    void AddHandle(long I_lHandle);
    void AddStep(const STEP &I_sStep); // of a mixed one the objects alone
    std::vector<STEP> Steps() const;   // including open ones

    // As shown: "done", "failed", "unfinished", ...; the processes; and remarks.
    OUTCOME Outcome() const;
    std::string OutcomeText() const;
    std::string Title() const;
    std::string Note() const;
};
} // namespace trace

#endif
