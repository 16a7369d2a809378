// Reads the next bytes of the open object.
#include <cerrno>

#include "api/api.h"
#include "data/data.h"
#include "journal/journal.h"
#include "trace/trace.h"

__attribute__((noinline, cold)) static void KeepError(int iError)
{
    data_NoteLoss(iError);
    i_KeepMessage(static_cast<unsigned long>(iError), "Data receiving failed.");
}

// Receives until the block is full or the server has closed.
__attribute__((always_inline)) static inline DATA_PROGRESS Receive(BSA_DataBlock *spBlock)
{
    DATA_PROGRESS sRead = data_Receive(spBlock);
    if (sRead.iLast == -1) KeepError(errno);
    sGlobal.sSession.dBytes += sRead.uMoved;
    spBlock->numBytes = static_cast<BSA_UInt16>(sRead.uMoved);
    return sRead;
}

// A failed receive affects the result of BSAEndData in strict mode only.
__attribute__((noinline, cold)) static int FailRead(int iRet, unsigned int uRead)
{
    if (iRet == BSA_RC_ABORT_SYSTEM_ERROR)
    {
        xbsa_NoteHealth(sPrivate.bStrict ? OBJECT_BROKEN : OBJECT_REJECTED);
    }
    xbsa_NoteDataStatus(iRet, uRead);
    return iRet;
}

static int Result(DATA_PROGRESS sRead)
{
    return sRead.iLast == -1 ? FailRead(BSA_RC_ABORT_SYSTEM_ERROR, sRead.uMoved) : BSA_RC_SUCCESS;
}

// A block that is traced or recorded in the journal.
__attribute__((noinline, cold)) static int ReceiveWatched(BSA_DataBlock *spBlock)
{
    TRACE_CALL("BSAGetData: Start");
    TRACE("BSAGetData: bufferLen=%u, numBytes=%u", spBlock->bufferLen, spBlock->numBytes);
    DATA_PROGRESS sRead = Receive(spBlock);
    journal_Add(spBlock, sRead.uMoved);
    TRACE("BSAGetData: Data read: %u, total: %lld", sRead.uMoved, xbsa_BytesMoved());
    TRACE_CALL("BSAGetData: recv() return: %d, read: %u, total: %lld",
               static_cast<int>(sRead.iLast), sRead.uMoved, xbsa_BytesMoved());
    TRACE_CALL("BSAGetData: End");
    return Result(sRead);
}

int BSAGetData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr, RETR_MODE);
    if (iRet != BSA_RC_SUCCESS) return FailRead(iRet, 0);
    if (i_Verbosity() >= TRACE_STEPS || journal_IsOn()) return ReceiveWatched(dataBlockPtr);
    return Result(Receive(dataBlockPtr));
}
