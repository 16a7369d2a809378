#include "check/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>

namespace check
{
namespace
{
constexpr const char *FAILED = "failed"; // with the work's own error
constexpr const char *DONE = "done";

constexpr size_t LONGEST = 4 << 20; // bytes of a result: a mad library must not fill the memory
constexpr int PATIENCE = 20;        // silences until the end: one that drips is not waited for

// A group of its own, so that the utility which the library runs goes with it. It does not outlive
// the tool, and the signals that the tool's own thread waits for end it as any other program.
void BecomeChild(pid_t I_iParent)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != I_iParent) _exit(base::EXIT_FAILED);
    sigset_t sNone;
    sigemptyset(&sNone);
    sigprocmask(SIG_SETMASK, &sNone, nullptr);
}

void Run(const WORK &I_fpWork, int I_iPipe)
{
    const SAY fpSay = [I_iPipe](const char *cpName, const std::string &I_strValue) {
        std::string strLine = std::string(cpName) + ' ' + I_strValue;
        std::replace(strLine.begin(), strLine.end(), '\n', ' ');
        dprintf(I_iPipe, "%s\n", strLine.c_str());
    };
    try
    {
        I_fpWork(fpSay);
        fpSay(DONE, "");
    } catch (const std::exception &sError)
    {
        fpSay(FAILED, sError.what());
    }
}

// Takes the whole lines out of the text.
void TakeEvents(std::string &X_strText, long I_lMilliseconds, std::vector<EVENT> &X_vecEvents)
{
    size_t uEnd = X_strText.find('\n');
    for (; uEnd != std::string::npos; uEnd = X_strText.find('\n'))
    {
        const size_t uName = X_strText.find(' ');
        X_vecEvents.push_back({X_strText.substr(0, uName),
                               X_strText.substr(uName + 1, uEnd - uName - 1), I_lMilliseconds});
        X_strText.erase(0, uEnd + 1);
    }
}

long Milliseconds(std::chrono::steady_clock::duration I_sTime)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(I_sTime).count());
}
} // namespace

const EVENT *OUTCOME::Find(const char *cpName) const
{
    const auto sFound = std::find_if(vecEvents.rbegin(), vecEvents.rend(),
                                     [cpName](const EVENT &I_s) { return I_s.strName == cpName; });
    return sFound != vecEvents.rend() ? &*sFound : nullptr;
}

std::string OUTCOME::Value(const char *cpName) const
{
    const EVENT *spEvent = Find(cpName);
    return spEvent != nullptr ? spEvent->strValue : "";
}

CChild::CChild(const WORK &I_fpWork)
{
    std::array<int, 2> aiPipe{};
    if (pipe2(aiPipe.data(), O_CLOEXEC) == -1) throw base::SystemFailure("a pipe");
    const pid_t iParent = getpid();
    fflush(nullptr);
    iProcess = fork();
    if (iProcess == 0)
    {
        BecomeChild(iParent);
        Run(I_fpWork, aiPipe[1]);
        _exit(base::EXIT_DONE);
    }
    close(aiPipe[1]);
    sPipe = base::CDescriptor(aiPipe[0]);
    if (iProcess == -1) throw base::SystemFailure("a child process");
}

CChild::~CChild()
{
    if (iProcess <= 0) return;
    kill(-iProcess, SIGKILL);
    kill(iProcess, SIGKILL);
    waitpid(iProcess, nullptr, 0);
}

// Why the process has gone without a word about its end. Its end of the pipe is closed.
std::string CChild::EndOf()
{
    int iStatus = 0;
    kill(-iProcess, SIGKILL); // what it had started
    waitpid(iProcess, &iStatus, 0);
    iProcess = -1;
    if (WIFSIGNALED(iStatus)) return "ended by signal " + std::to_string(WTERMSIG(iStatus));
    return "ended without a result, exit code " + std::to_string(WEXITSTATUS(iStatus));
}

// What came through the pipe; empty at its end. Throws FAILURE when nothing comes.
std::string CChild::AwaitMore(CLOCK::time_point I_sEnd, std::chrono::milliseconds I_sSilence)
{
    const long lLeft = std::min(Milliseconds(I_sEnd - CLOCK::now()), Milliseconds(I_sSilence));
    pollfd sPoll{sPipe.Get(), POLLIN, 0};
    if (lLeft <= 0 || poll(&sPoll, 1, static_cast<int>(lLeft)) == 0)
        throw base::FAILURE("no answer within " + std::to_string(I_sSilence.count() / 1000) + " s");
    std::array<char, 4096> acPiece{};
    const ssize_t iGot = read(sPipe.Get(), acPiece.data(), acPiece.size());
    return {acPiece.data(), static_cast<size_t>(std::max<ssize_t>(0, iGot))};
}

OUTCOME CChild::Wait(std::chrono::milliseconds I_sSilence)
{
    OUTCOME sOutcome;
    try
    {
        const CLOCK::time_point sEnd = CLOCK::now() + I_sSilence * PATIENCE;
        std::string strLeft;
        size_t uTaken = 0;
        for (std::string strMore = AwaitMore(sEnd, I_sSilence);
             !strMore.empty() && uTaken < LONGEST; strMore = AwaitMore(sEnd, I_sSilence))
        {
            uTaken += strMore.size();
            TakeEvents(strLeft += strMore, Milliseconds(CLOCK::now() - sStart), sOutcome.vecEvents);
        }
        sOutcome.strFailure = sOutcome.Value(FAILED);
        if (sOutcome.strFailure.empty() && sOutcome.Find(DONE) == nullptr)
            sOutcome.strFailure = EndOf();
    } catch (const base::FAILURE &sError)
    {
        sOutcome.strFailure = sError.what();
    }
    return sOutcome;
}
} // namespace check
