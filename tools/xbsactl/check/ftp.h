// A direct look at the server, beside the library: the greeting as it came, line by line, and the
// removal of what a check has stored. No wait is longer than its bound; failures throw FAILURE.
#ifndef XBSACTL_CHECK_FTP_H
#define XBSACTL_CHECK_FTP_H

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/base.h"

namespace check
{
struct REPLY
{
    int iCode = 0; // 0: the line begins with no code
    std::vector<std::string> vecLines;

    std::string Text() const; // all of it in one line
    bool IsPositive() const;
    bool IsNegative() const;
};

class CFtp
{
  public:
    // Connects.
    CFtp(const sockaddr_in &I_sServer, std::chrono::milliseconds I_sBound);

    REPLY Read();

    // Lines that came without being asked for.
    std::vector<std::string> Uninvited();

    REPLY Command(const std::string &I_strLine);

  private:
    using CLOCK = std::chrono::steady_clock;

    std::string Line(CLOCK::time_point I_sEnd);
    void Receive(CLOCK::time_point I_sEnd);

    std::chrono::milliseconds sBound;
    base::CDescriptor sControl;
    std::string strInput; // received, not yet read
};

// "10.0.0.1"
std::string AddressText(const in_addr &I_sAddress);
} // namespace check

#endif
