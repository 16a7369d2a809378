// The commands and replies of a session, read from the library's trace.
#include <arpa/inet.h>

#include <algorithm>
#include <regex>

#include "check/parts.h"
#include "library/library.h"

namespace check
{
namespace
{
constexpr const char *OBJECT = "the object"; // what the closing reply answers

// Of "10.0.0.1", or what PORT makes of it: "10,0,0,1,4,1". The last row is for carriers' networks.
bool IsPrivate(const std::string &I_strAddress)
{
    static const std::regex sPrivate("(10|192[.,]168|172[.,](1[6-9]|2[0-9]|3[01])|"
                                     "100[.,](6[4-9]|[7-9][0-9]|1[01][0-9]|12[0-7]))[.,].*");
    return I_strAddress.size() < 64 && std::regex_match(I_strAddress, sPrivate);
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
    // The library sends PASS whatever the reply to USER, so a login without password is not a
    // fault.
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
        const std::string strServer = inet_ntoa(sServer);
        const bool bNear = strServer.starts_with("127.") || IsPrivate(strServer);
        if (sFinding.eStatus != STATUS::OK || bNear) return sFinding;
        if (!IsPrivate(Find("PORT")->strCommand.substr(std::size("PORT")))) return sFinding;
        return Warn(sFinding.strFound + ": a public server cannot reach this private address");
    }

    FINDING Stor()
    {
        FINDING sFinding = Judge("STOR", "150");
        if (!Reply("STOR").starts_with("425")) return sFinding;
        return Fail(sFinding.strFound + ": the server cannot connect back");
    }

    FINDING Data()
    {
        const EXCHANGE *spStor = Find("STOR");
        const std::string strAddress = inet_ntoa(sServer);
        if (bOpened) return Ok("the server connected from " + strAddress);
        if (spStor == nullptr) return Silent("STOR");
        if (IsNegative(spStor->vecReplies.back()))
            return Fail(spStor->vecReplies.back() + ": the server cannot connect back");
        if (bForeign) return Fail("connected from an address other than " + strAddress);
        return Fail("the server's connection did not arrive");
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

    // A command without a reply, or one that was not sent.
    FINDING Silent(const std::string &I_strVerb) const
    {
        const std::string strFound = "no reply to " + I_strVerb;
        if (!strEnd.empty() && I_strVerb == "STOR") return Fail(strFound + ": " + strEnd);
        if (!strEnd.empty()) return Fail(strFound + ": " + strEnd);
        if (Find(I_strVerb) != nullptr)
            return Fail(strFound +
                        ": the server closed the connection; its last reply was: " + strLast);
        if (strFailure.empty()) // the utility may lower the trace's level
            return NotTried("the library's trace does not show it");
        return Fail(strFailure);
    }

    const CReport &sReport;
    in_addr sServer;
    std::vector<EXCHANGE> vecExchanges{1};
    std::string strLast;   // the last reply that was not empty, with the server's reason for an end
    bool bOpened = false;  // the data connection
    bool bForeign = false; // one from elsewhere was rejected
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
