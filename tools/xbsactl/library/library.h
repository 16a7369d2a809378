// The library, loaded once as a database's tool loads it, and one session with it.
#ifndef XBSACTL_LIBRARY_H
#define XBSACTL_LIBRARY_H

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/base.h"

namespace library
{
constexpr size_t BLOCK_SIZE = 65535; // bytes: the length of a data block has 16 bits

// What is loaded for --library I_strPath: a path, or a name for the loader's search. Empty: the
// tool's own library in ../lib, relative to the tool's directory, else the loader's search.
std::string Path(const std::string &I_strPath);

// The parts of a path that are closed to other accounts: the database's account must reach the
// library.
std::vector<std::string> ClosedParts(const std::string &I_strPath);

// Loads it for the life of the process; a second time finds it loaded. Throws FAILURE.
void *Load(const std::string &I_strPath);

// A function or record of the loaded library, and the same with the type of its declaration:
// LIBRARY_SYMBOL(vpLibrary, BSAInit). Throws FAILURE when the library lacks it.
void *Symbol(void *vpLibrary, const char *cpName);
#define LIBRARY_SYMBOL(vpLibrary, name)                                                            \
    reinterpret_cast<decltype(&(name))>(library::Symbol(vpLibrary, #name))

// The calls of the interface, and two of this library's own that the tool needs.
inline constexpr const char *CALLS[] = {
    "BSAInit",         "BSATerminate",       "BSABeginTxn",
    "BSAEndTxn",       "BSACreateObject",    "BSASendData",
    "BSAEndData",      "BSAGetObject",       "BSAGetData",
    "BSAQueryObject",  "BSADeleteObject",    "BSAGetNextQueryObject",
    "BSAGetLastError", "BSAQueryApiVersion", "BSAQueryServiceProvider",
    "BSASetTrace",     "find_com_intf",      "BSAGetEnvironment"};

// Where the library looks for the COM utility; empty when no INI file names it.
std::string UtilityPath(void *vpLibrary);

// The row of sm_versions that the library's answers make. Throws FAILURE.
std::string VersionsRow(void *vpLibrary);

struct OBJECT
{
    std::string strSpace; // Informix
    std::string strName;
    unsigned uCopyId = 0; // Informix restore: 0 for the newest copy
};

// Throws USAGE_ERROR.
void CheckObject(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject);

// What names the object to the library.
BSA_ObjectDescriptor Descriptor(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject);

// Gets the lines of the library's trace, whatever level the user asked for.
using LISTENER = std::function<void(const std::string &I_strLine)>;

// The command that such a line shows on its way to the server, and the reply that came back.
std::optional<std::string> CommandIn(const std::string &I_strLine);
std::optional<std::string> ReplyIn(const std::string &I_strLine);

// One session and transaction in strict mode. Every call throws FAILURE for a code other than 0.
class CSession
{
  public:
    explicit CSession(const base::CONNECTION &I_sConnection, const LISTENER &I_fpListener = {});

    // Ends the session that Close did not reach. The trace then shows a command that failed rather
    // than a process that was killed; an object that is still open stays unconfirmed.
    ~CSession();
    CSession(const CSession &) = delete;
    CSession &operator=(const CSession &) = delete;

    // All stored copies that match; none when nothing does.
    std::vector<BSA_ObjectDescriptor> Copies(const OBJECT &I_sObject);

    // What a restore reads: in Informix mode without a copy id, the newest copy. Throws FAILURE
    // when the server has none.
    BSA_ObjectDescriptor Find(const OBJECT &I_sWanted);

    void Create(BSA_ObjectDescriptor &X_sObject);
    void Get(BSA_ObjectDescriptor &X_sObject);

    // Sends 1 to BLOCK_SIZE bytes. A failure ends the object, and names the server's reason.
    void Send(char *cpData, size_t I_uLength);

    // Fills a buffer of BLOCK_SIZE bytes; fewer bytes are the end of the object. A failure ends
    // the object.
    size_t Receive(char *cpData);

    // The server's confirmation: only after this call a backup is stored, or a restore complete.
    void EndData();

    // Ends the object of a restore after a failure on this side: its job must not stay open.
    void Abandon();

    // Ends the transaction and opens another one, even if the object of the first failed.
    void Next();

    void Close();

  private:
    CSession(const base::CONNECTION &I_sConnection, void *vpLoaded);
    void Listen(bool I_bListen) const;
    void SetTrace(const LISTENER &I_fpListener);
    std::string LastError() const;
    std::string UtilityFault(const std::string &I_strReason) const;
    base::FAILURE Failure(const char *cpStep, int I_iCode) const;
    void Check(const char *cpStep, int I_iCode) const;
    void FailData(const char *cpStep, int I_iCode);

    base::CONNECTION sConnection; // with the password: a server may repeat it
    void *vpLibrary;
    long lHandle = 0;
    bool bOpen = false;
};

// A field that is filled to its last byte has no terminator.
template <size_t SIZE> std::string Field(const char (&I_szField)[SIZE])
{
    return std::string(I_szField, strnlen(I_szField, SIZE));
}
} // namespace library

#endif
