// Reads the next bytes of the open object.
#include <cerrno>

#include "api/api.h"
#include "data/data.h"
#include "trace/trace.h"

__attribute__((noinline, cold)) static void TraceStart(const BSA_DataBlock *spBlock)
{
    TRACE_CALL("BSAGetData: Start");
    TRACE("BSAGetData: bufferLen=%u, numBytes=%u", spBlock->bufferLen, spBlock->numBytes);
}

__attribute__((noinline, cold)) static void TraceEnd(const DATA_PROGRESS *spRead)
{
    TRACE("BSAGetData: Data read: %u, total: %lld", spRead->uMoved, xbsa_BytesMoved());
    TRACE_CALL("BSAGetData: recv() return: %d, read: %u, total: %lld",
               static_cast<int>(spRead->iLast), spRead->uMoved, xbsa_BytesMoved());
    TRACE_CALL("BSAGetData: End");
}

__attribute__((noinline, cold)) static int FailRead(int iRet, unsigned int uRead)
{
    bool bBroken = iRet == BSA_RC_ABORT_SYSTEM_ERROR && sPrivate.bStrict;
    if (bBroken) xbsa_NoteHealth(OBJECT_BROKEN);
    xbsa_NoteDataStatus(iRet, uRead);
    return iRet;
}

__attribute__((noinline, cold)) static void KeepError(int iError)
{
    data_NoteLoss(iError);
    i_KeepMessage(static_cast<unsigned long>(iError), "Data receiving failed.");
}

// Fills the block until it is full or the server has closed.
int BSAGetData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr, RETR_MODE);
    if (iRet != BSA_RC_SUCCESS) return FailRead(iRet, 0);

    if (i_Verbosity() >= TRACE_STEPS) TraceStart(dataBlockPtr);
    DATA_PROGRESS sRead = data_Receive(dataBlockPtr);
    if (sRead.iLast == -1) KeepError(errno);
    sGlobal.sSession.dBytes += sRead.uMoved;
    dataBlockPtr->numBytes = static_cast<BSA_UInt16>(sRead.uMoved);
    if (i_Verbosity() >= TRACE_STEPS) TraceEnd(&sRead);
    return sRead.iLast == -1 ? FailRead(BSA_RC_ABORT_SYSTEM_ERROR, sRead.uMoved) : BSA_RC_SUCCESS;
}
