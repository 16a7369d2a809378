// The library, loaded as a database's tool loads it, and one session with it. Every call throws
// FAILURE for a code other than 0.
#ifndef XBSACTL_LIBRARY_H
#define XBSACTL_LIBRARY_H

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/base.h"

#include "xbsa.h"

namespace library
{
struct LIBRARY
{
    decltype(&BSAInit) fpInit = nullptr;
    decltype(&BSATerminate) fpTerminate = nullptr;
    decltype(&BSABeginTxn) fpBeginTxn = nullptr;
    decltype(&BSAEndTxn) fpEndTxn = nullptr;
    decltype(&BSACreateObject) fpCreateObject = nullptr;
    decltype(&BSASendData) fpSendData = nullptr;
    decltype(&BSAEndData) fpEndData = nullptr;
    decltype(&BSAGetObject) fpGetObject = nullptr;
    decltype(&BSAGetData) fpGetData = nullptr;
    decltype(&BSAQueryObject) fpQueryObject = nullptr;
    decltype(&BSAGetNextQueryObject) fpGetNextQueryObject = nullptr;
    decltype(&BSAGetLastError) fpGetLastError = nullptr;
    decltype(&BSASetTrace) fpSetTrace = nullptr;
    const char *(*fpTypeErr)(int) = nullptr; // text of a code; null in another library
};

// What is loaded for --library I_strPath: a path, or a name for the loader's search.
std::string Path(const std::string &I_strPath);

/*
 * Loads the library for the life of the process.
 *   I_strPath  path, or a name for the loader's search; empty: the one that belongs to the tool,
 *              in ../lib beside the tool's own folder, else the loader's search
 * Throws base::FAILURE.
 */
LIBRARY Load(const std::string &I_strPath);

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

using LISTENER = std::function<void(const std::string &I_strLine)>;

constexpr size_t BLOCK_SIZE = 65535; // bytes: the length of a data block has 16 bits

class CSession
{
  public:
    // Loads the library and opens session and transaction, in strict mode. A listener hears the
    // steps of the library's trace, whatever the user asked for.
    explicit CSession(const base::CONNECTION &I_sConnection, const LISTENER &I_fpListener = {});

    // Ends the session that Close did not reach. The trace then tells a command that failed from a
    // process that was killed; an object that is still open stays unconfirmed.
    ~CSession();
    CSession(const CSession &) = delete;
    CSession &operator=(const CSession &) = delete;

    // All stored copies that match; none when nothing does.
    std::vector<BSA_ObjectDescriptor> Copies(const OBJECT &I_sObject);

    // Makes it the newest copy that the server offers. Throws FAILURE when it offers none.
    void TakeNewest(const OBJECT &I_sWanted, BSA_ObjectDescriptor &X_sObject);

    void Create(BSA_ObjectDescriptor &I_sObject);
    void Get(BSA_ObjectDescriptor &I_sObject);

    // Sends 1 to BLOCK_SIZE bytes. A failure ends the object, and tells the server's reason.
    void Send(char *cpData, size_t I_uLength);

    // Fills a buffer of BLOCK_SIZE bytes; fewer bytes are the end of the object. A failure ends
    // the object.
    size_t Receive(char *cpData);

    // The server's verdict: only after this a backup is stored, a restore whole.
    void EndData();

    // Ends the object of a restore after a failure on this side: its job must not stay open.
    void Abandon();

    // Ends the transaction and opens another one, whatever became of the object of the first.
    void Next();

    void Close();

  private:
    CSession(const LIBRARY &I_sLibrary, const base::CONNECTION &I_sConnection);
    void SetTrace(const LISTENER &I_fpListener) const;
    std::string LastError() const;
    std::string Text(const char *cpStep, int I_iCode) const;
    void Check(const char *cpStep, int I_iCode) const;
    void FailData(const char *cpStep, int I_iCode) const;

    LIBRARY sLibrary;
    base::CONNECTION sConnection; // with the password: a server may say it back
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
