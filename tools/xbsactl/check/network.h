// The way to the server, step by step, as the library goes it.
#ifndef XBSACTL_CHECK_NETWORK_H
#define XBSACTL_CHECK_NETWORK_H

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/base.h"
#include "check/ftp.h"
#include "check/report.h"

class CProbe
{
  public:
    // I_strHost: HOST[:PORT]
    CProbe(CReport &I_sReport, const base::CONNECTION &I_sConnection, const std::string &I_strHost,
           std::chrono::milliseconds I_sBound);

    // Every step up to a stored object. Returns whether the library can go the same way.
    bool All(const std::string &I_strName);

    // Whether All may have left the object on the server.
    bool LeftObject() const;

    // The steps that need no login.
    bool Greeting();

    const sockaddr_in &Server() const
    {
        return sServer;
    }

  private:
    struct STEP
    {
        const char *cpName;
        bool (CProbe::*fpRun)(); // false: the later ones make no sense
    };

    bool Play(const std::vector<STEP> &I_vecSteps);
    bool Fail(const char *cpStep, const std::string &I_strFound, const std::string &I_strNext);
    bool Expect(const char *cpStep, const std::string &I_strCommand, int I_iCode,
                const std::string &I_strNext);
    bool Name();
    bool Reverse();
    bool Tcp();
    bool Greet();
    REPLY Pass(const REPLY &I_sUser);
    bool Login();
    bool Type();
    bool Folder();
    bool Port();
    bool Stor();
    bool Data();
    bool End();
    void Leave();

    CReport &sReport;
    const base::CONNECTION &sConnection;
    std::chrono::milliseconds sBound;
    std::string strHost;
    int iPort = 21;
    sockaddr_in sServer{};
    std::string strReverse;
    std::string strName;
    CFtp sFtp;
    ANSWER sAnswer;
    bool bConnected = false;
    bool bFailed = false;
};

#endif
