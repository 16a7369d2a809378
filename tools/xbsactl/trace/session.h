// What is known of one session of a log.
#ifndef XBSACTL_TRACELOG_SESSION_H
#define XBSACTL_TRACELOG_SESSION_H

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

enum class STEP_KIND
{
    OBJECT, // a heading: the steps of an object or a query follow
    CONTROL,
    UTILITY,
    DATA,
    REPLY, // of a server, in a log that has nothing else; no duration
    CALL   // what a call returned; no duration
};

struct STEP
{
    STEP_KIND eKind = STEP_KIND::CALL;
    int64_t iStart = 0;
    int64_t iEnd = 0;
    bool bEnded = false;
    bool bFailed = false;
    std::string strText;
    std::string strResult; // of an object: its copy, when it is known
    std::string strJob;    // a backup's, until it is certain which copy it is
    uint64_t uBytes = 0;   // data
    uint64_t uBlocks = 0;
    int64_t iPause = 0; // the longest between two blocks, and when it began
    int64_t iPauseStart = 0;
};

// The library's calls, as bits: where in its life a process stands.
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

struct TRACE_SESSION
{
    uint64_t uNumber = 0; // in the log, from 1
    uint64_t uFirstLine = 0;
    uint64_t uLastLine = 0;
    int64_t iFirst = 0;
    int64_t iLast = 0;
    std::string strFirst; // stamps
    std::string strLast;
    std::set<long> setHandles; // several where processes are mixed
    std::string strOwner;
    std::string strUser;
    std::string strHost;
    std::string strMixed;       // how it shows that several processes are mixed; else empty
    std::vector<STEP> vecSteps; // the first ones
    std::deque<STEP> deqSteps;  // and the last ones
    uint64_t uLeftOut = 0;      // of those between
    uint64_t uObjects = 0;
    uint64_t uBytes = 0;
    std::string strError; // the first one
    std::string strErrorStamp;
    uint64_t uErrorLine = 0;

    // Where the process stands
    STEP sPending;
    STEP sData;
    int64_t iBlock = 0;      // time of the last block
    uint64_t uTotal = 0;     // bytes that the process counted
    std::string strName;     // of the object, until its path is known
    std::string strSign;     // a line that no single process can have written here
    long lForeignHandle = 0; // the line before named this one: a mistake of the caller's?
    unsigned uCall = IN_UNKNOWN;
    size_t uProcesses = 1;    // mixed: that are known of
    size_t uTerminated = 0;   // and that have ended
    bool bPending = false;    // sPending goes on
    bool bData = false;       // sData goes on
    bool bTransfer = false;   // the server has taken STOR or RETR
    bool bTotalKnown = false; // uTotal is
    bool bNamed = false;      // strName waits for its path
    bool bRejected = false;   // BSAInit came too early, and is no new session

    bool bInformix = false;
    bool bHead = false;       // begins with BSAInit
    bool bReplies = false;    // nothing but replies of a server: a trace of level 1
    bool bTerminated = false; // ends with BSATerminate
    bool bReplaced = false;   // the same process began another one without BSATerminate
    bool bEnded = false;      // no line can belong to it any more
    bool bFailed = false;     // a call returned an error
    bool bWeakError = false;  // strError tells less than a later one may
};

constexpr size_t MIXED_HANDLES = 16; // that are remembered of a mixed block
constexpr size_t STEPS_KEPT = 200;   // at each end of a session

bool session_HasDuration(const STEP &I_sStep);
bool session_IsMixed(const TRACE_SESSION &I_sSession);
bool session_HasHandle(const TRACE_SESSION &I_sSession, long I_lHandle);
void session_AddStep(TRACE_SESSION &X_sSession, const STEP &I_sStep);

// "handle 9497", or what there is in its place.
std::string session_Handles(const TRACE_SESSION &I_sSession);

// One or two words: "done", "failed", "unfinished", ...
std::string session_Outcome(const TRACE_SESSION &I_sSession);

// What else must be known of how it began and ended; empty when nothing must.
std::string session_Note(const TRACE_SESSION &I_sSession);

// All steps that were kept, in order, with those that were still going on.
std::vector<STEP> session_Steps(const TRACE_SESSION &I_sSession);

// "backup of a, restore of b": the headings, as many as fit.
std::string session_Objects(const TRACE_SESSION &I_sSession);

#endif
