// What a session of the library said to the server and heard from it, read from the library's trace.
#include <arpa/inet.h>

#include <algorithm>

#include "check/steps.h"

namespace check
{
namespace
{
constexpr const char *OBJECT = "the object"; // what the closing reply answers

// What follows the beginning; null when the text begins otherwise.
const char *After(const std::string &I_strText, const std::string &I_strBegin)
{
    return I_strText.compare(0, I_strBegin.size(), I_strBegin) == 0
               ? I_strText.c_str() + I_strBegin.size()
               : nullptr;
}

bool IsNegative(const std::string &I_strReply)
{
    return After(I_strReply, "4") != nullptr || After(I_strReply, "5") != nullptr;
}

bool IsPrivate(const in_addr &I_sAddress)
{
    const uint32_t uAddress = ntohl(I_sAddress.s_addr);
    return uAddress >> 24 == 10 || uAddress >> 20 == 0xac1 || uAddress >> 16 == 0xc0a8 ||
           uAddress >> 22 == (0x64400000U >> 22); // the last is the carriers' own, 100.64.0.0/10
}

// Of "PORT 10,0,0,1,4,1"
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

// A command, and the lines that came back.
struct EXCHANGE
{
    std::string strCommand; // as sent; "" for the greeting
    std::vector<std::string> vecReplies;
    long lBegin = 0; // milliseconds
    long lEnd = 0;
};

class CDialogue
{
  public:
    CDialogue(const CReport &I_sReport, const OUTCOME &I_sAlone, const sockaddr_in &I_sServer,
              bool I_bInformix)
        : sReport(I_sReport), sServer(I_sServer.sin_addr), bInformix(I_bInformix), vecExchanges(1),
          strFailure(I_sAlone.Value("error")), strEnd(I_sAlone.strFailure)
    {
        for (const EVENT &sEvent : I_sAlone.vecEvents)
            if (sEvent.strName == "trace" && !Take(sEvent)) break;
    }

    // The library sends PASS whatever USER brought, so a login without password is not a fault.
    FINDING Login()
    {
        const std::string strUser = Reply("USER");
        const std::string strPass = Reply("PASS");
        if (After(strUser, "2") != nullptr || After(strPass, "2") != nullptr)
            return Ok(strPass.empty() ? strUser : strPass);
        const std::string strReply = IsNegative(strUser) ? strUser : strPass;
        if (strReply.empty()) return Silent(strUser.empty() ? "USER" : "PASS");
        return Fail(strReply, Remedy(": " + strReply, bInformix));
    }

    FINDING Judge(const char *cpVerb, const char *cpWanted) const
    {
        const EXCHANGE *spExchange = Find(cpVerb);
        const std::string strReply = Reply(cpVerb);
        if (strReply.empty()) return Silent(cpVerb);
        const std::string strFound = spExchange->strCommand + ": " + strReply;
        FINDING sFinding =
            After(strReply, cpWanted) != nullptr ? Ok(strFound) : Fail(strFound, Remedy(strFound));
        sFinding.lMilliseconds = spExchange->lEnd - spExchange->lBegin;
        return sFinding;
    }

    // The library announces the address of its control connection.
    FINDING Port()
    {
        FINDING sFinding = Judge("PORT", "200");
        const EXCHANGE *spPort = Find("PORT");
        const bool bLoopback = ntohl(sServer.s_addr) >> 24 == 127;
        if (sFinding.eStatus != STATUS::OK || bLoopback || IsPrivate(sServer)) return sFinding;
        const in_addr sLocal = AnnouncedBy(spPort->strCommand);
        if (!IsPrivate(sLocal)) return sFinding;
        return Warn(sFinding.strFound,
                    Text("a public server cannot reach the private address ", inet_ntoa(sLocal),
                         ": avoid address translation on the way, or use a tunnel"));
    }

    FINDING Stor()
    {
        FINDING sFinding = Judge("STOR", "150");
        if (After(Reply("STOR"), "425") != nullptr)
            sFinding = Fail(sFinding.strFound + ": the server cannot connect back", Remedy("425"));
        return sFinding;
    }

    FINDING Data()
    {
        const EXCHANGE *spStor = Find("STOR");
        const std::string strAddress = inet_ntoa(sServer);
        if (bOpened) return Ok("the server connected from " + strAddress);
        if (spStor == nullptr) return Silent("STOR");
        if (IsNegative(spStor->vecReplies.back()))
            return Fail(spStor->vecReplies.back() + ": the server cannot connect back",
                        Remedy("425"));
        if (bForeign)
            return Fail("connected from another address than " + strAddress,
                        "let the server connect from the address that it is reached at: strict "
                        "mode turns others away");
        return Fail("the server's connection did not arrive", Remedy("425"));
    }

    // The lines of a long opening reply come before the closing one, the reply to QUIT after it.
    FINDING End()
    {
        const EXCHANGE *spEnd = Find(OBJECT);
        if (spEnd == nullptr) return Silent(OBJECT);
        const auto fpCloses = [](const std::string &strReply) {
            return After(strReply, "226") != nullptr || IsNegative(strReply);
        };
        const std::vector<std::string> &vecReplies = spEnd->vecReplies;
        const auto sClosing = std::find_if(vecReplies.begin(), vecReplies.end(), fpCloses);
        std::string strReply = vecReplies.empty() ? strEnd : vecReplies[0];
        if (sClosing != vecReplies.end()) strReply = *sClosing;
        if (strReply.empty()) strReply = "the server closed the connection";
        if (After(strReply, "226") != nullptr) return Ok(strReply);
        return Fail("no 226, but: " + strReply, Remedy("no 226"));
    }

  private:
    // Returns false at the end of the store.
    bool Take(const EVENT &I_sLine)
    {
        const std::string &strLine = I_sLine.strValue;
        for (const char *cpBegin : {"xbsa_open: Send command: ", "stpc_port: Send message: ",
                                    "stpc_stor: Send message: "})
            if (const char *cpCommand = After(strLine, cpBegin))
                vecExchanges.push_back({base::Printable(cpCommand), {}, I_sLine.lMilliseconds, 0});
        if (After(strLine, "BSAEndData: Start") != nullptr)
            vecExchanges.push_back({OBJECT, {}, I_sLine.lMilliseconds, 0});
        if (const char *cpReply = After(strLine, "LOGIN REPLY: "))
        {
            vecExchanges.back().vecReplies.push_back(sReport.Foreign(cpReply));
            vecExchanges.back().lEnd = I_sLine.lMilliseconds;
        }
        if (After(strLine, "BSACreateObject: Return: 0") != nullptr) bOpened = true;
        if (After(strLine, "stpc_stor: Data connection from another address") != nullptr)
            bForeign = true;
        return After(strLine, "BSAGetObject: Start") == nullptr;
    }

    const EXCHANGE *Find(const char *cpVerb) const
    {
        const auto sFound = std::find_if(vecExchanges.begin(), vecExchanges.end(),
                                         [cpVerb](const EXCHANGE &sExchange) {
                                             return After(sExchange.strCommand, cpVerb) != nullptr;
                                         });
        return sFound != vecExchanges.end() ? &*sFound : nullptr;
    }

    // The first line; empty for none, and when the connection ended instead.
    std::string Reply(const char *cpVerb) const
    {
        const EXCHANGE *spExchange = Find(cpVerb);
        return spExchange != nullptr && !spExchange->vecReplies.empty() ? spExchange->vecReplies[0]
                                                                        : "";
    }

    // A server that ends the connection said why in it.
    std::string LastReply() const
    {
        std::string strLast;
        for (const EXCHANGE &sExchange : vecExchanges)
            for (const std::string &strReply : sExchange.vecReplies)
                if (!strReply.empty()) strLast = strReply;
        return strLast;
    }

    // A command without a reply, or one that was never sent.
    FINDING Silent(const char *cpVerb) const
    {
        const bool bStor = After(cpVerb, "STOR") != nullptr;
        if (!strEnd.empty())
            return Fail(Text("no reply to ", cpVerb, ": ", strEnd), Remedy(bStor ? "425" : strEnd));
        if (Find(cpVerb) == nullptr &&
            strFailure.empty()) // the utility may lower the trace's level
            return NotTried("the library's trace does not show it");
        if (Find(cpVerb) == nullptr) return Fail(strFailure, Remedy(strFailure));
        const std::string strLast = LastReply();
        return Fail(Text("no reply to ", cpVerb,
                         ", the server closed the connection, after its reply \"", strLast, "\""),
                    Remedy(IsNegative(strLast) ? ": " + strLast
                                               : Text("No reply to ", cpVerb,
                                                      ", the control connection has ended.")));
    }

    const CReport &sReport;
    in_addr sServer;
    bool bInformix;
    std::vector<EXCHANGE> vecExchanges;
    bool bOpened = false;   // the data connection
    bool bForeign = false;  // one from elsewhere was turned away
    std::string strFailure; // the library's
    std::string strEnd;     // of a session that was silent, or crashed
};

STEPS StepsOf(CDialogue &X_sDialogue)
{
    return {{"network.login", [&] { return X_sDialogue.Login(); }},
            {"network.type", [&] { return X_sDialogue.Judge("TYPE", "2"); }},
            {"network.cwd", [&] { return X_sDialogue.Judge("CWD", "2"); }},
            {"network.port", [&] { return X_sDialogue.Port(); }},
            {"network.stor", [&] { return X_sDialogue.Stor(); }},
            {"network.data", [&] { return X_sDialogue.Data(); }},
            {"network.end", [&] { return X_sDialogue.End(); }}};
}
} // namespace

bool ReportDialogue(CReport &X_sReport, const OUTCOME &I_sAlone, const sockaddr_in &I_sServer,
                    bool I_bInformix)
{
    CDialogue sDialogue(X_sReport, I_sAlone, I_sServer, I_bInformix);
    return Climb(X_sReport, StepsOf(sDialogue));
}

void SkipDialogue(CReport &X_sReport, const std::string &I_strWhy)
{
    CDialogue sNone(X_sReport, {}, {}, false);
    X_sReport.Skip(StepsOf(sNone), I_strWhy);
}
} // namespace check
