#include "check/ftp.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <system_error>

namespace check
{
namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr size_t LONGEST_REPLY = 8192; // bytes
constexpr size_t MOST_LINES = 200;     // of one reply
constexpr int AFTERTHOUGHT = 100;      // ms in which a second greeting line follows the first

// Whether the socket is ready before the end.
bool Await(int I_iSocket, short I_iEvents, CLOCK::time_point I_sEnd)
{
    const auto sLeft = std::chrono::duration_cast<std::chrono::milliseconds>(I_sEnd - CLOCK::now());
    pollfd sPoll{I_iSocket, I_iEvents, 0};
    return poll(&sPoll, 1, static_cast<int>(std::max<long>(0, sLeft.count()))) > 0;
}

int CodeOf(const std::string &I_strLine)
{
    const bool bCode = I_strLine.size() >= 3 &&
                       std::all_of(I_strLine.begin(), I_strLine.begin() + 3,
                                   [](unsigned char cChar) { return std::isdigit(cChar) != 0; });
    return bCode ? std::stoi(I_strLine.substr(0, 3)) : 0;
}

bool GoesOn(const std::string &I_strLine)
{
    return CodeOf(I_strLine) != 0 && I_strLine.size() > 3 && I_strLine[3] == '-';
}
} // namespace

std::string REPLY::Text() const
{
    std::string strText;
    for (const std::string &strLine : vecLines) strText += (strText.empty() ? "" : " / ") + strLine;
    return strText;
}

bool REPLY::IsPositive() const
{
    return iCode / 100 == 2;
}

bool REPLY::IsNegative() const
{
    return iCode / 100 == 4 || iCode / 100 == 5;
}

std::string AddressText(const in_addr &I_sAddress)
{
    std::array<char, INET_ADDRSTRLEN> szText{};
    inet_ntop(AF_INET, &I_sAddress, szText.data(), szText.size());
    return szText.data();
}

CFtp::CFtp(const sockaddr_in &I_sServer, std::chrono::milliseconds I_sBound)
    : sBound(I_sBound), sControl(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    if (sControl.Get() == -1) throw base::SystemFailure("a socket");
    int iError = 0;
    if (connect(sControl.Get(), reinterpret_cast<const sockaddr *>(&I_sServer), sizeof I_sServer) ==
        -1)
        iError = errno;
    if (iError == EINPROGRESS)
    {
        socklen_t uSize = sizeof iError;
        const bool bReady = Await(sControl.Get(), POLLOUT, CLOCK::now() + sBound);
        getsockopt(sControl.Get(), SOL_SOCKET, SO_ERROR, &iError, &uSize);
        if (!bReady) iError = ETIMEDOUT;
    }
    if (iError != 0) throw base::FAILURE(std::generic_category().message(iError));
}

void CFtp::Receive(CLOCK::time_point I_sEnd)
{
    if (!Await(sControl.Get(), POLLIN, I_sEnd))
        throw base::FAILURE("no answer within " + std::to_string(sBound.count() / 1000) + " s");
    std::array<char, 4096> acPiece{};
    const ssize_t iGot = recv(sControl.Get(), acPiece.data(), acPiece.size(), 0);
    if (iGot == 0) throw base::FAILURE("the server closed the connection");
    if (iGot < 0) throw base::SystemFailure("the connection failed");
    strInput.append(acPiece.data(), static_cast<size_t>(iGot));
}

std::string CFtp::Line(CLOCK::time_point I_sEnd)
{
    size_t uEnd = strInput.find('\n');
    for (; uEnd == std::string::npos; uEnd = strInput.find('\n'))
    {
        if (strInput.size() > LONGEST_REPLY) throw base::FAILURE("a reply line without an end");
        Receive(I_sEnd);
    }
    std::string strLine = base::Printable(strInput.substr(0, uEnd));
    strInput.erase(0, uEnd + 1);
    return strLine;
}

REPLY CFtp::Read()
{
    const CLOCK::time_point sEnd = CLOCK::now() + sBound;
    REPLY sReply;
    sReply.vecLines.push_back(Line(sEnd));
    sReply.iCode = CodeOf(sReply.vecLines[0]);
    bool bMore = GoesOn(sReply.vecLines[0]);
    while (bMore)
    {
        if (sReply.vecLines.size() == MOST_LINES) throw base::FAILURE("a reply of too many lines");
        sReply.vecLines.push_back(Line(sEnd));
        const std::string &strLine = sReply.vecLines.back();
        bMore = CodeOf(strLine) != sReply.iCode || GoesOn(strLine);
    }
    return sReply;
}

std::vector<std::string> CFtp::Uninvited()
{
    std::vector<std::string> vecLines;
    const CLOCK::time_point sEnd = CLOCK::now() + std::chrono::milliseconds(AFTERTHOUGHT);
    const CLOCK::time_point sLast = CLOCK::now() + sBound; // of all lines: each may be cut
    while (vecLines.size() < MOST_LINES &&
           (!strInput.empty() || Await(sControl.Get(), POLLIN, sEnd)))
        vecLines.push_back(Line(sLast));
    return vecLines;
}

REPLY CFtp::Command(const std::string &I_strLine)
{
    const std::string strLine = I_strLine + "\r\n";
    const ssize_t iSent = send(sControl.Get(), strLine.data(), strLine.size(), MSG_NOSIGNAL);
    if (iSent != static_cast<ssize_t>(strLine.size()))
        throw base::SystemFailure("the connection takes no command");
    return Read();
}
} // namespace check
