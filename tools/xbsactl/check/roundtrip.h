// Objects through the library, there and back, each session in a process of its own.
#ifndef XBSACTL_CHECK_ROUNDTRIP_H
#define XBSACTL_CHECK_ROUNDTRIP_H

#include <chrono>
#include <string>
#include <vector>

#include "base/base.h"
#include "check/child.h"
#include "check/report.h"

class CRoundTrips
{
  public:
    // I_strName begins the name of each object.
    CRoundTrips(CReport &I_sReport, const base::CONNECTION &I_sConnection,
                const std::string &I_strName, std::chrono::milliseconds I_sDeadline);

    // One session, then two at once.
    void Run();

    void NotTried(const std::string &I_strWhy);

    // What may be on the server now: names on the plain road, copy ids of Informix sessions.
    const std::vector<std::string> &Names() const
    {
        return vecNames;
    }
    const std::vector<std::string> &Copies() const
    {
        return vecCopies;
    }

    // HOST:PORT that the utility named; empty when it named none.
    const std::string &Host() const
    {
        return strHost;
    }

  private:
    bool Single();
    void Pair();
    RESULT Collect(CChild &I_sChild, const std::string &I_strName);
    void Fail(const char *cpStep, const std::string &I_strFound);

    CReport &sReport;
    base::CONNECTION sConnection;
    std::string strName;
    std::chrono::milliseconds sDeadline;
    std::vector<std::string> vecNames;
    std::vector<std::string> vecCopies;
    std::string strHost;
    long lAlone = 0; // milliseconds of one session there and back
};

#endif
