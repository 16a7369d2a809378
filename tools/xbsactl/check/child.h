// Work that may hang or crash, in a process of its own that is ended when its time is over.
#ifndef XBSACTL_CHECK_CHILD_H
#define XBSACTL_CHECK_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

using RESULT = std::map<std::string, std::string>; // by names without a line end

class CChild
{
  public:
    // Starts the work; what it returns comes back from Wait.
    explicit CChild(const std::function<RESULT()> &I_fpWork);
    CChild(const CChild &) = delete;
    CChild &operator=(const CChild &) = delete;
    ~CChild(); // ends the process and what it has started

    // Throws FAILURE when the work threw one, crashed, or did not end in time.
    RESULT Wait(std::chrono::milliseconds I_sTime);

  private:
    std::string ReadAll(std::chrono::milliseconds I_sTime) const;
    void End();

    pid_t iProcess = -1;
    int iPipe = -1;
};

#endif
