// What the tool does without the library: it examines the server, and removes what a check stored.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <system_error>

#include "check/parts.h"

namespace check
{
namespace
{
constexpr long FAST = 900; // megabits a second: a line of 1 Gbit/s
constexpr const char *NAMELESS = " has no name";

// A control connection, in a child: its waits have no limit. Throws FAILURE.
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
        constexpr size_t LONGEST_LINE = 8192; // bytes
        std::string strLine;
        for (char cByte = '\0'; cByte != '\n'; strLine += cByte)
        {
            const ssize_t iGot = recv(sControl.Get(), &cByte, 1, 0);
            if (iGot == 0) throw base::FAILURE("the server closed the connection");
            if (iGot < 0) throw base::SystemFailure("the connection failed");
            if (strLine.size() > LONGEST_LINE) throw base::FAILURE("a reply line is too long");
        }
        return base::Printable(strLine);
    }

    // Of one line or several.
    std::vector<std::string> Reply() const
    {
        constexpr size_t MOST = 200; // lines
        std::vector<std::string> vecLines = {Line()};
        const std::string strCode = vecLines[0].substr(0, 3);
        const bool bMore = vecLines[0].find_first_not_of("0123456789") == 3 &&
                           vecLines[0].starts_with(strCode + '-');
        while (bMore && !(vecLines.back() + ' ').starts_with(strCode + ' ')) // it may be blank
        {
            if (vecLines.size() == MOST) throw base::FAILURE("a reply has too many lines");
            vecLines.push_back(Line());
        }
        return vecLines;
    }

    // Lines that come without a command.
    bool HasMore() const
    {
        constexpr int AFTERTHOUGHT = 100; // ms in which a second greeting line follows the first
        char cByte = '\0';
        pollfd sPoll{sControl.Get(), POLLIN, 0};
        return poll(&sPoll, 1, AFTERTHOUGHT) > 0 && recv(sControl.Get(), &cByte, 1, MSG_PEEK) == 1;
    }

    // Microseconds, as the system has measured it.
    unsigned RoundTrip() const
    {
        tcp_info sInfo{};
        socklen_t uSize = sizeof sInfo;
        getsockopt(sControl.Get(), IPPROTO_TCP, TCP_INFO, &sInfo, &uSize);
        return sInfo.tcpi_rtt;
    }

    std::string Command(const std::string &I_strLine) const
    {
        const std::string strLine = I_strLine + "\r\n";
        if (send(sControl.Get(), strLine.data(), strLine.size(), MSG_NOSIGNAL) == -1)
            throw base::SystemFailure("sending a command failed");
        return Reply().back();
    }

  private:
    base::CDescriptor sControl;
};

// In the child: what each step found comes as an event of its name.
in_addr Resolve(const std::string &I_strHost, const SAY &I_fpSay)
{
    addrinfo sHints{};
    sHints.ai_family = AF_INET;
    sHints.ai_socktype = SOCK_STREAM;
    addrinfo *spFound = nullptr;
    const int iError = getaddrinfo(I_strHost.c_str(), nullptr, &sHints, &spFound);
    if (iError != 0) throw base::FAILURE(gai_strerror(iError));
    size_t uCount = 0;
    for (const addrinfo *spEach = spFound; spEach != nullptr; spEach = spEach->ai_next) uCount++;
    const std::string strMore = Text(", the first of ", uCount, " addresses");
    // The first, as the library takes it. The process ends: nothing is freed.
    const in_addr sAddress = reinterpret_cast<const sockaddr_in *>(spFound->ai_addr)->sin_addr;
    const std::string strAddress = inet_ntoa(sAddress);
    I_fpSay("address", strAddress);
    I_fpSay("network.name", Text("\"", I_strHost, "\" is ", strAddress, uCount > 1 ? strMore : ""));
    std::array<char, NI_MAXHOST> szName{};
    const bool bNamed = getnameinfo(spFound->ai_addr, spFound->ai_addrlen, szName.data(),
                                    szName.size(), nullptr, 0, NI_NAMEREQD) == 0;
    I_fpSay("network.reverse",
            bNamed ? Text(strAddress, " is \"", szName.data(), "\"") : strAddress + NAMELESS);
    return sAddress;
}

void Greet(const sockaddr_in &I_sServer, const SAY &I_fpSay)
{
    const CFtp sFtp(I_sServer);
    I_fpSay("network.tcp", Text("connected to ", inet_ntoa(I_sServer.sin_addr), " port ",
                                ntohs(I_sServer.sin_port)));
    std::vector<std::string> vecLines = sFtp.Reply();
    while (sFtp.HasMore()) vecLines.push_back(sFtp.Line());
    std::string strText;
    for (const std::string &strLine : vecLines) strText += (strText.empty() ? "" : " / ") + strLine;
    I_fpSay("lines", std::to_string(vecLines.size()));
    I_fpSay("network.greeting", strText);
    I_fpSay("round", std::to_string(sFtp.RoundTrip()));
    sFtp.Command("QUIT");
}

FINDING JudgeGreeting(const std::string &I_strText, const std::string &I_strLines)
{
    if (IsNegative(I_strText)) return Fail("the server rejects sessions: " + I_strText);
    if (!I_strText.starts_with("220")) return Fail("the server does not speak FTP: " + I_strText);
    if (I_strLines != "1") return Fail(I_strLines + " lines: " + I_strText);
    return Ok("one line: " + I_strText);
}

FINDING JudgeLook(const CReport &I_sReport, const OUTCOME &I_sOutcome, const EVENT &I_sStep)
{
    if (I_sStep.strName == "network.greeting")
        return JudgeGreeting(I_sReport.Foreign(I_sStep.strValue), I_sOutcome.Value("lines"));
    if (I_sStep.strName == "network.reverse" && I_sStep.strValue.ends_with(NAMELESS))
        return Warn(I_sStep.strValue);
    return Ok(I_sStep.strValue);
}

bool ReportLook(CReport &X_sReport, const OUTCOME &I_sOutcome, const std::string &I_strHost)
{
    long lLast = 0;
    STEPS vecSteps;
    for (const char *cpStep :
         {"network.name", "network.reverse", "network.tcp", "network.greeting"})
        vecSteps.emplace_back(cpStep, [&, cpStep] {
            const EVENT *spEvent = I_sOutcome.Find(cpStep);
            if (spEvent == nullptr) return Fail(I_strHost + ": " + I_sOutcome.strFailure);
            FINDING sFinding = JudgeLook(X_sReport, I_sOutcome, *spEvent);
            sFinding.lMilliseconds =
                spEvent->lMilliseconds - std::exchange(lLast, spEvent->lMilliseconds);
            return sFinding;
        });
    return X_sReport.Climb(vecSteps);
}

// Of each buffer's bytes, once in a round trip: a sender sleeps until a third of its buffer is
// free, a receiver offers half of its own. A buffer of KORVA_SOCKET_BUFFER is doubled by the
// system.
FINDING Throughput(const OUTCOME &I_sOutcome)
{
    const long lTrip = std::max(1L, atol(I_sOutcome.Value("round").c_str())); // microseconds
    const long lChosen = 2 * atol(base::Variable("KORVA_SOCKET_BUFFER").c_str());
    const long lStore = (lChosen > 0 ? lChosen : Kernel("tcp_wmem", 2)) * 2 / 3 * 8 / lTrip;
    const long lRestore = (lChosen > 0 ? lChosen : Kernel("tcp_rmem", 2)) / 2 * 8 / lTrip;
    const std::string strTrip = Text("round trip ", static_cast<double>(lTrip) / 1000, " ms");
    if (std::min(lStore, lRestore) > FAST) return Ok(strTrip + ": no buffer limits 1 Gbit/s");
    return Warn(Text(strTrip, ": this host's buffers allow ", lStore, " Mbit/s for a store, ",
                     lRestore, " for a restore"));
}

void Delete(const SESSIONS &I_sSessions, const sockaddr_in &I_sServer, const SAY &I_fpSay)
{
    const base::CONNECTION &sConnection = I_sSessions.sConnection;
    const CFtp sFtp(I_sServer);
    sFtp.Reply();
    for (const std::string &strLine :
         {"USER " + sConnection.strUser, "PASS " + sConnection.strPassword,
          "CWD " + sConnection.strPath})
        sFtp.Command(strLine); // a refusal shows when nothing is deleted
    for (const std::string &strName : I_sSessions.vecLeft)
        I_fpSay(strName.c_str(), sFtp.Command("DELE " + strName));
    sFtp.Command("QUIT");
}

FINDING CleanUpPlain(const SESSIONS &I_sSessions, const sockaddr_in &I_sServer)
{
    const OUTCOME sOutcome = RunChild(
        I_sSessions.sSilence, [&](const SAY &I_fpSay) { Delete(I_sSessions, I_sServer, I_fpSay); });
    std::string strLeft;
    std::string strWhy = sOutcome.strFailure;
    for (const std::string &strName : I_sSessions.vecLeft)
    {
        const std::string strReply = sOutcome.Value(strName.c_str());
        if (strReply.starts_with('2')) continue;
        strLeft += " " + strName;
        if (!strReply.empty()) strWhy = strReply;
    }
    if (strLeft.empty()) return Ok(Text("objects removed: ", I_sSessions.vecLeft.size()));
    return Warn(Text("may be left on the server:", strLeft, " (",
                     I_sSessions.sReport.Foreign(strWhy), ")"));
}
} // namespace

std::optional<sockaddr_in> LookAt(CReport &X_sReport, const std::string &I_strHost,
                                  std::chrono::milliseconds I_sBound)
{
    const size_t uColon = I_strHost.find(':');
    const std::string strPort = uColon != std::string::npos ? I_strHost.substr(uColon + 1) : "21";
    sockaddr_in sServer{};
    sServer.sin_family = AF_INET;
    sServer.sin_port = htons(static_cast<uint16_t>(std::stoi(strPort)));
    const OUTCOME sOutcome = RunChild(I_sBound, [&](const SAY &I_fpSay) {
        sServer.sin_addr = Resolve(I_strHost.substr(0, uColon), I_fpSay);
        Greet(sServer, I_fpSay);
    });
    inet_pton(AF_INET, sOutcome.Value("address").c_str(), &sServer.sin_addr);
    if (!ReportLook(X_sReport, sOutcome, I_strHost)) return std::nullopt;
    X_sReport.Add("network.throughput", Throughput(sOutcome));
    return sServer;
}

void CleanUp(const SESSIONS &I_sSessions, const sockaddr_in &I_sServer)
{
    std::string strCopies;
    for (const std::string &strCopy : I_sSessions.vecLeft)
        strCopies += (strCopies.empty() ? "" : ", ") + strCopy;
    if (strCopies.empty()) return;
    I_sSessions.sReport.Add("cleanup", I_sSessions.sConnection.bInformix
                                           ? Ok("left on the server: copy id " + strCopies)
                                           : CleanUpPlain(I_sSessions, I_sServer));
}
} // namespace check
