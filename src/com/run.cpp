// Runs the utility with all signals blocked and reads what it prints.
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "com/com.h"
#include "record/record.h"
#include "trace/trace.h"

// Each pass saves the mask again, so that two passes restore the full mask: hosts rely on it.
// Strict mode keeps the first mask.
static void BlockSignals(COM_RUN *spRun)
{
    sigset_t sNewSet;
    sigset_t sSaved;
    sigfillset(&sNewSet);
    sigprocmask(SIG_SETMASK, &sNewSet, &sSaved);
    if (!spRun->bMasked || !sPrivate.bStrict) spRun->sOldSet = sSaved;
    spRun->bMasked = true;
    TRACE("com_intf: sigprocmask() done.");
}

// Opens the pipe at 3 or above. If 0, 1 or 2 are closed in the host, popen would use them, so they
// are filled meanwhile. The utility inherits them, which is better than having none.
static FILE *OpenPipe(const char *cpCommand)
{
    int haFiller[STDERR_FILENO + 1];
    int iFillers = 0;
    int hFiller = open("/dev/null", O_RDWR);
    while (hFiller != -1 && hFiller <= STDERR_FILENO)
    {
        haFiller[iFillers++] = hFiller;
        hFiller = open("/dev/null", O_RDWR);
    }
    if (hFiller != -1) close(hFiller);
    FILE *spPipe = popen(cpCommand, "re");
    while (iFillers > 0) close(haFiller[--iFillers]);
    return spPipe;
}

// Reads at most XBSA_COM_ANSWER bytes and leaves the rest in the pipe.
static void ReadAnswer(COM_RUN *spRun, FILE *spPipe)
{
    size_t uRead = 0;
    spRun->uiAnswerLen = 0;
    do
    {
        uRead = fread(spRun->bypBuff + spRun->uiAnswerLen, 1, XBSA_COM_ANSWER - spRun->uiAnswerLen,
                      spPipe);
        if (uRead > 0)
            TRACE("com_intf: Answer received, bytes read: [%d].", static_cast<int>(uRead));
        spRun->uiAnswerLen += static_cast<unsigned int>(uRead);
    } while (uRead > 0);
}

bool com_RunUtility(COM_RUN *spRun)
{
    TRACE("com_intf: COM COMMAND: [%s]", spRun->sLine.szText);
    BlockSignals(spRun);
    memcpy(spRun->sLine.szText + spRun->sLine.uLength, COM_REDIRECTION, sizeof COM_REDIRECTION);
    FILE *spPipe = OpenPipe(spRun->sLine.szText);
    TRACE("com_intf: Pipe handle hCOM_STDOUT = [%p].", static_cast<void *>(spPipe));
    if (spPipe == nullptr)
    {
        TRACE("com_intf: COM Interface command could not be executed.");
        return false;
    }
    spRun->spaPipe[spRun->iPipes++] = spPipe;
    ReadAnswer(spRun, spPipe);
    return true;
}

// Last pass first: each close waits for its child, so that no zombie remains.
void com_FinishRun(COM_RUN *spRun)
{
    while (spRun->iPipes > 0) pclose(spRun->spaPipe[--spRun->iPipes]);
    if (!spRun->bMasked) return;
    sigprocmask(SIG_SETMASK, &spRun->sOldSet, nullptr);
    TRACE("com_intf: sigprocmask(), back to old handlers.");
}
