// The findings of a check: told line by line as they come, or as one JSON text at the end.
#ifndef XBSACTL_CHECK_REPORT_H
#define XBSACTL_CHECK_REPORT_H

#include <chrono>
#include <string>
#include <vector>

#include "base/base.h"

enum class STATUS
{
    OK,
    WARN,
    FAIL,
    NOT_TRIED
};

struct FINDING
{
    STATUS eStatus = STATUS::OK;
    std::string strStep;     // "network.login"
    std::string strFound;    // what there is
    std::string strNext;     // what to do about it; empty when all is well
    long lMilliseconds = -1; // that the step took; -1: since the last finding
};

class CReport
{
  public:
    CReport(const base::CONNECTION &I_sConnection, bool I_bJson);

    void Add(FINDING I_sFinding);
    void Ok(const std::string &I_strStep, const std::string &I_strFound);
    void Warn(const std::string &I_strStep, const std::string &I_strFound,
              const std::string &I_strNext);
    void Fail(const std::string &I_strStep, const std::string &I_strFound,
              const std::string &I_strNext);
    void NotTried(const std::string &I_strStep, const std::string &I_strWhy);

    // A text that others wrote, safe to show: one line, without the password.
    std::string Foreign(const std::string &I_strText) const;

    // Prints what is left to print. Returns the exit code.
    int Finish() const;

  private:
    using CLOCK = std::chrono::steady_clock;

    int Count(STATUS I_eStatus) const;

    std::vector<FINDING> vecFindings;
    std::string strPassword;
    bool bJson;
    bool bInformix;
    CLOCK::time_point sLast = CLOCK::now();
};

#endif
