#include "check/dialogue.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

#include "check/advice.h"
#include "check/ftp.h"

namespace check
{
namespace
{
constexpr const char *END = "the object"; // what the closing reply answers

// What follows the beginning; null when the text begins otherwise.
const char *After(const std::string &I_strText, const std::string &I_strBegin)
{
    return I_strText.compare(0, I_strBegin.size(), I_strBegin) == 0
               ? I_strText.c_str() + I_strBegin.size()
               : nullptr;
}

bool IsNegative(const std::string &I_strReply)
{
    return !I_strReply.empty() && (I_strReply[0] == '4' || I_strReply[0] == '5');
}

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

// "PORT 10,0,0,1,4,1"
in_addr AnnouncedBy(const std::string &I_strCommand)
{
    std::string strAddress = I_strCommand.substr(I_strCommand.find(' ') + 1);
    for (int iPort = 0; iPort < 2; iPort++)
        strAddress.resize(std::min(strAddress.size(), strAddress.rfind(',')));
    std::replace(strAddress.begin(), strAddress.end(), ',', '.');
    in_addr sAddress{};
    inet_pton(AF_INET, strAddress.c_str(), &sAddress);
    return sAddress;
}
} // namespace

CDialogue::CDialogue(CReport &X_sReport, const OUTCOME &I_sSession)
    : sReport(X_sReport), vecExchanges(1), strFailure(I_sSession.Value("error")),
      strEnd(I_sSession.strFailure)
{
    for (const EVENT &sEvent : I_sSession.vecEvents)
        if (sEvent.strName == "trace" && !Take(sEvent)) break;
}

// Returns false at the end of the store.
bool CDialogue::Take(const EVENT &I_sLine)
{
    const std::string &strLine = I_sLine.strValue;
    for (const char *cpBegin :
         {"xbsa_open: Send command: ", "stpc_port: Send message: ", "stpc_stor: Send message: "})
        if (const char *cpCommand = After(strLine, cpBegin))
            vecExchanges.push_back({base::Printable(cpCommand), {}, I_sLine.lMilliseconds, 0});
    if (After(strLine, "BSAEndData: Start") != nullptr)
        vecExchanges.push_back({END, {}, I_sLine.lMilliseconds, 0});
    if (const char *cpReply = After(strLine, "LOGIN REPLY: "))
    {
        vecExchanges.back().vecReplies.push_back(sReport.Foreign(cpReply));
        vecExchanges.back().lEnd = I_sLine.lMilliseconds;
    }
    if (After(strLine, "BSACreateObject: Return: 0") != nullptr) bOpened = true;
    if (After(strLine, "stpc_stor: Data connection from another address") != nullptr)
        bForeign = true;
    TakeUtility(strLine);
    return After(strLine, "BSAGetObject: Start") == nullptr;
}

// "[tape_server=HOST:PORT:USER:...]", "[savesetname=COPY@RESTORE]"
void CDialogue::TakeUtility(const std::string &I_strLine)
{
    if (const char *cpServer = After(I_strLine, "parse_com_answer: Parsing line: [tape_server="))
    {
        strHost = cpServer;
        strHost.resize(std::min(strHost.size(), strHost.find(':', strHost.find(':') + 1)));
    }
    if (const char *cpCopy = After(I_strLine, "parse_com_answer: Parsing line: [savesetname="))
        strCopy = std::string(cpCopy).substr(0, std::string(cpCopy).find_first_of("@]"));
}

const EXCHANGE *CDialogue::Find(const char *cpVerb) const
{
    const auto sFound =
        std::find_if(vecExchanges.begin(), vecExchanges.end(), [cpVerb](const EXCHANGE &sExchange) {
            return After(sExchange.strCommand, cpVerb) != nullptr;
        });
    return sFound != vecExchanges.end() ? &*sFound : nullptr;
}

// The first reply; empty for none, and when the connection ended instead.
std::string CDialogue::Reply(const char *cpVerb) const
{
    const EXCHANGE *spExchange = Find(cpVerb);
    return spExchange != nullptr && !spExchange->vecReplies.empty() ? spExchange->vecReplies[0]
                                                                    : "";
}

// A server that ends the connection said why in it.
std::string CDialogue::LastReply() const
{
    std::string strLast;
    for (const EXCHANGE &sExchange : vecExchanges)
        for (const std::string &strReply : sExchange.vecReplies)
            if (!strReply.empty()) strLast = strReply;
    return strLast;
}

void CDialogue::NotTried(CReport &X_sReport, const std::string &I_strWhy)
{
    X_sReport.NotTried({"network.login", "network.type", "network.cwd", "network.port",
                        "network.stor", "network.data", "network.end"},
                       I_strWhy);
}

bool CDialogue::Report(const sockaddr_in &I_sServer, bool I_bInformix)
{
    sServer = I_sServer;
    bInformix = I_bInformix;
    return Climb<CDialogue>(sReport, *this,
                            {{"network.login", &CDialogue::Login},
                             {"network.type", &CDialogue::Type},
                             {"network.cwd", &CDialogue::Folder},
                             {"network.port", &CDialogue::Port},
                             {"network.stor", &CDialogue::Stor},
                             {"network.data", &CDialogue::Data},
                             {"network.end", &CDialogue::End}});
}

// A command without a reply, or one that was never sent.
FINDING CDialogue::Silent(const char *cpVerb) const
{
    const EXCHANGE *spExchange = Find(cpVerb);
    if (spExchange == nullptr && strFailure.empty() && strEnd.empty())
        return check::NotTried(
            "the library's trace does not show it"); // the utility may set its level
    if (spExchange == nullptr && strEnd.empty()) return Fail(strFailure, advice_For(strFailure));
    const bool bStor = std::string(cpVerb) == "STOR";
    if (!strEnd.empty())
        return Fail(std::string("no reply to ") + cpVerb + ": " + strEnd,
                    bStor ? advice_Firewall() : ADVICE_SERVER_LOG);
    const std::string strLast = LastReply();
    const std::string strLog = std::string(ADVICE_SERVER_LOG) + (bStor ? ADVICE_SANDBOX : "");
    return Fail(std::string("no reply to ") + cpVerb + ", the server closed the connection" +
                    (strLast.empty() ? "" : ", after its reply \"" + strLast + "\""),
                IsNegative(strLast) ? advice_For("reply: " + strLast) : strLog);
}

FINDING CDialogue::Expect(const char *cpVerb, const char *cpWanted,
                          const std::string &I_strNext) const
{
    const EXCHANGE *spExchange = Find(cpVerb);
    const std::string strReply = Reply(cpVerb);
    if (strReply.empty()) return Silent(cpVerb);
    const std::string strFound = spExchange->strCommand + ": " + strReply;
    FINDING sFinding =
        After(strReply, cpWanted) != nullptr ? Ok(strFound) : Fail(strFound, I_strNext);
    sFinding.lMilliseconds = spExchange->lEnd - spExchange->lBegin;
    return sFinding;
}

// The library sends PASS whatever USER brought, so a login without password is not a fault.
FINDING CDialogue::Login()
{
    const std::string strUser = Reply("USER");
    const std::string strPass = Reply("PASS");
    if (After(strUser, "2") != nullptr || After(strPass, "2") != nullptr)
        return Ok(strPass.empty() ? strUser : strPass);
    const std::string strReply = IsNegative(strUser) ? strUser : strPass;
    if (strReply.empty()) return Silent(strUser.empty() ? "USER" : "PASS");
    return Fail(strReply, advice_Login(strReply, bInformix));
}

FINDING CDialogue::Type()
{
    return Expect("TYPE", "2", "the server must allow binary transfers");
}

FINDING CDialogue::Folder()
{
    return Expect("CWD", "2", ADVICE_CWD);
}

// The library announces the address of its control connection.
FINDING CDialogue::Port()
{
    FINDING sFinding = Expect("PORT", "200", ADVICE_PORT);
    if (sFinding.eStatus != STATUS::OK) return sFinding;
    const in_addr sLocal = AnnouncedBy(Find("PORT")->strCommand);
    if (IsLoopback(sServer.sin_addr) || !IsPrivate(sLocal) || IsPrivate(sServer.sin_addr))
        return sFinding;
    return Warn(sFinding.strFound, "a public server cannot reach the private address " +
                                       AddressText(sLocal) +
                                       ": avoid address translation on the way, or use a tunnel");
}

FINDING CDialogue::Stor()
{
    const std::string strReply = Reply("STOR");
    if (After(strReply, "425") != nullptr)
        return Fail("STOR: " + strReply + ": the server cannot connect back", advice_Firewall());
    return Expect("STOR", "150", After(strReply, "1") != nullptr ? ADVICE_125 : ADVICE_WRITE);
}

FINDING CDialogue::Data()
{
    const EXCHANGE *spStor = Find("STOR");
    const std::string strAddress = AddressText(sServer.sin_addr);
    if (spStor == nullptr) return Silent("STOR");
    if (bOpened) return Ok("the server connected from " + strAddress);
    if (IsNegative(spStor->vecReplies.back()))
        return Fail(spStor->vecReplies.back() + ": the server cannot connect back",
                    advice_Firewall());
    if (bForeign)
        return Fail("connected from another address than " + strAddress,
                    "let the server connect from the address that it is reached at: strict mode "
                    "turns others away");
    return Fail("the server's connection did not arrive", advice_Firewall());
}

// The lines of a long opening reply come before it, the reply to QUIT after it.
FINDING CDialogue::End()
{
    const EXCHANGE *spEnd = Find(END);
    if (spEnd == nullptr) return Silent(END);
    const std::vector<std::string> &vecReplies = spEnd->vecReplies;
    const auto sClosing =
        std::find_if(vecReplies.begin(), vecReplies.end(), [](const std::string &strReply) {
            return After(strReply, "226") != nullptr || IsNegative(strReply);
        });
    const auto sShown = sClosing != vecReplies.end() ? sClosing : vecReplies.begin();
    const bool bNone = sShown == vecReplies.end() || sShown->empty();
    if (!bNone && After(*sShown, "226") != nullptr) return Ok(*sShown);
    if (!bNone) return Fail("no 226, but: " + *sShown, ADVICE_END);
    return Fail("no 226: " + (strEnd.empty() ? "the server closed the connection" : strEnd),
                ADVICE_END);
}

bool CDialogue::LeftObject() const
{
    return Find("STOR") != nullptr && !IsNegative(Reply("STOR"));
}
} // namespace check
