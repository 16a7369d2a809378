#include "stop.h"

#include <pthread.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <thread>

#include "errors.h"

namespace
{
// Plain storage: it outlives every destructor, as the thread does.
std::mutex sMutex;
char szDoomed[PATH_MAX + 1];

sigset_t SignalSet()
{
    sigset_t sSet;
    sigemptyset(&sSet);
    for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
    {
        struct sigaction sAction
        {
        };
        sigaction(iSignal, nullptr, &sAction);
        if (sAction.sa_handler != SIG_IGN) sigaddset(&sSet, iSignal); // nohup, background jobs
    }
    return sSet;
}

// A store in the middle is reset by the kernel when the process ends: no server takes it as whole.
[[noreturn]] void EndBySignal(int I_iSignal)
{
    sigset_t sSet;
    sigemptyset(&sSet);
    sigaddset(&sSet, I_iSignal);
    signal(I_iSignal, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &sSet, nullptr);
    raise(I_iSignal);
    _exit(EXIT_FAILED);
}

void Wait(sigset_t I_sSet)
{
    int iSignal = 0;
    while (sigwait(&I_sSet, &iSignal) != 0)
    {
    }
    sMutex.lock(); // for good: nothing is created or renamed any more
    if (szDoomed[0] != '\0') unlink(szDoomed);
    EndBySignal(iSignal);
}
} // namespace

STOP_LOCK::STOP_LOCK() : sGuard(sMutex)
{
}

void stop_Watch()
{
    const sigset_t sSet = SignalSet();
    pthread_sigmask(SIG_BLOCK, &sSet, nullptr);
    signal(SIGPIPE, SIG_IGN); // a closed pipe or a file size limit is a failed write, with a text
    signal(SIGXFSZ, SIG_IGN);
    std::thread(Wait, sSet).detach();
}

void stop_RemoveFile(const STOP_LOCK & /*I_sLock*/, const std::string &I_strFile)
{
    if (I_strFile.size() > PATH_MAX) throw FAILURE("the path of the temporary file is too long");
    szDoomed[I_strFile.copy(szDoomed, PATH_MAX)] = '\0';
}
