// What is done beside the library: a look at the server, and the removal of what a check stored.
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <system_error>

#include "check/steps.h"

namespace check
{
namespace
{
// A control connection, in a child: its waits have no end of their own. Throws FAILURE.
class CFtp
{
  public:
    explicit CFtp(const sockaddr_in &I_sServer)
        : sControl(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const auto *spServer = reinterpret_cast<const sockaddr *>(&I_sServer);
        if (connect(sControl.Get(), spServer, sizeof I_sServer) == -1)
            throw base::FAILURE(std::generic_category().message(errno));
    }

    std::string Line() const
    {
        constexpr size_t LONGEST = 8192; // bytes
        std::string strLine;
        for (char cByte = '\0'; cByte != '\n'; strLine += cByte)
        {
            const ssize_t iGot = recv(sControl.Get(), &cByte, 1, 0);
            if (iGot == 0) throw base::FAILURE("the server closed the connection");
            if (iGot < 0) throw base::SystemFailure("the connection failed");
            if (strLine.size() > LONGEST) throw base::FAILURE("a reply line without an end");
        }
        return base::Printable(strLine);
    }

    // Of one line or several.
    std::vector<std::string> Reply() const
    {
        constexpr size_t MOST = 200; // lines
        std::vector<std::string> vecLines = {Line()};
        const std::string strEnd = vecLines[0].substr(0, 3) + ' ';
        const bool bMore =
            vecLines[0].find_first_not_of("0123456789") == 3 && vecLines[0][3] == '-';
        while (bMore && vecLines.back().substr(0, 4) != strEnd)
        {
            if (vecLines.size() == MOST) throw base::FAILURE("a reply of too many lines");
            vecLines.push_back(Line());
        }
        return vecLines;
    }

    // Lines that come without being asked for.
    bool HasMore() const
    {
        constexpr int AFTERTHOUGHT = 100; // ms in which a second greeting line follows the first
        char cByte = '\0';
        pollfd sPoll{sControl.Get(), POLLIN, 0};
        return poll(&sPoll, 1, AFTERTHOUGHT) > 0 && recv(sControl.Get(), &cByte, 1, MSG_PEEK) == 1;
    }

    std::string Command(const std::string &I_strLine) const
    {
        const std::string strLine = I_strLine + "\r\n";
        if (send(sControl.Get(), strLine.data(), strLine.size(), MSG_NOSIGNAL) == -1)
            throw base::SystemFailure("the connection takes no command");
        return Reply().back();
    }

  private:
    base::CDescriptor sControl;
};

void Resolve(const std::string &I_strHost, sockaddr_in &X_sServer, const SAY &I_fpSay)
{
    addrinfo sHints{};
    sHints.ai_family = AF_INET;
    sHints.ai_socktype = SOCK_STREAM;
    addrinfo *spFound = nullptr;
    const int iError = getaddrinfo(I_strHost.c_str(), nullptr, &sHints, &spFound);
    if (iError != 0) throw base::FAILURE(gai_strerror(iError));
    size_t uCount = 0;
    for (const addrinfo *spEach = spFound; spEach != nullptr; spEach = spEach->ai_next) uCount++;
    // The first, as the library takes it. The process ends: nothing is freed.
    X_sServer.sin_addr = reinterpret_cast<const sockaddr_in *>(spFound->ai_addr)->sin_addr;
    I_fpSay("count", std::to_string(uCount));
    I_fpSay("address", inet_ntoa(X_sServer.sin_addr));
    std::array<char, NI_MAXHOST> szName{};
    const int iReverse = getnameinfo(spFound->ai_addr, spFound->ai_addrlen, szName.data(),
                                     szName.size(), nullptr, 0, NI_NAMEREQD);
    I_fpSay("reverse", iReverse == 0 ? szName.data() : "");
}

void Greet(const sockaddr_in &I_sServer, const SAY &I_fpSay)
{
    const CFtp sFtp(I_sServer);
    I_fpSay("connected", "");
    std::vector<std::string> vecLines = sFtp.Reply();
    I_fpSay("begun", "");
    while (sFtp.HasMore()) vecLines.push_back(sFtp.Line());
    std::string strText;
    for (const std::string &strLine : vecLines) strText += (strText.empty() ? "" : " / ") + strLine;
    I_fpSay("lines", std::to_string(vecLines.size()));
    I_fpSay("greeting", strText);
    sFtp.Command("QUIT");
}

class CLook
{
  public:
    CLook(CReport &X_sReport, const std::string &I_strHost, std::chrono::milliseconds I_sBound)
        : sReport(X_sReport), strHost(I_strHost.substr(0, I_strHost.find(':')))
    {
        const size_t uColon = I_strHost.find(':');
        iPort = uColon != std::string::npos ? std::stoi(I_strHost.substr(uColon + 1)) : 21;
        sOutcome = RunChild(I_sBound, [this](const SAY &I_fpSay) {
            sockaddr_in sServer = Server();
            Resolve(strHost, sServer, I_fpSay);
            Greet(sServer, I_fpSay);
        });
    }

    sockaddr_in Server() const
    {
        sockaddr_in sServer{};
        sServer.sin_family = AF_INET;
        sServer.sin_port = htons(static_cast<uint16_t>(iPort));
        inet_pton(AF_INET, sOutcome.Value("address").c_str(), &sServer.sin_addr);
        return sServer;
    }

    bool Run()
    {
        return Climb<CLook>(sReport, *this,
                            {{"network.name", &CLook::Name},
                             {"network.reverse", &CLook::Reverse},
                             {"network.tcp", &CLook::Tcp},
                             {"network.greeting", &CLook::Greeting}});
    }

  private:
    // Of that event, or of the failure that came instead.
    FINDING Timed(const char *cpEvent, FINDING I_sFinding)
    {
        const EVENT *spEvent = sOutcome.Find(cpEvent);
        const long lNow = spEvent != nullptr ? spEvent->lMilliseconds : lLast;
        I_sFinding.lMilliseconds = lNow - std::exchange(lLast, lNow);
        return I_sFinding;
    }

    FINDING Name()
    {
        if (sOutcome.Find("address") == nullptr)
            return Fail(Text("\"", strHost, "\": ", sOutcome.strFailure),
                        "correct the host's name, or enter it in DNS or /etc/hosts");
        const std::string strCount = sOutcome.Value("count");
        const std::string strFound = Text("\"", strHost, "\" is ", sOutcome.Value("address"));
        if (strCount == "1") return Timed("address", Ok(strFound));
        return Timed("address", Ok(Text(strFound, ", the first of ", strCount, " addresses")));
    }

    FINDING Reverse()
    {
        const std::string strAddress = sOutcome.Value("address");
        const std::string strName = sOutcome.Value("reverse");
        if (!strName.empty())
            return Timed("reverse", Ok(Text(strAddress, " is \"", strName, "\"")));
        return Timed("reverse", Warn(strAddress + " has no name",
                                     "enter the address in reverse DNS or /etc/hosts; the library "
                                     "does without"));
    }

    FINDING Tcp()
    {
        const std::string strWhere = Text(sOutcome.Value("address"), " port ", iPort);
        if (sOutcome.Find("connected") != nullptr)
            return Timed("connected", Ok("connected to " + strWhere));
        return Fail(Text(strWhere, ": ", sOutcome.strFailure),
                    "check that the port is right, the server runs, and firewalls let this host "
                    "connect to it");
    }

    FINDING Greeting()
    {
        const std::string strText = sReport.Foreign(sOutcome.Value("greeting"));
        if (sOutcome.Find("begun") == nullptr)
            return Fail(sOutcome.strFailure,
                        "look whether an FTP server is what listens on this port; a slow look-up "
                        "of this host's name on the server delays the greeting, too");
        if (strText.empty())
            return Fail(sOutcome.strFailure, "read the server's log: it should have answered");
        if (strText[0] == '4' || strText[0] == '5')
            return Fail("the server turns sessions away: " + strText, Remedy(": " + strText));
        if (strText.substr(0, 3) != "220")
            return Fail(strText, "this is not an FTP server: correct host or port");
        if (sOutcome.Value("lines") != "1")
            return Fail(Text(sOutcome.Value("lines"), " lines: ", strText), Remedy("220-"));
        return Timed("greeting", Ok("one line: " + strText));
    }

    CReport &sReport;
    std::string strHost;
    int iPort = 0;
    OUTCOME sOutcome;
    long lLast = 0;
};

void Delete(const SESSIONS &I_sSessions, const sockaddr_in &I_sServer, const SAY &I_fpSay)
{
    const base::CONNECTION &sConnection = I_sSessions.sConnection;
    const CFtp sFtp(I_sServer);
    sFtp.Reply();
    for (const std::string &strLine :
         {"USER " + sConnection.strUser, "PASS " + sConnection.strPassword,
          "CWD " + sConnection.strPath})
        sFtp.Command(strLine); // what was refused shows when nothing is deleted
    for (const std::string &strName : I_sSessions.vecLeft)
    {
        const std::string strReply = sFtp.Command("DELE " + strName);
        if (strReply[0] != '2') I_fpSay("refused", strReply);
        I_fpSay(strName.c_str(), strReply.substr(0, 1));
    }
    sFtp.Command("QUIT");
}

FINDING CleanUpPlain(const CReport &I_sReport, const SESSIONS &I_sSessions,
                     const sockaddr_in &I_sServer)
{
    const OUTCOME sOutcome = RunChild(
        I_sSessions.sSilence, [&](const SAY &I_fpSay) { Delete(I_sSessions, I_sServer, I_fpSay); });
    std::string strLeft;
    for (const std::string &strName : I_sSessions.vecLeft)
        if (sOutcome.Value(strName.c_str()) != "2") strLeft += " " + strName;
    if (strLeft.empty()) return Ok(Text(I_sSessions.vecLeft.size(), " objects removed"));
    const EVENT *spRefused = sOutcome.Find("refused");
    const std::string strWhy = spRefused != nullptr ? spRefused->strValue : sOutcome.strFailure;
    return Warn(Text("left on the server, if they are there:", strLeft, " (",
                     I_sReport.Foreign(strWhy), ")"),
                "remove them by hand; for the next time, let the account delete");
}
} // namespace

SERVER LookAt(CReport &X_sReport, const std::string &I_strHost, std::chrono::milliseconds I_sBound)
{
    CLook sLook(X_sReport, I_strHost, I_sBound);
    const bool bUsable = sLook.Run();
    return {sLook.Server(), bUsable};
}

void CleanUp(CReport &X_sReport, const SESSIONS &I_sSessions, const sockaddr_in &I_sServer)
{
    std::string strCopies;
    for (const std::string &strCopy : I_sSessions.vecLeft)
        strCopies += (strCopies.empty() ? "" : ", ") + strCopy;
    if (strCopies.empty()) return;
    X_sReport.Add("cleanup", I_sSessions.sConnection.bInformix
                                 ? Warn("left on the server: copy id " + strCopies,
                                        "have them removed on the KORVA server: a client cannot")
                                 : CleanUpPlain(X_sReport, I_sSessions, I_sServer));
}
} // namespace check
