// Ctrl-C and its kin. A thread of its own waits for them: the library blocks all signals in the
// calling thread while it waits for a reply, and a silent server must not make the tool immortal.
#ifndef XBSACTL_STOP_H
#define XBSACTL_STOP_H

#include <mutex>
#include <string>

namespace base
{
// What else the thread does.
struct STOP_HOOKS
{
    void (*fpAsked)();  // when SIGUSR1 came, which ends nothing
    void (*fpTick)();   // then too, and once a second
    void (*fpEnd)(int); // before the process ends by a signal; takes the shell's exit code
};

// Starts the thread. From here on SIGHUP, SIGINT, SIGQUIT and SIGTERM, unless the caller ignored
// them, remove the file below and end the process by the same signal.
void WatchSignals(const STOP_HOOKS &I_sHooks);

// From here on no signal ends the process: its exit code is decided.
void HoldSignals();

// While one lives the process is not ended.
class STOP_LOCK
{
  public:
    STOP_LOCK();

  private:
    std::lock_guard<std::mutex> sGuard;
};

// The file that must not survive, in a folder that is held open; an empty name for none.
void RemoveAtStop(const STOP_LOCK &I_sLock, int I_iFolder, const std::string &I_strName);
} // namespace base

#endif
