// Opens, writes and closes the journal; begins and ends an object's entry.
#include "journal/journal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "trace/trace.h"

static const char szVariable[] = "KORVA_JOURNAL";

static void TraceFailure(const JOURNAL *spJournal, const char *cpWhat)
{
    int iError = errno;
    TRACE("%s = %s: %s: %s", szVariable, spJournal->szPath, cpWhat, strerror(iError));
}

static void Open(JOURNAL *spJournal)
{
    x_OpenAppended(&spJournal->sFile, spJournal->szPath, true);
    if (spJournal->sFile.hFile == -1) TraceFailure(spJournal, "cannot be opened");
}

static JOURNAL *NewJournal()
{
    void *vpMemory = nullptr;
    if (posix_memalign(&vpMemory, alignof(JOURNAL), sizeof(JOURNAL)) != 0) return nullptr;
    memset(vpMemory, 0, sizeof(JOURNAL));
    return static_cast<JOURNAL *>(vpMemory);
}

static void Release()
{
    x_CloseAppended(&sPrivate.spJournal->sFile);
    x_Free(sPrivate.spJournal);
    sPrivate.spJournal = nullptr;
}

// An object that nobody ended still gets its line, but not from a child of the host.
static void Abandon(const char *cpReason)
{
    if (sPrivate.spJournal == nullptr) return;
    if (getpid() == sPrivate.iProcess) journal_End(false, cpReason);
    Release();
}

void journal_Start()
{
    Abandon("The object was never closed with BSAEndData.");
    const char *cpPath = xbsa_getenv(szVariable);
    if (cpPath == nullptr || *cpPath == '\0') return;

    JOURNAL *spJournal = NewJournal();
    if (spJournal == nullptr ||
        x_CopyText(spJournal->szPath, sizeof spJournal->szPath, cpPath) == 1)
    {
        TRACE("BSAInit: %s: not enough memory, or the path is too long. No journal is written.",
              szVariable);
        x_Free(spJournal);
        return;
    }
    TRACE("BSAInit: %s = %s.", szVariable, spJournal->szPath);
    Open(spJournal);
    sPrivate.spJournal = spJournal;
}

void journal_Begin(ENUM_DIRECTION eDirection)
{
    JOURNAL *spJournal = sPrivate.spJournal;
    if (spJournal == nullptr) return;
    journal_End(false, "The object was never closed with BSAEndData.");
    spJournal->eDirection = eDirection;
    spJournal->bObject = true;
    clock_gettime(CLOCK_MONOTONIC, &spJournal->sBegun);
    spJournal->ullBytes = 0;
    spJournal->ullBlocks = 0;
    spJournal->szError[0] = '\0';
    journal_ResetChecksum(spJournal);
}

void journal_Add(const BSA_DataBlock *spBlock, unsigned int uMoved)
{
    JOURNAL *spJournal = sPrivate.spJournal;
    if (spJournal == nullptr || !spJournal->bObject || uMoved == 0) return;
    spJournal->ullBytes += uMoved;
    spJournal->ullBlocks++;
    journal_AddToChecksum(spJournal, spBlock->bufferPtr, uMoved);
}

// Reopens a file that the host has closed or that could not be opened before.
void journal_End(bool bWhole, const char *cpReason)
{
    JOURNAL *spJournal = sPrivate.spJournal;
    if (spJournal == nullptr || !spJournal->bObject) return;
    spJournal->bObject = false;
    if (spJournal->szError[0] == '\0')
    {
        x_CopyText(spJournal->szError, sizeof spJournal->szError, cpReason);
    }
    ssize_t iLength = static_cast<ssize_t>(journal_Compose(spJournal, bWhole));
    if (!x_IsOpen(&spJournal->sFile)) Open(spJournal);
    if (spJournal->sFile.hFile == -1) return;
    errno = ENOSPC; // a partial write means a full disk
    if (x_Append(&spJournal->sFile, spJournal->szLine, static_cast<size_t>(iLength)) != iLength)
    {
        TraceFailure(spJournal, "a line was lost");
    }
}

__attribute__((destructor)) void journal_Release()
{
    Abandon("The process ended before BSAEndData.");
}
