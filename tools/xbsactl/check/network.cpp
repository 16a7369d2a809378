#include "check/network.h"

#include <arpa/inet.h>

#include "base/base.h"
#include "check/resolve.h"
#include "explain/explain.h"

namespace
{
constexpr const char *CONTENT = "xbsactl check\n";

bool IsLoopback(const in_addr &I_sAddress)
{
    return ntohl(I_sAddress.s_addr) >> 24 == 127;
}

bool IsPrivate(const in_addr &I_sAddress)
{
    const uint32_t uAddress = ntohl(I_sAddress.s_addr);
    return uAddress >> 24 == 10 || uAddress >> 20 == 0xac1 || uAddress >> 16 == 0xc0a8 ||
           uAddress >> 22 == (0x64400000U >> 22); // the last is the carriers' own, 100.64.0.0/10
}
} // namespace

CProbe::CProbe(CReport &I_sReport, const base::CONNECTION &I_sConnection,
               const std::string &I_strHost, std::chrono::milliseconds I_sBound)
    : sReport(I_sReport), sConnection(I_sConnection), sBound(I_sBound), sFtp(I_sBound)
{
    const size_t uColon = I_strHost.find(':');
    strHost = I_strHost.substr(0, uColon);
    if (uColon != std::string::npos) iPort = std::stoi(I_strHost.substr(uColon + 1));
}

bool CProbe::Fail(const char *cpStep, const std::string &I_strFound, const std::string &I_strNext)
{
    bFailed = true;
    sReport.Fail(cpStep, sReport.Foreign(I_strFound), I_strNext);
    return false;
}

bool CProbe::Play(const std::vector<STEP> &I_vecSteps)
{
    bool bGoing = true;
    for (const STEP &sStep : I_vecSteps)
    {
        if (!bGoing)
        {
            sReport.NotTried(sStep.cpName, "an earlier step failed");
            continue;
        }
        try
        {
            bGoing = (this->*sStep.fpRun)();
        } catch (const base::FAILURE &sError)
        {
            bGoing = Fail(sStep.cpName, sError.what(),
                          "look at the server and its log: it should have answered");
        }
    }
    if (bConnected) Leave();
    return !bFailed;
}

bool CProbe::Greeting()
{
    return Play({{"network.name", &CProbe::Name},
                 {"network.reverse", &CProbe::Reverse},
                 {"network.tcp", &CProbe::Tcp},
                 {"network.greeting", &CProbe::Greet}});
}

bool CProbe::All(const std::string &I_strName)
{
    strName = I_strName;
    return Play({{"network.name", &CProbe::Name},
                 {"network.reverse", &CProbe::Reverse},
                 {"network.tcp", &CProbe::Tcp},
                 {"network.greeting", &CProbe::Greet},
                 {"network.login", &CProbe::Login},
                 {"network.type", &CProbe::Type},
                 {"network.cwd", &CProbe::Folder},
                 {"network.port", &CProbe::Port},
                 {"network.stor", &CProbe::Stor},
                 {"network.data", &CProbe::Data},
                 {"network.end", &CProbe::End}});
}

bool CProbe::Name()
{
    RESOLVED sFound;
    try
    {
        sFound = resolve_Host(strHost, sBound);
    } catch (const base::FAILURE &sError)
    {
        return Fail("network.name", "\"" + strHost + "\": " + sError.what(),
                    "correct the host's name, or enter it in DNS or /etc/hosts");
    }
    sServer.sin_addr = sFound.sAddress;
    sServer.sin_family = AF_INET;
    sServer.sin_port = htons(static_cast<uint16_t>(iPort));
    strReverse = sFound.strReverse;
    sReport.Ok("network.name",
               "\"" + strHost + "\" is " + ftp_Text(sFound.sAddress) +
                   (sFound.uAddresses > 1
                        ? ", the first of " + std::to_string(sFound.uAddresses) + " addresses"
                        : ""));
    return true;
}

bool CProbe::Reverse()
{
    const std::string strAddress = ftp_Text(sServer.sin_addr);
    if (strReverse.empty())
        sReport.Warn("network.reverse", strAddress + " has no name",
                     "enter the address in reverse DNS or /etc/hosts; the library does without");
    else sReport.Ok("network.reverse", strAddress + " is \"" + strReverse + "\"");
    return true;
}

bool CProbe::Tcp()
{
    const std::string strWhere = ftp_Text(sServer.sin_addr) + " port " + std::to_string(iPort);
    try
    {
        sFtp.Connect(sServer);
    } catch (const base::FAILURE &sError)
    {
        return Fail("network.tcp", strWhere + ": " + sError.what(),
                    "check that the port is right, the server runs, and firewalls let this host "
                    "connect to it");
    }
    bConnected = true;
    sReport.Ok("network.tcp", "connected to " + strWhere);
    return true;
}

// Goes on after a greeting of several lines: the server's other replies are worth knowing.
bool CProbe::Greet()
{
    REPLY sReply;
    try
    {
        sReply = sFtp.Read();
    } catch (const base::FAILURE &sError)
    {
        return Fail("network.greeting", sError.what(),
                    "look whether an FTP server is what listens on this port; a slow look-up of "
                    "this host's name on the server delays the greeting, too");
    }
    if (sReply.iCode != 220)
        return Fail("network.greeting", sReply.Text(),
                    sReply.IsNegative() ? "the server turns sessions away: read its log"
                                        : "this is no FTP server: correct host or port");
    for (const std::string &strLine : sFtp.Uninvited()) sReply.vecLines.push_back(strLine);
    const size_t uLines = sReply.vecLines.size();
    if (uLines > 1)
        Fail("network.greeting", std::to_string(uLines) + " lines: " + sReply.Text(),
             explain::Hint("220-"));
    else sReport.Ok("network.greeting", "one line: " + sReport.Foreign(sReply.Text()));
    return true;
}

// The reply to USER, when the server refuses there and may be gone before PASS.
REPLY CProbe::Pass(const REPLY &I_sUser)
{
    try
    {
        return sFtp.Command("PASS " + sConnection.strPassword);
    } catch (const base::FAILURE &)
    {
        if (!I_sUser.IsNegative()) throw;
        return I_sUser;
    }
}

// The library sends PASS whatever USER brought, so a login without password is no fault.
bool CProbe::Login()
{
    if (!sConnection.strLoginFault.empty())
    {
        sReport.NotTried("network.login", "user and password cannot be used");
        return false;
    }
    const REPLY sUser = sFtp.Command("USER " + sConnection.strUser);
    const REPLY sPass = Pass(sUser);
    if (!sPass.IsPositive() && !sUser.IsPositive())
    {
        const std::string strReply = sUser.IsNegative() ? sUser.Text() : sPass.Text();
        return Fail("network.login", strReply, explain::Hint(strReply));
    }
    sReport.Ok("network.login", sReport.Foreign(sPass.Text()));
    return true;
}

bool CProbe::Expect(const char *cpStep, const std::string &I_strCommand, int I_iCode,
                    const std::string &I_strNext)
{
    const REPLY sReply = sFtp.Command(I_strCommand);
    const std::string strFound = I_strCommand + ": " + sReply.Text();
    const bool bGood = I_iCode == 0 ? sReply.IsPositive() : sReply.iCode == I_iCode;
    if (!bGood) return Fail(cpStep, strFound, I_strNext);
    sReport.Ok(cpStep, sReport.Foreign(strFound));
    return true;
}

bool CProbe::Type()
{
    return Expect("network.type", "TYPE I", 0, "the server must allow binary transfers");
}

bool CProbe::Folder()
{
    return Expect("network.cwd", "CWD " + sConnection.strPath, 0, explain::Hint("CWD /: 550"));
}

// The library announces the address of its control connection, as this does.
bool CProbe::Port()
{
    const std::string strCommand = "PORT " + sFtp.Listen();
    const in_addr sLocal = sFtp.Local().sin_addr;
    const REPLY sReply = sFtp.Command(strCommand);
    const std::string strFound = strCommand + ": " + sReply.Text();
    if (sReply.iCode != 200) return Fail("network.port", strFound, explain::Hint("PORT 1: 500"));
    if (!IsLoopback(sServer.sin_addr) && IsPrivate(sLocal) && !IsPrivate(sServer.sin_addr))
        sReport.Warn("network.port", sReport.Foreign(strFound),
                     "a public server cannot reach the private address " + ftp_Text(sLocal) +
                         ": avoid address translation on the way, or use a tunnel");
    else sReport.Ok("network.port", sReport.Foreign(strFound) + ", the control connection's own");
    return true;
}

bool CProbe::Stor()
{
    sFtp.Store(strName, sAnswer);
    if (!sAnswer.sReply)
        return Fail("network.stor",
                    sAnswer.sData.Get() != -1 ? "connected, but no reply to STOR"
                                              : "no reply to STOR, and no connection came",
                    explain::Hint("425"));
    const REPLY &sReply = *sAnswer.sReply;
    const std::string strFound = "STOR " + strName + ": " + sReply.Text();
    if (sReply.iCode == 425)
        return Fail("network.stor", strFound + ": the server cannot connect back",
                    explain::Hint("425"));
    if (sReply.iCode / 100 != 1)
        return Fail("network.stor", strFound, explain::Hint(sReply.Text()));
    if (sReply.iCode != 150) Fail("network.stor", strFound, explain::Hint(sReply.Text()));
    else sReport.Ok("network.stor", sReport.Foreign(strFound));
    return true;
}

bool CProbe::Data()
{
    sFtp.AwaitData(sAnswer);
    if (sAnswer.sData.Get() == -1)
        return Fail("network.data",
                    sAnswer.sReply->IsNegative()
                        ? sAnswer.sReply->Text() + ": the server cannot connect back"
                        : "the server's connection did not arrive",
                    explain::Hint("425"));
    const std::string strPeer = ftp_Text(sAnswer.sPeer.sin_addr);
    if (sAnswer.sPeer.sin_addr.s_addr != sServer.sin_addr.s_addr)
        return Fail("network.data",
                    "connected from " + strPeer + " in place of " + ftp_Text(sServer.sin_addr),
                    "let the server connect from the address that it is reached at: strict mode "
                    "turns others away");
    sFtp.Send(sAnswer.sData, CONTENT);
    sReport.Ok("network.data", "the server connected from " + strPeer + " port " +
                                   std::to_string(ntohs(sAnswer.sPeer.sin_port)));
    return true;
}

bool CProbe::End()
{
    REPLY sReply;
    try
    {
        sReply = sFtp.Read();
    } catch (const base::FAILURE &sError)
    {
        return Fail("network.end", std::string("no 226: ") + sError.what(),
                    explain::Hint("no 226"));
    }
    if (sReply.iCode != 226)
        return Fail("network.end", "no 226, but: " + sReply.Text(), explain::Hint("no 226"));
    sReport.Ok("network.end", sReport.Foreign(sReply.Text()));
    return true;
}

// Some servers allow one session at a time. One that failed is not asked to answer once more.
void CProbe::Leave()
{
    try
    {
        if (!bFailed) sFtp.Command("QUIT");
    } catch (const base::FAILURE &)
    {
        // it may be gone already
    }
    sFtp = CFtp(sBound);
    sAnswer.sData = CSocket();
}

bool CProbe::LeftObject() const
{
    return sAnswer.bSent && !sAnswer.bRefused;
}
