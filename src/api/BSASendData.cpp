// Sends one buffer of the open object.
#include "api/api.h"
#include "data/data.h"
#include "journal/journal.h"
#include "trace/trace.h"

__attribute__((noinline, cold)) static int FailSend(int iRet, unsigned int uSent)
{
    xbsa_NoteHealth(iRet == BSA_RC_ABORT_SYSTEM_ERROR ? OBJECT_BROKEN : OBJECT_REJECTED);
    xbsa_NoteDataStatus(iRet, uSent);
    return iRet;
}

// Usually one send takes a whole block. An empty block needs none.
static ssize_t SendFirst(const BSA_DataBlock *spBlock)
{
    return spBlock->bufferLen != 0 ? data_Send(spBlock, 0) : 1;
}

// Finishes a block that needs more than one send, or that is traced or recorded.
__attribute__((noinline, cold)) static int FinishSend(const BSA_DataBlock *spBlock, ssize_t iFirst)
{
    DATA_PROGRESS sSent = data_SendOn(spBlock, iFirst);
    sGlobal.sSession.dBytes += sSent.uMoved;
    journal_Add(spBlock, sSent.uMoved);
    TRACE("BSASendData: Data written: %u, total: %lld", sSent.uMoved, xbsa_BytesMoved());
    TRACE_CALL("BSASendData: send() return: %d, written: %u, total: %lld",
               static_cast<int>(sSent.iLast), sSent.uMoved, xbsa_BytesMoved());
    return sSent.iLast == -1 ? FailSend(BSA_RC_ABORT_SYSTEM_ERROR, sSent.uMoved) : BSA_RC_SUCCESS;
}

// A block that is traced or recorded in the journal.
__attribute__((noinline, cold)) static int SendWatched(const BSA_DataBlock *spBlock)
{
    TRACE_CALL("BSASendData: bufferLen=%u, numBytes=%u", spBlock->bufferLen, spBlock->numBytes);
    return FinishSend(spBlock, SendFirst(spBlock));
}

// Sends bufferLen bytes and ignores numBytes.
int BSASendData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr, STOR_MODE);
    if (iRet != BSA_RC_SUCCESS) return FailSend(iRet, 0);

    if (i_Verbosity() >= TRACE_STEPS || journal_IsOn()) return SendWatched(dataBlockPtr);
    const int iLength = dataBlockPtr->bufferLen;
    ssize_t iSend = SendFirst(dataBlockPtr);
    if (iSend != iLength) return FinishSend(dataBlockPtr, iSend);

    sGlobal.sSession.dBytes += iLength;
    return BSA_RC_SUCCESS;
}
