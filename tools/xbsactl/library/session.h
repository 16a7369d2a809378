// One session and transaction with the library; every call throws FAILURE for a code other than 0.
#ifndef XBSACTL_SESSION_H
#define XBSACTL_SESSION_H

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "base/settings.h"
#include "library/library.h"

constexpr size_t BLOCK_SIZE = 65535; // bytes: the length of a data block has 16 bits

class CSession
{
  public:
    // Loads the library and opens session and transaction, in strict mode.
    explicit CSession(const SETTINGS &I_sSettings);

    // Ends the session that Close did not reach. The trace then tells a command that failed from a
    // process that was killed; an object that is still open stays unconfirmed.
    ~CSession();
    CSession(const CSession &) = delete;
    CSession &operator=(const CSession &) = delete;

    // All stored copies that match; none when nothing does.
    std::vector<BSA_ObjectDescriptor> Query(BSA_QueryDescriptor &I_sQuery);

    // Makes it the newest copy that the server offers. Throws FAILURE when it offers none.
    void TakeNewest(const SETTINGS &I_sSettings, BSA_ObjectDescriptor &I_sObject);

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
    CSession(const LIBRARY &I_sLibrary, const std::string &I_strPassword);
    void SetTrace(const SETTINGS &I_sSettings) const;
    std::string LastError() const;
    std::string Text(const char *cpStep, int I_iCode) const;
    void Check(const char *cpStep, int I_iCode) const;
    void FailData(const char *cpStep, int I_iCode) const;

    LIBRARY sLibrary;
    std::string strPassword; // a server may say it back
    long lHandle = 0;
    bool bOpen = false;
};

// The descriptors that name the object, and ask for its copies.
BSA_ObjectDescriptor session_Object(const SETTINGS &I_sSettings);
BSA_QueryDescriptor session_Query(const SETTINGS &I_sSettings);

// A field that is filled to its last byte has no terminator.
template <size_t SIZE> std::string session_Field(const char (&I_szField)[SIZE])
{
    return std::string(I_szField, strnlen(I_szField, SIZE));
}

#endif
