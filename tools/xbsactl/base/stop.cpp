#include "base/base.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

namespace base
{
namespace
{
constexpr int SIGNAL_CODE = 128; // and the signal's number is a shell's exit code

// Static storage: it must outlive every destructor, as the thread does.
std::recursive_mutex sMutex;
using CLOCK = std::chrono::steady_clock;
constexpr CLOCK::time_point NONE;
std::atomic<CLOCK::time_point> sEnd = NONE; // of the time limit
struct LIMIT
{
    std::chrono::seconds sTime;
    int (*fpConnection)();
    char szMessage[256];
    bool bOver;
} sLimit;

sigset_t SignalSet()
{
    sigset_t sSet;
    sigemptyset(&sSet);
    for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
    {
        struct sigaction sAction = {};
        sigaction(iSignal, nullptr, &sAction);
        if (sAction.sa_handler != SIG_IGN) sigaddset(&sSet, iSignal); // nohup, background jobs
    }
    sigaddset(&sSet, SIGUSR1);
    return sSet;
}

// The kernel resets an unfinished store when the process ends, so no server treats it as whole.
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

// The lock is never released: nothing is created or renamed any more.
void Prepare(const STOP_HOOKS &I_sHooks, int I_iExit)
{
    for (const auto &[iFolder, strName] : DoomedFiles()) unlinkat(iFolder, strName.c_str(), 0);
    I_sHooks.fpEnd(I_iExit);
}

void EndWhenLate(const STOP_HOOKS &I_sHooks)
{
    if (sEnd.load() == NONE) return; // without the lock, which would stay locked in a forked child
    const STOP_LOCK sLock = HoldStop();
    if (sEnd.load() == NONE) return;
    const int hConnection = sLimit.fpConnection();
    if (hConnection == -1 && sLimit.szMessage[0] == '\0') sEnd = CLOCK::now() + sLimit.sTime;
    if (CLOCK::now() < sEnd.load()) return;
    sEnd = NONE;
    sLimit.bOver = hConnection != -1 && shutdown(hConnection, SHUT_RDWR) == 0;
    if (sLimit.bOver) return;
    Prepare(I_sHooks, EXIT_SERVER);
    dprintf(STDERR_FILENO, "xbsactl: %s\n", sLimit.szMessage);
    _exit(EXIT_SERVER);
}

void Wait(const sigset_t &I_sSet, const STOP_HOOKS &I_sHooks)
{
    const struct timespec sSecond = {1, 0};
    int iSignal = SIGUSR1;
    while (iSignal == SIGUSR1 || iSignal <= 0)
    {
        EndWhenLate(I_sHooks);
        iSignal = sigtimedwait(&I_sSet, nullptr, &sSecond);
        if (iSignal == SIGUSR1) I_sHooks.fpAsked();
        if (iSignal == SIGUSR1 || (iSignal <= 0 && errno == EAGAIN)) I_sHooks.fpTick();
    }
    const STOP_LOCK sLock = HoldStop();
    Prepare(I_sHooks, SIGNAL_CODE + iSignal);
    EndBySignal(iSignal);
}
} // namespace

CTimeLimit::CTimeLimit(unsigned I_uSeconds, int (*I_fpConnection)(),
                       const std::string &I_strMessage)
{
    const STOP_LOCK sLock = HoldStop();
    sLimit = LIMIT{std::chrono::seconds(I_uSeconds), I_fpConnection, "", false};
    I_strMessage.copy(sLimit.szMessage, sizeof sLimit.szMessage - 1);
    sEnd = I_uSeconds == 0 ? NONE : CLOCK::now() + sLimit.sTime;
}

CTimeLimit::~CTimeLimit()
{
    const STOP_LOCK sLock = HoldStop();
    sEnd = NONE;
}

bool CTimeLimit::IsOver()
{
    const STOP_LOCK sLock = HoldStop();
    return sLimit.bOver;
}

pid_t Fork()
{
    fflush(nullptr);
    const pid_t iParent = getpid();
    const pid_t iProcess = fork();
    if (iProcess == -1) throw SystemFailure("a child process");
    if (iProcess > 0) return iProcess;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != iParent) _exit(EXIT_FAILED);
    new (&sMutex) std::recursive_mutex; // the thread that may have held it is the parent's
    sEnd = NONE;
    DoomedFiles().clear(); // the parent's, too
    WatchSignals({[] {}, [] {}, [](int) {}});
    return 0;
}

STOP_LOCK HoldStop()
{
    return STOP_LOCK(sMutex);
}

std::set<std::pair<int, std::string>> &DoomedFiles()
{
    static auto *spFiles = new std::set<std::pair<int, std::string>>; // never freed, as above
    return *spFiles;
}

void WatchSignals(const STOP_HOOKS &I_sHooks)
{
    const sigset_t sSet = SignalSet();
    pthread_sigmask(SIG_BLOCK, &sSet, nullptr);
    signal(SIGPIPE, SIG_IGN); // a closed pipe or a file size limit is a failed write, with a text
    signal(SIGXFSZ, SIG_IGN);
    std::thread(Wait, sSet, I_sHooks).detach();
}
} // namespace base
