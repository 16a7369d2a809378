// A small FTP client that sees what the library does not tell: each reply as it came, and what
// happens to the data connection. No wait is longer than its bound; failures throw FAILURE.
#ifndef XBSACTL_CHECK_FTP_H
#define XBSACTL_CHECK_FTP_H

#include <netinet/in.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/base.h"

struct REPLY
{
    int iCode = 0; // 0: the line begins with no code
    std::vector<std::string> vecLines;

    std::string Text() const; // all of it in one line
    bool IsPositive() const;
    bool IsNegative() const;
};

using CSocket = base::CDescriptor;

// What came of a STOR: any of both may be missing.
struct ANSWER
{
    bool bSent = false;
    bool bRefused = false; // at once, before the server made anything of it
    std::optional<REPLY> sReply;
    CSocket sData;
    sockaddr_in sPeer{}; // of the data connection
};

class CFtp
{
  public:
    explicit CFtp(std::chrono::milliseconds I_sBound) : sBound(I_sBound)
    {
    }

    void Connect(const sockaddr_in &I_sServer);
    sockaddr_in Local() const; // this end of the control connection
    REPLY Read();

    // Lines that came without being asked for.
    std::vector<std::string> Uninvited();

    REPLY Command(const std::string &I_strLine);

    // Listens on the control connection's own address. Returns the argument for PORT.
    std::string Listen();

    // Sends STOR and waits for a reply, and for the server's connection as long.
    void Store(const std::string &I_strName, ANSWER &O_sAnswer);

    // Waits for what is missing after a preliminary reply.
    void AwaitData(ANSWER &I_sAnswer);

    void Send(CSocket &I_sData, const std::string &I_strBytes) const;

  private:
    using CLOCK = std::chrono::steady_clock;

    std::string Line(CLOCK::time_point I_sEnd);
    void Receive(CLOCK::time_point I_sEnd);
    void Accept(ANSWER &I_sAnswer) const;
    void AwaitEither(ANSWER &I_sAnswer, CLOCK::time_point I_sEnd);
    std::string AfterLast() const;
    void SendLine(const std::string &I_strLine) const;

    std::chrono::milliseconds sBound;
    CSocket sControl;
    CSocket sListener;
    std::string strInput; // received, not yet read
    std::string strLast;  // reply: a server that ends the connection said why in it
};

// "10.0.0.1"
std::string ftp_Text(const in_addr &I_sAddress);

#endif
