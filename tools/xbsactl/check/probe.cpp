#include "check/probe.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <array>

#include "check/advice.h"
#include "check/child.h"

namespace check
{
namespace
{
constexpr int DEFAULT_PORT = 21;
constexpr const char *ADVICE_SILENT = "look whether an FTP server is what listens on this port; a "
                                      "slow look-up of this host's name on "
                                      "the server delays the greeting, too";

void Describe(const addrinfo &I_sFirst, const SAY &I_fpSay)
{
    size_t uCount = 0;
    for (const addrinfo *spEach = &I_sFirst; spEach != nullptr; spEach = spEach->ai_next) uCount++;
    const auto *spAddress = reinterpret_cast<const sockaddr_in *>(I_sFirst.ai_addr);
    I_fpSay("address", AddressText(spAddress->sin_addr)); // the first, as the library takes it
    I_fpSay("count", std::to_string(uCount));
    std::array<char, NI_MAXHOST> szName{};
    if (getnameinfo(I_sFirst.ai_addr, I_sFirst.ai_addrlen, szName.data(), szName.size(), nullptr, 0,
                    NI_NAMEREQD) == 0)
        I_fpSay("reverse", szName.data());
}

// In a child: a resolver may wait for minutes.
void Resolve(const std::string &I_strHost, const SAY &I_fpSay)
{
    addrinfo sHints{};
    sHints.ai_family = AF_INET;
    sHints.ai_socktype = SOCK_STREAM;
    addrinfo *spFound = nullptr;
    const int iError = getaddrinfo(I_strHost.c_str(), nullptr, &sHints, &spFound);
    if (iError != 0 || spFound == nullptr) throw base::FAILURE(gai_strerror(iError));
    Describe(*spFound, I_fpSay); // the process ends: nothing is freed
}
} // namespace

CProbe::CProbe(CReport &X_sReport, const std::string &I_strHost, std::chrono::milliseconds I_sBound)
    : sReport(X_sReport), sBound(I_sBound), strHost(I_strHost.substr(0, I_strHost.find(':')))
{
    const size_t uColon = I_strHost.find(':');
    sServer.sin_family = AF_INET;
    sServer.sin_port = htons(static_cast<uint16_t>(
        uColon != std::string::npos ? std::stoi(I_strHost.substr(uColon + 1)) : DEFAULT_PORT));
}

bool CProbe::Run()
{
    const bool bGood = Climb<CProbe>(sReport, *this,
                                     {{"network.name", &CProbe::Name},
                                      {"network.reverse", &CProbe::Reverse},
                                      {"network.tcp", &CProbe::Tcp},
                                      {"network.greeting", &CProbe::Greet}});
    spFtp.reset(); // some servers allow one session at a time
    return bGood;
}

FINDING CProbe::Name()
{
    const OUTCOME sFound =
        CChild([this](const SAY &I_fpSay) { Resolve(strHost, I_fpSay); }).Wait(sBound);
    if (!sFound.strFailure.empty())
        return Fail("\"" + strHost + "\": " + sFound.strFailure,
                    "correct the host's name, or enter it in DNS or /etc/hosts");
    inet_pton(AF_INET, sFound.Value("address").c_str(), &sServer.sin_addr);
    strReverse = sFound.Value("reverse");
    const std::string strCount = sFound.Value("count");
    return Ok("\"" + strHost + "\" is " + sFound.Value("address") +
              (strCount != "1" ? ", the first of " + strCount + " addresses" : ""));
}

FINDING CProbe::Reverse()
{
    const std::string strAddress = AddressText(sServer.sin_addr);
    if (!strReverse.empty()) return Ok(strAddress + " is \"" + strReverse + "\"");
    return Warn(strAddress + " has no name",
                "enter the address in reverse DNS or /etc/hosts; the library does without");
}

FINDING CProbe::Tcp()
{
    const std::string strWhere =
        AddressText(sServer.sin_addr) + " port " + std::to_string(ntohs(sServer.sin_port));
    try
    {
        spFtp = std::make_unique<CFtp>(sServer, sBound);
    } catch (const base::FAILURE &sError)
    {
        return Fail(strWhere + ": " + sError.what(),
                    "check that the port is right, the server runs, and firewalls let this host "
                    "connect to it");
    }
    return Ok("connected to " + strWhere);
}

FINDING CProbe::Greet()
{
    REPLY sReply;
    try
    {
        sReply = spFtp->Read();
        for (const std::string &strLine : spFtp->Uninvited()) sReply.vecLines.push_back(strLine);
    } catch (const base::FAILURE &sError)
    {
        return Fail(sError.what(), sReply.vecLines.empty() ? ADVICE_SILENT : ADVICE_SERVER_LOG);
    }
    return JudgeGreeting(sReply);
}

FINDING CProbe::JudgeGreeting(const REPLY &I_sReply)
{
    const std::string strText = sReport.Foreign(I_sReply.Text());
    const size_t uLines = I_sReply.vecLines.size();
    if (I_sReply.IsNegative())
        return Fail("the server turned this host away: " + strText,
                    "let it take more sessions, or sessions from this host: its log says why");
    if (I_sReply.iCode != 220)
        return Fail(strText, "this is not an FTP server: correct host or port");
    if (uLines > 1) return Fail(std::to_string(uLines) + " lines: " + strText, ADVICE_LINES);
    try
    {
        spFtp->Command("QUIT");
    } catch (const base::FAILURE &)
    {
        // it may be gone already
    }
    return Ok("one line: " + strText);
}
} // namespace check
