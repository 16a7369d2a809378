// One session and transaction with the library; every call throws FAILURE for a code other than 0.
#ifndef XBSACTL_SESSION_H
#define XBSACTL_SESSION_H

#include <cstddef>
#include <string>

#include "library.h"
#include "settings.h"

constexpr size_t BLOCK_SIZE = 65535; // bytes: the length of a data block has 16 bits

class CSession
{
  public:
    // Loads the library and opens session and transaction, in strict mode.
    explicit CSession(const SETTINGS &I_sSettings);

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

    void Close();

  private:
    void SetTrace(const SETTINGS &I_sSettings) const;
    std::string LastError() const;
    std::string Text(const char *cpStep, int I_iCode) const;
    void Check(const char *cpStep, int I_iCode) const;
    void FailData(const char *cpStep, int I_iCode) const;

    LIBRARY sLibrary;
    long lHandle = 0;
};

// The descriptor that names the object.
BSA_ObjectDescriptor session_Object(const SETTINGS &I_sSettings);

#endif
