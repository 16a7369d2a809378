// What only a direct look shows: both ways of the name look-up, and every line of the greeting, of
// which the library reads the first.
#ifndef XBSACTL_CHECK_PROBE_H
#define XBSACTL_CHECK_PROBE_H

#include <netinet/in.h>

#include <chrono>
#include <memory>
#include <string>

#include "check/ftp.h"
#include "check/report.h"

namespace check
{
class CProbe
{
  public:
    // I_strHost: HOST[:PORT]
    CProbe(CReport &X_sReport, const std::string &I_strHost, std::chrono::milliseconds I_sBound);

    // Returns whether a session can be tried.
    bool Run();

    const sockaddr_in &Server() const
    {
        return sServer;
    }

  private:
    FINDING Name();
    FINDING Reverse();
    FINDING Tcp();
    FINDING Greet();
    FINDING JudgeGreeting(const REPLY &I_sReply);

    CReport &sReport;
    std::chrono::milliseconds sBound;
    std::string strHost;
    sockaddr_in sServer{};
    std::string strReverse;
    std::unique_ptr<CFtp> spFtp;
};
} // namespace check

#endif
