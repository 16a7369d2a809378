#include "check/parts.h"

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
constexpr const char *DONE = "done";

constexpr size_t MOST_EVENTS = 100000; // a faulty library must not fill the memory
constexpr int PATIENCE = 20;           // silences in total: a slow drip of events must end, too

// A separate process group, so that the utility which the library runs ends with it. It does not
// outlive the tool, and signals end it as they end any other program.
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
    const SAY fpSay = [I_iPipe](const char *cpName, std::string strValue) {
        std::replace(strValue.begin(), strValue.end(), '\n', ' ');
        dprintf(I_iPipe, "%s %s\n", cpName, strValue.c_str());
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
} // namespace

const EVENT *OUTCOME::Find(const char *cpName) const
{
    const auto sFound =
        std::ranges::find(vecEvents.rbegin(), vecEvents.rend(), cpName, &EVENT::strName);
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
    if (pipe2(aiPipe.data(), O_CLOEXEC) == -1) throw base::SystemFailure("creating a pipe");
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
    if (iProcess == -1) throw base::SystemFailure("starting a child process");
}

CChild::~CChild()
{
    End();
}

// Returns how it ended, if it has ended by itself.
std::string CChild::End()
{
    int iStatus = 0;
    if (iProcess <= 0) return "";
    kill(-iProcess, SIGKILL);
    kill(iProcess, SIGKILL);
    waitpid(iProcess, &iStatus, 0);
    iProcess = -1;
    if (WIFSIGNALED(iStatus)) return "ended by signal " + std::to_string(WTERMSIG(iStatus));
    return "ended without a result, exit code " + std::to_string(WEXITSTATUS(iStatus));
}

// Returns false at the end of the pipe, and when nothing comes.
bool CChild::ReadMore(CLOCK::time_point I_sEnd, std::chrono::milliseconds I_sSilence)
{
    const long lLeft = std::min((I_sEnd - CLOCK::now()) / 1ms, I_sSilence / 1ms);
    pollfd sPoll{sPipe.Get(), POLLIN, 0};
    if (lLeft <= 0 || poll(&sPoll, 1, static_cast<int>(lLeft)) == 0)
    {
        sOutcome.strFailure = Text("no answer within ", I_sSilence.count() / 1000, " s");
        return false;
    }
    std::array<char, 4096> acPiece{};
    const ssize_t iGot = read(sPipe.Get(), acPiece.data(), acPiece.size());
    if (iGot <= 0) return false;
    strInput.append(acPiece.data(), static_cast<size_t>(iGot));
    const size_t uWhole = strInput.rfind('\n') + 1; // bytes of lines
    for (const std::string &strLine : base::Lines(strInput.substr(0, uWhole)))
    {
        const size_t uName = strLine.find(' ');
        sOutcome.vecEvents.push_back(
            {strLine.substr(0, uName), strLine.substr(uName + 1), (CLOCK::now() - sStart) / 1ms});
    }
    strInput.erase(0, uWhole);
    return sOutcome.vecEvents.size() < MOST_EVENTS;
}

const OUTCOME &CChild::Wait(std::chrono::milliseconds I_sSilence, const char *cpUntil)
{
    const CLOCK::time_point sEnd = CLOCK::now() + I_sSilence * PATIENCE;
    while (sOutcome.Find(cpUntil) == nullptr && ReadMore(sEnd, I_sSilence))
    {
    }
    const bool bSaid = sOutcome.Find(DONE) != nullptr || sOutcome.Find(cpUntil) != nullptr;
    std::string &strFailure = sOutcome.strFailure;
    if (strFailure.empty()) strFailure = sOutcome.Value(FAILED);
    if (strFailure.empty() && !bSaid) strFailure = End();
    return sOutcome;
}

OUTCOME RunChild(std::chrono::milliseconds I_sSilence, const WORK &I_fpWork)
{
    return CChild(I_fpWork).Wait(I_sSilence);
}
} // namespace check
