// Objects through the library, there and back, each session in a process of its own.
#ifndef XBSACTL_CHECK_TRIPS_H
#define XBSACTL_CHECK_TRIPS_H

#include <chrono>
#include <string>
#include <vector>

#include "check/child.h"
#include "check/report.h"

namespace check
{
class CTrips
{
  public:
    // I_strName begins the name of each object.
    CTrips(CReport &X_sReport, const base::CONNECTION &I_sConnection, const std::string &I_strName,
           std::chrono::milliseconds I_sSilence);

    // One session, with the library's trace as events of the name "trace". Reports nothing.
    OUTCOME Alone();

    // What came of it; when all is well, two sessions at once as well.
    void Report(const OUTCOME &I_sAlone);

    void NotTried(const std::string &I_strWhy);

    // What may be on the server now: names in plain mode, copy ids of Informix sessions.
    std::vector<std::string> vecLeft;

    std::string AloneName() const
    {
        return strName + "-1";
    }

  private:
    bool ReportCompared(const std::string &I_strDifference);
    void Pair();
    FINDING JudgePair(const std::vector<OUTCOME> &I_vecOutcomes);
    OUTCOME Collect(CChild &X_sChild, const std::string &I_strName);

    CReport &sReport;
    base::CONNECTION sConnection;
    std::string strName;
    std::chrono::milliseconds sSilence;
    long lAlone = 0; // milliseconds of one session there and back
};
} // namespace check

#endif
