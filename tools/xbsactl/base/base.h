// The base of every room: how the tool fails, texts that are safe on a terminal, the settings of a
// session, the end by a signal, files.
#ifndef XBSACTL_BASE_H
#define XBSACTL_BASE_H

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "xbsa.h"

struct evp_md_ctx_st; // libcrypto's
struct gzFile_s;      // zlib's

namespace base
{
// What a script can distinguish; docs/xbsactl.md has the table.
enum : int
{
    EXIT_DONE = 0,
    EXIT_FAILED = 1,   // anything else
    EXIT_USAGE = 2,    // arguments or settings cannot be used, nothing was sent
    EXIT_NO_MATCH = 3, // the server, or the manifest, has no such object
    EXIT_SERVER = 4,
    EXIT_UTILITY = 5, // the COM utility, or its INI file
    EXIT_FILE = 6     // a file of this host
};

// The parts as text, one after another. A fraction has three digits.
template <typename... PARTS> std::string Text(const PARTS &...sParts)
{
    std::ostringstream sText;
    sText << std::fixed << std::setprecision(3);
    (sText << ... << sParts);
    return sText.str();
}

struct FAILURE : std::runtime_error
{
    explicit FAILURE(const std::string &I_strText, int I_iExit = EXIT_FAILED)
        : std::runtime_error(I_strText), iExit(I_iExit)
    {
    }

    int iExit;
};

struct USAGE_ERROR : FAILURE
{
    template <typename... PARTS>
    explicit USAGE_ERROR(const PARTS &...sParts) : FAILURE(Text(sParts...), EXIT_USAGE)
    {
    }
};

template <typename... PARTS> FAILURE FileFailure(const PARTS &...sParts)
{
    return FAILURE(Text(sParts...), EXIT_FILE);
}

// The parts, and the text of errno at the time of the call; for files.
template <typename... PARTS> FAILURE SystemFailure(const PARTS &...sParts)
{
    const int iError = errno;
    return FileFailure(sParts..., ": ", std::generic_category().message(iError));
}

bool HasControlCharacter(const std::string &I_strText);

// The text with "?" for each character that a terminal would interpret: controls, including U+0080
// to U+009F, and marks of the writing direction. All that is printed passes through here. I_bUtf8:
// also for each byte that is not valid UTF-8; overlong forms, surrogates and characters above
// U+10FFFF are not.
std::string Visible(const std::string &I_strText, bool I_bUtf8 = false);

// The same, without controls and blanks at its end: a server's reply in one line.
std::string Printable(std::string I_strText, bool I_bUtf8 = false);

// The text with line ends between words for lines of that width; all but the first are indented.
std::string Wrapped(std::string I_strText, size_t I_uWidth, size_t I_uIndent);

// What follows the beginning; nothing when the text begins otherwise.
std::optional<std::string> After(const std::string &I_strText, std::string_view I_svBegin);

// The text with a mask wherever a peer repeated the secret.
std::string Masked(std::string I_strText, const std::string &I_strSecret);

// The SHA-256 of all that is added. Throws FAILURE.
class CSha256
{
  public:
    CSha256();
    void Add(std::string_view I_svBytes);
    std::string Digits(); // 64 in lower case; nothing can be added afterwards

  private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st *)> spContext;
};

constexpr size_t NAME_ROOM = sizeof(BSA_ObjectName::objectSpaceName) - 1; // bytes

// What a session needs, checked before anything is opened or sent.
struct CONNECTION
{
    bool bInformix = false;      // Informix mode: through the COM utility
    std::string strHost;         // HOST[:PORT]
    std::string strUser;         // login
    std::string strPasswordFile; // empty: the variable XBSA_PASSWORD
    std::string strPassword;     // by HidePassword, then by CheckPlain
    bool bPassword = false;      // by HidePassword: the variable was there
    std::string strLoginFault;   // why the login cannot be used; empty: it can
    std::string strPath = ".";   // directory on the server
    std::string strLibrary;      // empty: the default search
    int iTraceLevel = -1;        // -1: the environment decides
    std::string strTraceFile;    // empty: standard error
    unsigned uTimeout = 300;     // seconds, 0 = no limit
};

// Of the environment; empty when it is not set.
std::string Variable(const char *cpName);

// The ports to which the server connects back, which a firewall must allow:
// " (net.ipv4.ip_local_port_range: 32768 to 60999)" on most machines.
std::string LocalPorts();

// The variables of Informix mode. The library silently ignores a value that is too long, and the
// backup would go to another pool or drive.
struct VARIABLE
{
    const char *cpName;
    size_t uRoom; // bytes
    bool bNeeded;
};
extern const std::array<VARIABLE, 6> VARIABLES;

// Moves the variable XBSA_PASSWORD out of the environment and out of the memory that
// /proc/PID/environ shows; no command and no child process needs it there.
void HidePassword(CONNECTION &X_sConnection);

// Takes "LEVEL[:FILE]" apart. Throws USAGE_ERROR.
void TakeTrace(CONNECTION &X_sConnection, const std::string &I_strTrace);

// Of a password file.
bool IsOpenToOthers(const std::string &I_strFile);

// The trace that the environment asks for, treated like --trace. Level 0: nothing is written.
void TakeTraceVariables(CONNECTION &X_sConnection);

// Checks all of plain mode and reads the password. Throws USAGE_ERROR, or FAILURE for the password
// file.
//   I_bLogin  false for check: a login that cannot be used is one of its findings
void CheckPlain(CONNECTION &X_sConnection, bool I_bLogin = true);

// Checks the variables above. Throws USAGE_ERROR.
void CheckVariables();

// Throws USAGE_ERROR for an empty text, one with a control character, or a longer one.
void CheckText(const std::string &I_strWhat, const std::string &I_strText, size_t I_uRoom);

// The same for a name on the server, which drops blanks at its ends: the object would get another
// name.
void CheckName(const std::string &I_strWhat, const std::string &I_strText);

// The owner text of an object in plain mode: the login, as the library wants it.
std::string Owner(const CONNECTION &I_sConnection);

// Ctrl-C and similar signals, and a time limit. A separate thread waits for them: the library
// blocks all signals in the calling thread while it waits for a reply, and a silent server must not
// make it impossible to stop the tool.
struct STOP_HOOKS
{
    void (*fpAsked)();  // after SIGUSR1, which does not end the process
    void (*fpTick)();   // then, too, and once per second
    void (*fpEnd)(int); // before the thread ends the process; takes the shell's exit code
};

// Starts the thread. From here on SIGHUP, SIGINT, SIGQUIT and SIGTERM, unless the caller ignored
// them, remove the files below and end the process by the same signal.
void WatchSignals(const STOP_HOOKS &I_sHooks);

// Begins a child process, which has such a thread too, and ends with this one. Returns 0 there.
// Throws FAILURE.
pid_t Fork();

// While it exists, the thread does not end the process. One thread may hold several. A child
// process must not find it locked by a thread that the child does not have: the thread above takes
// it only when there is work.
using STOP_LOCK = std::unique_lock<std::recursive_mutex>;
STOP_LOCK HoldStop();

// The files that must not survive: names in directories that are held open. For holders of the
// lock.
std::set<std::pair<int, std::string>> &DoomedFiles();

// While one exists, the thread limits the time: after I_uSeconds, 0 for no limit, it shuts the
// connection down, and the wait for the connection fails. Without a connection it removes the files
// above, prints the message and ends the process with EXIT_SERVER.
class CTimeLimit
{
  public:
    // I_fpConnection  returns the socket, -1 for none
    // I_strMessage    empty: the time begins with the connection
    CTimeLimit(unsigned I_uSeconds, int (*I_fpConnection)(), const std::string &I_strMessage);
    CTimeLimit(const CTimeLimit &) = delete;
    CTimeLimit &operator=(const CTimeLimit &) = delete;
    ~CTimeLimit();

    static bool IsOver(); // whether the last one shut a connection down
};

// Where the bytes of an object come from and go to, and small texts that other processes read or
// replace at the same time. All failures throw FAILURE, with the exit code of a local file.

constexpr off_t TEXT_LARGEST = off_t{64} << 20; // bytes, far above any text of ours

// A file descriptor that closes itself.
class CDescriptor
{
  public:
    explicit CDescriptor(int I_iFile = -1) : iFile(I_iFile)
    {
    }
    CDescriptor(CDescriptor &&I_sOther) noexcept : iFile(I_sOther.Release())
    {
    }
    CDescriptor &operator=(CDescriptor I_sOther) noexcept
    {
        std::swap(iFile, I_sOther.iFile);
        return *this;
    }
    CDescriptor(const CDescriptor &) = delete;
    ~CDescriptor()
    {
        if (iFile != -1) close(iFile);
    }

    int Get() const
    {
        return iFile;
    }

    struct stat Status(const std::string &I_strShown) const;

    // The caller closes it.
    int Release()
    {
        return std::exchange(iFile, -1);
    }

  private:
    int iFile;
};

// The text of a link in a directory, or of one that is open itself (an empty name).
std::string LinkText(int I_iFolder, const std::string &I_strName, const std::string &I_strShown);

// A name in a directory that is held open, so that nobody can replace the directory.
struct TARGET
{
    std::shared_ptr<const CDescriptor> spFolder;
    std::string strName;  // in that directory
    std::string strShown; // in messages

    int Folder() const
    {
        return spFolder->Get();
    }

    // Of the name itself, also when it is a link; nothing when it does not exist. Throws also for
    // what somebody else put there after FindTarget.
    std::optional<struct stat> Status() const;

    // Opens the name itself: a link fails with ELOOP. -1 with errno. Throws as above.
    int Open(int I_iFlags, mode_t I_uMode = 0) const;

    // Makes a rename in the directory permanent.
    void SyncFolder() const;
};

// A name on the way along a path, or inside a link on it.
struct STEP
{
    const CDescriptor &sFolder;  // that the name is in
    std::filesystem::path sPath; // to the name
    struct stat sStatus;         // of the name itself
};

// Follows the path link by link, and calls I_fpJudge for each name that exists, which throws to
// stop.
TARGET FindTarget(const std::string &I_strFile,
                  const std::function<void(const STEP &sStep)> &I_fpJudge);

// Follows links that belong to this account or to root. Throws for a link of anybody else, and for
// what somebody else put into a directory that others may write to, like /tmp: with a sticky bit
// its group, else everybody.
TARGET FindTarget(const std::string &I_strFile);

// Keeps descriptors 0 to 2 from becoming a file or socket when the caller closed them. The
// substitutes fail every read or write, so that a closed standard output remains a failure.
void ReserveStandard();

// The path in quotes, for a message.
std::string Quoted(const std::string &I_strFile);

// Fills the buffer; fewer bytes than asked for are the end.
size_t ReadAll(int I_iFile, char *cpData, size_t I_uRoom, const std::string &I_strShown);

class CInput
{
  public:
    explicit CInput(const std::string &I_strFile); // "-": standard input

    // Fills the buffer; fewer bytes than asked for are the end.
    size_t Read(char *cpData, size_t I_uRoom);

    uint64_t Size() const // of a regular file; 0 for others
    {
        return uSize;
    }

  private:
    std::string strName;
    CDescriptor sFile;
    uint64_t uSize = 0;
    uint64_t uDone = 0;
};

// The lines of a file or pipe, one at a time through one buffer, also of what gzip compressed.
class CLines
{
  public:
    CLines(const std::string &I_strFile, size_t I_uLongest); // "-": standard input

    bool Next(); // returns false at the end

    std::string strLine; // without its end; of a longer one the first I_uLongest bytes
    bool bWhole = false; // false for the last line when it has no end
    bool bTorn = false;  // what gzip wrote has no end
    struct stat sStatus = {};

  private:
    bool Fill();

    std::string strShown;
    size_t uLongest;
    std::unique_ptr<gzFile_s, int (*)(gzFile_s *)> spFile;
    std::string strBuffer;
    std::string_view svRest; // of the buffer
    bool bOver = false;
};

// The only way in which the tool writes a file: the bytes go to a temporary file beside it, which
// replaces the file, with its owner and mode, when all bytes are written. Until then the old file
// is untouched. The temporary file is removed with this object, and when a signal ends the process.
// A device, a pipe or standard output gets the bytes directly.
class COutput
{
  public:
    explicit COutput(const std::string &I_strFile); // "-": standard output

    // A regular file, or a new one. I_bExact: one whose owner cannot be kept is refused.
    COutput(TARGET I_sTarget, bool I_bExact);
    ~COutput();

    void Write(const char *cpData, size_t I_uLength);
    void Commit(bool I_bLast = true); // I_bLast: everything is on disk afterwards

  private:
    void CreateTemporary();
    void TakeMode() const;

    TARGET sTarget;
    std::optional<struct stat> sOld; // of the existing file
    bool bExact = false;
    CDescriptor sFile;
    std::string strTemporary; // its name in the target's directory; empty: none is left
};

// The whole text; none when there is no such file. What is not a regular file, or larger than the
// limit, is refused. The path's links are followed, the target's are refused.
std::optional<std::string> ReadText(const std::string &I_strFile, off_t I_iLargest = TEXT_LARGEST);
std::optional<std::string> ReadText(const TARGET &I_sTarget, off_t I_iLargest = TEXT_LARGEST);

// A reader finds the old text or the new one, never a part. I_bLast: also after a power cut.
void ReplaceText(const TARGET &I_sTarget, const std::string &I_strText, bool I_bExact,
                 bool I_bLast = true);

// Texts in the Prometheus format.
std::string LabelValue(const std::string &I_strText); // in quotes
std::string Metric(const char *cpName, const char *cpHelp, const std::string &I_strSamples);
std::string VersionMetric(); // ends each file

// What the file holds already; empty for none. Throws FAILURE when it is not a file of metrics.
std::string EarlierMetrics(const std::string &I_strFile);

// The texts in a database's directory that name its library, for rooms that read or change them.

constexpr const char *LIBRARY_KEY = "BAR_BSALIB_PATH";

using LINES = std::vector<std::string>;
LINES Lines(const std::string &I_strText);

// Of the configuration file: I_strName, the variable ONCONFIG, or "onconfig".
std::string OnconfigName(const std::string &I_strName);

// Whether a line of it sets that name, in capitals or not, and to what, without quotes and the
// comment after a "#".
bool Sets(const std::string &I_strLine, const char *cpName);
std::string Value(const std::string &I_strLine);

// Whether two rows of sm_versions are the same library's: the leading number and a "|" at the end
// do not matter.
bool IsSameRow(const std::string &I_strRow, const std::string &I_strOther);
} // namespace base

#endif
