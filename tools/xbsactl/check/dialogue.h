// What a session of the library said to the server and heard from it, read from the library's trace.
#ifndef XBSACTL_CHECK_DIALOGUE_H
#define XBSACTL_CHECK_DIALOGUE_H

#include <netinet/in.h>

#include <string>
#include <vector>

#include "check/child.h"
#include "check/report.h"

namespace check
{
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
    // Takes the store alone out of the session, what follows it is passed over.
    CDialogue(CReport &X_sReport, const OUTCOME &I_sSession);

    // The steps network.login to network.end. Returns whether none failed.
    bool Report(const sockaddr_in &I_sServer, bool I_bInformix);

    static void NotTried(CReport &X_sReport, const std::string &I_strWhy);

    // What the utility named: HOST:PORT, and the id of the copy; empty for none.
    const std::string &Host() const
    {
        return strHost;
    }
    const std::string &Copy() const
    {
        return strCopy;
    }

    // Whether an object may be on the server, even one of 0 bytes.
    bool LeftObject() const;

  private:
    bool Take(const EVENT &I_sLine);
    void TakeUtility(const std::string &I_strLine);
    const EXCHANGE *Find(const char *cpVerb) const;
    std::string Reply(const char *cpVerb) const;
    std::string LastReply() const;

    FINDING Login();
    FINDING Type();
    FINDING Folder();
    FINDING Port();
    FINDING Stor();
    FINDING Data();
    FINDING End();
    FINDING Expect(const char *cpVerb, const char *cpWanted, const std::string &I_strNext) const;
    FINDING Silent(const char *cpVerb) const;

    CReport &sReport;
    std::vector<EXCHANGE> vecExchanges;
    bool bOpened = false;  // the data connection
    bool bForeign = false; // one from elsewhere was turned away
    std::string strHost;
    std::string strCopy;
    std::string strFailure; // the library's
    std::string strEnd;     // of a session that was silent, or crashed
    sockaddr_in sServer{};
    bool bInformix = false;
};
} // namespace check

#endif
