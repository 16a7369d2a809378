#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
constexpr size_t LONGEST_ERROR = 500; // bytes: concurrent writers must not mix their verdicts

// The place of the next object, for all processes.
class CNext
{
  public:
    CNext()
        : vpShared(mmap(nullptr, sizeof(std::atomic<size_t>), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (vpShared == MAP_FAILED) throw base::SystemFailure("allocating shared memory");
        spNext = new (vpShared) std::atomic<size_t>(0);
    }
    CNext(const CNext &) = delete;
    CNext &operator=(const CNext &) = delete;
    ~CNext()
    {
        munmap(vpShared, sizeof(std::atomic<size_t>));
    }

    size_t Take()
    {
        return (*spNext)++;
    }

  private:
    void *vpShared;
    std::atomic<size_t> *spNext;
};

// One session with a transaction for each object: the library starts anew with each, also after
// a failed one.
void Work(const base::CONNECTION &I_sConnection, CNext &X_sNext, size_t I_uObjects,
          const WORK &I_fpWork, const TAKE &I_fpTake)
{
    library::CSession sSession(I_sConnection);
    bool bFirst = true;
    for (size_t uObject = X_sNext.Take(); uObject < I_uObjects; uObject = X_sNext.Take())
    {
        if (!std::exchange(bFirst, false)) sSession.Next();
        I_fpTake(uObject, I_fpWork(sSession, uObject));
    }
    sSession.Close();
}

// Verdicts are lines in the pipe; so is the reason why the process ends early.
[[noreturn]] void RunChild(const std::function<void(const TAKE &I_fpSay)> &I_fpRun, int I_iPipe)
{
    const TAKE fpSay = [I_iPipe](size_t uObject, base::JSON sVerdict) {
        if (sVerdict.contains("error"))
            sVerdict["error"] = sVerdict["error"].get<std::string>().substr(0, LONGEST_ERROR);
        sVerdict["object"] = uObject;
        sVerdict["moved"] = TakeMoved();
        dprintf(I_iPipe, "%s\n",
                sVerdict.dump(-1, ' ', false, base::JSON::error_handler_t::replace).c_str());
    };
    LeaveStatus();
    try
    {
        I_fpRun(fpSay);
    } catch (const std::exception &sError)
    {
        fpSay(SIZE_MAX, {{"ok", false}, {"error", base::Printable(sError.what())}});
    }
    _exit(base::EXIT_DONE);
}

// Returns why a process ended early.
std::string TakeVerdicts(base::CDescriptor I_sPipe, std::vector<bool> &X_vecTaken,
                         const TAKE &I_fpTake)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> spLines(fdopen(I_sPipe.Release(), "r"), fclose);
    std::string strFailure = "its process ended";
    std::array<char, PIPE_BUF + 1> szLine{};
    while (spLines != nullptr && fgets(szLine.data(), szLine.size(), spLines.get()) != nullptr)
    {
        base::JSON sVerdict = base::JSON::parse(szLine.data());
        const size_t uObject = sVerdict["object"];
        AddStatus(sVerdict["moved"]);
        sVerdict.erase("object");
        sVerdict.erase("moved");
        if (uObject < X_vecTaken.size())
        {
            X_vecTaken[uObject] = true;
            I_fpTake(uObject, sVerdict);
        }
        else strFailure = sVerdict["error"];
    }
    return strFailure;
}
} // namespace

void RunJobs(const base::CONNECTION &I_sConnection, unsigned I_uJobs, size_t I_uObjects,
             const WORK &I_fpWork, const TAKE &I_fpTake)
{
    CNext sNext;
    if (I_uJobs == 1) return Work(I_sConnection, sNext, I_uObjects, I_fpWork, I_fpTake);
    library::Load(I_sConnection.strLibrary); // one that cannot be loaded fails here
    std::array<int, 2> aiPipe{};
    if (pipe2(aiPipe.data(), O_CLOEXEC) == -1) throw base::SystemFailure("creating a pipe");
    base::CDescriptor sRead(aiPipe[0]);
    base::CDescriptor sWrite(aiPipe[1]);
    for (size_t uJob = 0; uJob < std::min<size_t>(I_uJobs, I_uObjects); uJob++)
        if (base::Fork() == 0)
            RunChild(
                [&](const TAKE &fpSay) { Work(I_sConnection, sNext, I_uObjects, I_fpWork, fpSay); },
                sWrite.Get());
    sWrite = base::CDescriptor();
    std::vector<bool> vecTaken(I_uObjects);
    const std::string strFailure = TakeVerdicts(std::move(sRead), vecTaken, I_fpTake);
    for (size_t uObject = 0; uObject < I_uObjects; uObject++)
        if (!vecTaken[uObject]) I_fpTake(uObject, {{"ok", false}, {"error", strFailure}});
    while (wait(nullptr) > 0)
    {
    }
}
} // namespace transfer
