// What the groups of steps share: texts, work in a child process, findings and their report; and
// the groups themselves, in the order of a check.
#ifndef XBSACTL_CHECK_PARTS_H
#define XBSACTL_CHECK_PARTS_H

#include <netinet/in.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/base.h"
#include "check/check.h"

namespace check
{
using base::Text;

// A reply that refuses, for now or for good.
inline bool IsNegative(std::string_view I_svReply)
{
    return I_svReply.starts_with('4') || I_svReply.starts_with('5');
}

// Work that may hang or crash, in a separate process that is killed when its time is over. Its
// events arrive at once: a name without a blank, and a value of one line.
using SAY = std::function<void(const char *cpName, const std::string &I_strValue)>;
using WORK = std::function<void(const SAY &)>;

struct EVENT
{
    std::string strName;
    std::string strValue;
    long lMilliseconds = 0; // since the start of the work
};

using CLOCK = std::chrono::steady_clock;
using std::chrono_literals::operator""ms;

constexpr const char *FAILED = "failed"; // the name of the work's own error, when it threw one

// All events, however the work ended.
struct OUTCOME
{
    std::vector<EVENT> vecEvents;
    std::string strFailure; // what the work threw, a crash, or silence; empty: success

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

    // Waits until the work has ended or was silent for that time, or until an event of that name.
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

// Starts the work and waits for its outcome.
OUTCOME RunChild(std::chrono::milliseconds I_sSilence, const WORK &I_fpWork);

// What a step found.
enum class STATUS
{
    OK,
    WARN,
    FAIL,
    NOT_TRIED
};

struct FINDING
{
    STATUS eStatus = STATUS::OK;
    std::string strFound{};  // what there is
    std::string strNext{};   // what to do about it; empty: the knowledge base's remedy, if needed
    long lMilliseconds = -1; // that the step took; -1: since the last finding
    std::string strStep{};   // "network.login"; by CReport::Add
};

inline FINDING Ok(const std::string &I_strFound)
{
    return {STATUS::OK, I_strFound};
}
inline FINDING Warn(const std::string &I_strFound, const std::string &I_strNext = "")
{
    return {STATUS::WARN, I_strFound, I_strNext};
}
inline FINDING Fail(const std::string &I_strFound, const std::string &I_strNext = "")
{
    return {STATUS::FAIL, I_strFound, I_strNext};
}
inline FINDING NotTried(const std::string &I_strWhy)
{
    return {STATUS::NOT_TRIED, "not tried: " + I_strWhy};
}

// A step's name, and its test.
using STEPS = std::vector<std::pair<const char *, std::function<FINDING()>>>;

// Shows the findings: line by line as they come, as one JSON text at the end, or as the one line of
// a monitoring plug-in.
class CReport
{
  public:
    CReport(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions);

    // Returns false after a failure: later steps that depend on it make no sense then.
    bool Add(const std::string &I_strStep, FINDING I_sFinding);

    // Runs steps that depend on each other until one fails. Returns whether all ran and none
    // failed.
    //   I_strWhy  why none of them can be tried; empty: they can
    bool Climb(const STEPS &I_vecSteps, const std::string &I_strWhy = "");

    // A text from elsewhere, safe to show: one line, without the password.
    std::string Foreign(const std::string &I_strText) const;

    // Prints the rest. Returns the exit code.
    int Finish() const;

  private:
    int Count(STATUS I_eStatus) const;
    std::string Counts() const;
    std::string Json() const;
    int FinishNagios() const;

    std::vector<FINDING> vecFindings;
    const base::CONNECTION sConnection;
    const OPTIONS sOptions;
    CLOCK::time_point sStart = CLOCK::now();
    CLOCK::time_point sLast = sStart;
};

// The groups of steps.

struct CHECKED_LIBRARY
{
    bool bUsable = false;
    std::string strPath; // of the file, without links; empty when there is none
    std::string strRow;  // for sm_versions; empty when the library did not show its version
};

// The library's file, loading, calls and version. A database's account must be able to read it.
CHECKED_LIBRARY CheckLibrary(CReport &X_sReport, const std::string &I_strLibrary, bool I_bDatabase);

// The files that lead the database's backup tool to the library, and its settings. Returns how many
// processes a backup has at once; 0: not known.
long CheckDatabase(CReport &X_sReport, const OPTIONS &I_sOptions,
                   const CHECKED_LIBRARY &I_sLibrary);

// Of net.ipv4, the number at that place (from 0); -1 when the system does not show it.
long Kernel(const char *cpName, int I_iPlace = 0);

// This machine: account, variables and log, and how long it waits for a server that has vanished.
// The connection gets the trace that the environment asks for. Returns whether the variables allow
// a session in Informix mode.
bool CheckHost(CReport &X_sReport, base::CONNECTION &X_sConnection);

// The COM utility, found and asked by the library. Returns whether a session can be tried.
//   I_bVariables  the KORVA_ variables are usable: without them the utility is not asked
bool CheckUtility(CReport &X_sReport, const base::CONNECTION &I_sConnection, bool I_bLibrary,
                  bool I_bVariables, std::chrono::milliseconds I_sBound);

// Of the first line "KEY=VALUE" that the utility printed in that session; empty for none.
std::string ValueIn(const OUTCOME &I_sOutcome, const std::string &I_strKey);

// What only a connection of the tool's own shows: name look-up in both directions, and all lines of
// the greeting, of which the library reads only the first. Returns the address when a session can
// be tried.
//   I_strHost  HOST[:PORT]
std::optional<sockaddr_in> LookAt(CReport &X_sReport, const std::string &I_strHost,
                                  std::chrono::milliseconds I_sBound);

struct SESSIONS
{
    CReport &sReport;
    base::CONNECTION sConnection;
    std::chrono::milliseconds sSilence; // the longest wait
    std::string strName;                // begins the name of each object
    long lStreams;                      // of a backup, at once; 0: not known
    std::vector<std::string> vecLeft{}; // on the server, perhaps: names, or Informix copy ids
};

// An object there and back through the library. Its trace comes as events of the name "trace".
OUTCOME RunAlone(SESSIONS &X_sSessions);

// HOST:PORT that the utility named in that session; empty for none.
std::string ServerIn(const OUTCOME &I_sAlone);

// Whether that session sent STOR, and was not refused.
bool HasStored(const SESSIONS &I_sSessions, const OUTCOME &I_sAlone);

// The steps network.login to network.end: that session's commands and replies. Returns whether none
// failed.
//   I_strWhy  why they cannot be tried; empty: they can
bool ReportDialogue(SESSIONS &X_sSessions, const OUTCOME &I_sAlone, const sockaddr_in &I_sServer,
                    const std::string &I_strWhy);

// The library's results; when all is well, two sessions at once as well.
void ReportSessions(SESSIONS &X_sSessions, const OUTCOME &I_sAlone, const std::string &I_strWhy);

// Deletes what plain mode has left on the server, on a separate connection; names the copies of
// Informix mode, which a client cannot remove.
void CleanUp(const SESSIONS &I_sSessions, const sockaddr_in &I_sServer);
} // namespace check

#endif
