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
#include <optional>
#include <sstream>

#include "base/base.h"

namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr const char *FAILED = "failure"; // the work's own error

constexpr size_t LONGEST = 1 << 20; // bytes of a result: a mad library must not fill the memory

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

// Name, size and value of each; an empty name ends the text.
std::string Packed(const RESULT &I_sAnswer)
{
    std::string strText;
    for (const auto &[strName, strValue] : I_sAnswer)
        (strText += strName + '\n').append(std::to_string(strValue.size()) + '\n').append(strValue);
    return strText + '\n';
}

std::optional<RESULT> Unpacked(const std::string &I_strText)
{
    RESULT sAnswer;
    std::istringstream sText(I_strText);
    std::string strName;
    while (std::getline(sText, strName) && !strName.empty())
    {
        size_t uSize = 0;
        sText >> uSize;
        std::string strValue(std::min(uSize, LONGEST), ' ');
        sText.ignore().read(strValue.data(), static_cast<std::streamsize>(strValue.size()));
        sAnswer[strName] = strValue;
    }
    if (!sText) return {};
    return sAnswer;
}

std::string ResultOf(const std::function<RESULT()> &I_fpWork)
{
    try
    {
        return Packed(I_fpWork());
    } catch (const std::exception &sError)
    {
        return Packed({{FAILED, sError.what()}});
    }
}

void WriteAll(int I_iFile, const std::string &I_strText)
{
    size_t uDone = 0;
    while (uDone < I_strText.size())
    {
        const ssize_t iSent = write(I_iFile, I_strText.data() + uDone, I_strText.size() - uDone);
        if (iSent <= 0) return;
        uDone += static_cast<size_t>(iSent);
    }
}

base::FAILURE DeathOf(int I_iStatus)
{
    if (WIFSIGNALED(I_iStatus))
        return base::FAILURE("ended by signal " + std::to_string(WTERMSIG(I_iStatus)));
    return base::FAILURE("ended without a result, exit code " +
                         std::to_string(WEXITSTATUS(I_iStatus)));
}
} // namespace

CChild::CChild(const std::function<RESULT()> &I_fpWork)
{
    std::array<int, 2> aiPipe{};
    if (pipe2(aiPipe.data(), O_CLOEXEC) == -1) throw base::SystemFailure("a pipe");
    const pid_t iParent = getpid();
    fflush(nullptr);
    iProcess = fork();
    if (iProcess == 0)
    {
        BecomeChild(iParent);
        WriteAll(aiPipe[1], ResultOf(I_fpWork));
        _exit(base::EXIT_DONE);
    }
    close(aiPipe[1]);
    iPipe = aiPipe[0];
    if (iProcess == -1) throw base::SystemFailure("a child process");
}

CChild::~CChild()
{
    End();
    close(iPipe);
}

void CChild::End()
{
    if (iProcess <= 0) return;
    kill(-iProcess, SIGKILL);
    kill(iProcess, SIGKILL);
    waitpid(iProcess, nullptr, 0);
    iProcess = -1;
}

std::string CChild::ReadAll(std::chrono::milliseconds I_sTime) const
{
    std::string strText;
    std::array<char, 4096> acPiece{};
    const CLOCK::time_point sEnd = CLOCK::now() + I_sTime;
    while (strText.size() < LONGEST)
    {
        const auto sLeft =
            std::chrono::duration_cast<std::chrono::milliseconds>(sEnd - CLOCK::now());
        pollfd sPoll{iPipe, POLLIN, 0};
        if (sLeft.count() <= 0 || poll(&sPoll, 1, static_cast<int>(sLeft.count())) == 0)
            throw base::FAILURE("no end within " + std::to_string(I_sTime.count() / 1000) + " s");
        const ssize_t iGot = read(iPipe, acPiece.data(), acPiece.size());
        if (iGot <= 0) break;
        strText.append(acPiece.data(), static_cast<size_t>(iGot));
    }
    return strText;
}

RESULT CChild::Wait(std::chrono::milliseconds I_sTime)
{
    const std::string strText = ReadAll(I_sTime);
    if (strText.empty())
    {
        int iStatus = 0;
        waitpid(iProcess, &iStatus, 0); // its end of the pipe is closed: it has ended
        iProcess = -1;
        throw DeathOf(iStatus);
    }
    const std::optional<RESULT> sAnswer = Unpacked(strText);
    if (!sAnswer) throw base::FAILURE("ended in the middle of its result");
    if (sAnswer->count(FAILED) != 0) throw base::FAILURE(sAnswer->at(FAILED));
    return *sAnswer;
}
