// What a session of the library said to the server and heard from it, read from the library's trace.
#include <arpa/inet.h>

#include <algorithm>

#include "check/parts.h"
#include "library/library.h"

namespace check
{
namespace
{
constexpr const char *OBJECT = "the object"; // what the closing reply answers

// Of an address as a number.
bool IsPrivate(uint32_t I_uAddress)
{
    return I_uAddress >> 24 == 10 || I_uAddress >> 20 == 0xac1 || I_uAddress >> 16 == 0xc0a8 ||
           I_uAddress >> 22 == (0x64400000U >> 22); // the last is the carriers' own, 100.64.0.0/10
}

// Of "PORT 10,0,0,1,4,1"
uint32_t AnnouncedBy(const std::string &I_strCommand)
{
    std::istringstream sNumbers(I_strCommand.substr(I_strCommand.find(' ') + 1));
    uint32_t uAddress = 0;
    uint32_t uNumber = 0;
    char cComma = '\0';
    for (int iPlace = 0; iPlace < 4 && sNumbers >> uNumber >> cComma; iPlace++)
        uAddress = uAddress << 8 | uNumber;
    return uAddress;
}

// Where the library listens when the administrator has chosen the ports; empty: the system does.
std::string Range()
{
    const std::string strRange = base::Variable("KORVA_PORT_RANGE");
    return strRange.empty() ? "" : " at a port of KORVA_PORT_RANGE=" + strRange;
}

FINDING NoWayBack(const std::string &I_strFound)
{
    return Fail(I_strFound + Range());
}

// A command, and the lines that came back.
struct EXCHANGE
{
    std::string strCommand; // as sent; "" for the greeting
    std::vector<std::string> vecReplies{};
    long lBegin = 0; // milliseconds
    long lEnd = 0;
};

class CDialogue
{
  public:
    CDialogue(const SESSIONS &I_sSessions, const OUTCOME &I_sAlone, const sockaddr_in &I_sServer)
        : sReport(I_sSessions.sReport), sServer(I_sServer.sin_addr),
          strFailure(I_sAlone.Value(FAILED)), strEnd(strFailure.empty() ? I_sAlone.strFailure : "")
    {
        for (const EVENT &sEvent : I_sAlone.vecEvents)
            if (sEvent.strName == "trace" && !Take(sEvent)) break;
    }

    STEPS Steps()
    {
        return {{"network.login", [this] { return Login(); }},
                {"network.type", [this] { return Judge("TYPE", "2"); }},
                {"network.cwd", [this] { return Judge("CWD", "2"); }},
                {"network.port", [this] { return Port(); }},
                {"network.stor", [this] { return Stor(); }},
                {"network.data", [this] { return Data(); }},
                {"network.end", [this] { return End(); }}};
    }

    // Even an object of 0 bytes is one.
    bool HasStored() const
    {
        return Find("STOR") != nullptr && !IsNegative(Reply("STOR"));
    }

  private:
    // The library sends PASS whatever USER brought, so a login without password is not a fault.
    FINDING Login()
    {
        const std::string strUser = Reply("USER");
        const std::string strPass = Reply("PASS");
        if (strUser.starts_with('2') || strPass.starts_with('2'))
            return Ok(strPass.empty() ? strUser : strPass);
        const std::string strReply = IsNegative(strUser) ? strUser : strPass;
        if (strReply.empty()) return Silent(strUser.empty() ? "USER" : "PASS");
        return Fail(strReply);
    }

    FINDING Judge(const char *cpVerb, const char *cpWanted) const
    {
        const EXCHANGE *spExchange = Find(cpVerb);
        const std::string strReply = Reply(cpVerb);
        if (strReply.empty()) return Silent(cpVerb);
        const std::string strFound = spExchange->strCommand + ": " + strReply;
        FINDING sFinding = strReply.starts_with(cpWanted) ? Ok(strFound) : Fail(strFound);
        sFinding.lMilliseconds = spExchange->lEnd - spExchange->lBegin;
        return sFinding;
    }

    // The library announces the address of its control connection.
    FINDING Port()
    {
        FINDING sFinding = Judge("PORT", "200");
        const EXCHANGE *spPort = Find("PORT");
        const uint32_t uServer = ntohl(sServer.s_addr);
        const bool bLoopback = uServer >> 24 == 127;
        if (sFinding.eStatus != STATUS::OK || bLoopback || IsPrivate(uServer)) return sFinding;
        if (!IsPrivate(AnnouncedBy(spPort->strCommand))) return sFinding;
        return Warn(sFinding.strFound + ": a public server cannot reach this private address");
    }

    FINDING Stor()
    {
        FINDING sFinding = Judge("STOR", "150");
        if (!Reply("STOR").starts_with("425")) return sFinding;
        return NoWayBack(sFinding.strFound + ": the server cannot connect back");
    }

    FINDING Data()
    {
        const EXCHANGE *spStor = Find("STOR");
        const std::string strAddress = inet_ntoa(sServer);
        if (bOpened) return Ok("the server connected from " + strAddress + Range());
        if (spStor == nullptr) return Silent("STOR");
        if (IsNegative(spStor->vecReplies.back()))
            return NoWayBack(spStor->vecReplies.back() + ": the server cannot connect back");
        if (bForeign) return Fail("connected from another address than " + strAddress);
        return NoWayBack("the server's connection did not arrive");
    }

    // The lines of a long opening reply come before the closing one, the reply to QUIT after it.
    FINDING End()
    {
        const EXCHANGE *spEnd = Find(OBJECT);
        if (spEnd == nullptr) return Silent(OBJECT);
        const auto fpCloses = [](const auto &str) {
            return str.starts_with("226") || IsNegative(str);
        };
        const std::vector<std::string> &vecReplies = spEnd->vecReplies;
        const auto sClosing = std::ranges::find_if(vecReplies, fpCloses);
        std::string strReply = vecReplies.empty() ? strEnd : vecReplies[0];
        if (sClosing != vecReplies.end()) strReply = *sClosing;
        if (strReply.empty()) strReply = "the server closed the connection";
        return strReply.starts_with("226") ? Ok(strReply) : Fail("no 226, but: " + strReply);
    }

    // Returns false at the end of the store.
    bool Take(const EVENT &I_sLine)
    {
        const std::string &strLine = I_sLine.strValue;
        const bool bObject = strLine.starts_with("BSAEndData: Start");
        if (const auto strCommand = bObject ? std::string(OBJECT) : library::CommandIn(strLine))
            vecExchanges.push_back({base::Printable(*strCommand), {}, I_sLine.lMilliseconds, 0});
        if (const auto strReply = library::ReplyIn(strLine))
        {
            EXCHANGE &sExchange = vecExchanges.back();
            sExchange.vecReplies.push_back(sReport.Foreign(*strReply));
            sExchange.lEnd = I_sLine.lMilliseconds;
            if (!strReply->empty()) strLast = sExchange.vecReplies.back();
        }
        if (strLine.starts_with("BSACreateObject: Return: 0")) bOpened = true;
        if (strLine.starts_with("stpc_stor: Data connection from another address")) bForeign = true;
        return !strLine.starts_with("BSAGetObject: Start");
    }

    const EXCHANGE *Find(const std::string &I_strVerb) const
    {
        for (const EXCHANGE &sExchange : vecExchanges)
            if (sExchange.strCommand.starts_with(I_strVerb)) return &sExchange;
        return nullptr;
    }

    // The first line; empty for none, and when the connection ended instead.
    std::string Reply(const std::string &I_strVerb) const
    {
        const EXCHANGE *spExchange = Find(I_strVerb);
        return spExchange != nullptr && !spExchange->vecReplies.empty() ? spExchange->vecReplies[0]
                                                                        : "";
    }

    // A command without a reply, or one that was never sent.
    FINDING Silent(const std::string &I_strVerb) const
    {
        const std::string strFound = "no reply to " + I_strVerb;
        if (!strEnd.empty() && I_strVerb == "STOR") return NoWayBack(strFound + ": " + strEnd);
        if (!strEnd.empty()) return Fail(strFound + ": " + strEnd);
        if (Find(I_strVerb) != nullptr)
            return Fail(strFound +
                        ", the server closed the connection, after its reply: " + strLast);
        if (strFailure.empty()) // the utility may lower the trace's level
            return NotTried("the library's trace does not show it");
        return Fail(strFailure);
    }

    const CReport &sReport;
    in_addr sServer;
    std::vector<EXCHANGE> vecExchanges{1};
    std::string strLast;    // reply that was not empty: a server that ends a session says why
    bool bOpened = false;   // the data connection
    bool bForeign = false;  // one from elsewhere was turned away
    std::string strFailure; // the library's
    std::string strEnd;     // of a session that was silent, or crashed
};
} // namespace

bool HasStored(const SESSIONS &I_sSessions, const OUTCOME &I_sAlone)
{
    return CDialogue(I_sSessions, I_sAlone, {}).HasStored();
}

bool ReportDialogue(SESSIONS &X_sSessions, const OUTCOME &I_sAlone, const sockaddr_in &I_sServer,
                    const std::string &I_strWhy)
{
    CDialogue sDialogue(X_sSessions, I_sAlone, I_sServer);
    return X_sSessions.sReport.Climb(sDialogue.Steps(), I_strWhy);
}
} // namespace check
