#include "check/ftp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <system_error>

#include "base/base.h"

namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr size_t LONGEST_REPLY = 8192; // bytes
constexpr size_t MOST_LINES = 200;     // of one reply
constexpr int AFTERTHOUGHT = 100;      // ms in which a second greeting line follows the first

int Left(CLOCK::time_point I_sEnd)
{
    const auto sLeft = std::chrono::duration_cast<std::chrono::milliseconds>(I_sEnd - CLOCK::now());
    return static_cast<int>(std::max<long>(0, static_cast<long>(sLeft.count())));
}

// Whether the socket is ready before the end.
bool Await(int I_iSocket, short I_iEvents, CLOCK::time_point I_sEnd)
{
    pollfd sPoll{I_iSocket, I_iEvents, 0};
    return poll(&sPoll, 1, Left(I_sEnd)) > 0;
}

CSocket NewSocket()
{
    CSocket sSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (sSocket.Get() == -1) throw base::SystemFailure("a socket");
    return sSocket;
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

sockaddr *Generic(sockaddr_in &I_sAddress)
{
    return reinterpret_cast<sockaddr *>(&I_sAddress);
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

std::string ftp_Text(const in_addr &I_sAddress)
{
    std::array<char, INET_ADDRSTRLEN> szText{};
    inet_ntop(AF_INET, &I_sAddress, szText.data(), szText.size());
    return szText.data();
}

void CFtp::Connect(const sockaddr_in &I_sServer)
{
    sControl = NewSocket();
    sockaddr_in sServer = I_sServer;
    int iError = 0;
    if (connect(sControl.Get(), Generic(sServer), sizeof sServer) == -1) iError = errno;
    if (iError == EINPROGRESS)
    {
        socklen_t uSize = sizeof iError;
        const bool bReady = Await(sControl.Get(), POLLOUT, CLOCK::now() + sBound);
        getsockopt(sControl.Get(), SOL_SOCKET, SO_ERROR, &iError, &uSize);
        if (!bReady) iError = ETIMEDOUT;
    }
    if (iError != 0) throw base::FAILURE(std::generic_category().message(iError));
}

sockaddr_in CFtp::Local() const
{
    sockaddr_in sLocal{};
    socklen_t uSize = sizeof sLocal;
    getsockname(sControl.Get(), Generic(sLocal), &uSize);
    return sLocal;
}

std::string CFtp::AfterLast() const
{
    return strLast.empty() ? "" : ", after its reply \"" + strLast + "\"";
}

void CFtp::Receive(CLOCK::time_point I_sEnd)
{
    if (!Await(sControl.Get(), POLLIN, I_sEnd))
        throw base::FAILURE("no answer within " + std::to_string(sBound.count() / 1000) + " s");
    std::array<char, 4096> acPiece{};
    const ssize_t iGot = recv(sControl.Get(), acPiece.data(), acPiece.size(), 0);
    if (iGot == 0) throw base::FAILURE("the server closed the connection" + AfterLast());
    if (iGot < 0)
        throw base::FAILURE(base::SystemFailure("the connection failed").what() + AfterLast());
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
    strLast = sReply.Text();
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

void CFtp::SendLine(const std::string &I_strLine) const
{
    const std::string strLine = I_strLine + "\r\n";
    const ssize_t iSent = send(sControl.Get(), strLine.data(), strLine.size(), MSG_NOSIGNAL);
    if (iSent != static_cast<ssize_t>(strLine.size()))
        throw base::FAILURE(base::SystemFailure("the connection takes no command").what() +
                            AfterLast());
}

REPLY CFtp::Command(const std::string &I_strLine)
{
    SendLine(I_strLine);
    return Read();
}

std::string CFtp::Listen()
{
    sListener = NewSocket();
    sockaddr_in sLocal = Local();
    sLocal.sin_port = 0;
    socklen_t uSize = sizeof sLocal;
    const bool bListens = bind(sListener.Get(), Generic(sLocal), sizeof sLocal) == 0 &&
                          listen(sListener.Get(), 1) == 0 &&
                          getsockname(sListener.Get(), Generic(sLocal), &uSize) == 0;
    if (!bListens) throw base::SystemFailure("listening for the data connection");

    std::string strText = ftp_Text(sLocal.sin_addr);
    std::replace(strText.begin(), strText.end(), '.', ',');
    const int iPort = ntohs(sLocal.sin_port);
    return strText + "," + std::to_string(iPort / 256) + "," + std::to_string(iPort % 256);
}

void CFtp::Accept(ANSWER &I_sAnswer) const
{
    socklen_t uSize = sizeof I_sAnswer.sPeer;
    I_sAnswer.sData =
        CSocket(accept4(sListener.Get(), Generic(I_sAnswer.sPeer), &uSize, SOCK_CLOEXEC));
}

// One of both, whichever comes first; throws when the control connection ends.
void CFtp::AwaitEither(ANSWER &I_sAnswer, CLOCK::time_point I_sEnd)
{
    std::array<pollfd, 2> asPoll{{{sListener.Get(), POLLIN, 0}, {sControl.Get(), POLLIN, 0}}};
    if (I_sAnswer.sData.Get() != -1) asPoll[0].fd = -1;
    if (strInput.find('\n') == std::string::npos) poll(asPoll.data(), asPoll.size(), Left(I_sEnd));
    else asPoll[1].revents = POLLIN;
    if (asPoll[0].revents != 0) Accept(I_sAnswer);
    else if (asPoll[1].revents != 0) I_sAnswer.sReply = Read();
}

void CFtp::Store(const std::string &I_strName, ANSWER &O_sAnswer)
{
    O_sAnswer.bSent = true;
    SendLine("STOR " + I_strName);
    const CLOCK::time_point sEnd = CLOCK::now() + sBound;
    while (!O_sAnswer.sReply && Left(sEnd) > 0) AwaitEither(O_sAnswer, sEnd);
    O_sAnswer.bRefused = O_sAnswer.sReply && O_sAnswer.sReply->IsNegative();
}

void CFtp::AwaitData(ANSWER &I_sAnswer)
{
    const CLOCK::time_point sEnd = CLOCK::now() + sBound;
    while (I_sAnswer.sData.Get() == -1 && !I_sAnswer.sReply->IsNegative() && Left(sEnd) > 0)
        AwaitEither(I_sAnswer, sEnd);
    sListener = CSocket();
}

void CFtp::Send(CSocket &I_sData, const std::string &I_strBytes) const
{
    const ssize_t iSent = send(I_sData.Get(), I_strBytes.data(), I_strBytes.size(), MSG_NOSIGNAL);
    I_sData = CSocket();
    if (iSent != static_cast<ssize_t>(I_strBytes.size()))
        throw base::SystemFailure("the data connection takes no data");
}
