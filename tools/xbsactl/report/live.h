// What the files of the live view share. Data from another process is untrusted: a number may
// have any value, a text may have no end, and the process may have ended.
#ifndef XBSACTL_REPORT_LIVE_H
#define XBSACTL_REPORT_LIVE_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "xbsa_session.h"

namespace report
{
// ---- elf.cpp
// The memory of another process, which is neither stopped nor attached to.
class CMemory
{
  public:
    explicit CMemory(pid_t I_iPid) : iPid(I_iPid)
    {
    }

    // All of it or nothing. Remembers a read that the system forbids.
    bool Read(uint64_t I_uAddress, void *vpData, size_t I_uLength) const;

    template <typename TYPE> bool Read(uint64_t I_uAddress, TYPE &X_sValue) const
    {
        return Read(I_uAddress, &X_sValue, sizeof X_sValue);
    }

    bool IsForbidden() const
    {
        return bForbidden;
    }

  private:
    pid_t iPid;
    mutable bool bForbidden = false;
};

// What a mapped file exports.
struct EXPORTS
{
    bool bForeign = false; // it has another word size or machine
    bool bCalls = false;   // the calls of a backup tool
    uint64_t uRecord = 0;  // the session record, from the start of the file's first mapping
    uint64_t uSize = 0;    // of the record; 0: it has none
};

// Of the file whose first byte is mapped at I_uStart; nothing when it is not loaded there as a
// program or library, or cannot be read.
std::optional<EXPORTS> ReadExports(const CMemory &I_sMemory, uint64_t I_uStart);

// ---- processes.cpp
struct PROCESS
{
    pid_t iPid = 0;
    std::string strProgram;
    uint64_t uRecord = 0; // its address
    _sSession sSession{};
    BSA_ObjectName sName{};
    uint64_t uSocket = 0; // inode of the data connection; 0: none
};

// Why a process is not shown.
struct BARRED
{
    pid_t iPid = 0;
    std::string strProgram;
    std::string strWhy;  // empty: the system forbids it
    bool bKnown = false; // it has the library
};

struct SCAN
{
    std::vector<PROCESS> vecProcesses; // by pid
    std::vector<BARRED> vecBarred;     // by pid
    size_t uLooked = 0;                // how many others could be looked at
};

// Finds the processes. What a file exports is kept while any process has it mapped.
class CProcesses
{
  public:
    SCAN Scan();

  private:
    // By account and file: one account's mapping cannot hide the file from another's view.
    std::unordered_map<std::string, EXPORTS> mapKnown;
};

// ---- tcp.cpp
// What the kernel knows of a connection.
struct TRAFFIC
{
    double dSinceSent = 0; // seconds since data was last sent
    double dSinceReceived = 0;
    std::optional<uint64_t>
        uMoved; // bytes that the peer acknowledged, and that came; since Linux 4.2
};

// By inode; of this network namespace.
std::map<uint64_t, TRAFFIC> ReadTraffic();
} // namespace report

#endif
