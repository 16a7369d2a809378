// Reads the next bytes of the open object.
#include <cerrno>
#include <sys/socket.h>

#include "api/object.h"
#include "record/record.h"
#include "trace/trace.h"

__attribute__((noinline, cold)) static void TraceStart(const BSA_DataBlock *spBlock)
{
    TRACE_CALL("BSAGetData: Start");
    TRACE("BSAGetData: bufferLen=%u, numBytes=%u", spBlock->bufferLen, spBlock->numBytes);
}

__attribute__((noinline, cold)) static void TraceRead(ssize_t iReceived, unsigned int uiRead)
{
    TRACE("BSAGetData: Data read: %u, total: %lld", uiRead, xbsa_Total());
    TRACE_CALL("BSAGetData: recv() return: %d, read: %u, total: %lld", static_cast<int>(iReceived),
               uiRead, xbsa_Total());
    TRACE_CALL("BSAGetData: End");
}

__attribute__((noinline, cold)) static void NoteFailure(int iError)
{
    xbsa_NoteLoss(iError);
    SysErrorTxt(static_cast<unsigned long>(iError), 3, "Data receiving failed.");
}

// Reads until the buffer is full or the server has closed.
//   uipRead  receives the bytes read
static int ReadBlock(BSA_DataBlock *spBlock, unsigned int *uipRead)
{
    ssize_t iReceived = 0;
    unsigned int uiRead = 0;
    if (i_Verbosity() >= TRACE_STEPS) TraceStart(spBlock);
    while (uiRead < spBlock->bufferLen)
    {
        errno = 0;
        iReceived =
            recv(xbsa_DataSocket(), spBlock->bufferPtr + uiRead, spBlock->bufferLen - uiRead, 0);
        if (iReceived < 1) break;
        uiRead += static_cast<unsigned int>(iReceived);
    }
    if (iReceived == -1) NoteFailure(errno);
    *uipRead = uiRead;
    sGlobal.sSession.dBytes += uiRead;
    spBlock->numBytes = static_cast<BSA_UInt16>(uiRead);
    if (i_Verbosity() >= TRACE_STEPS) TraceRead(iReceived, uiRead);
    return iReceived == -1 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}

__attribute__((noinline, cold)) static int Fail(int iRet, unsigned int uiRead)
{
    bool bBroken = iRet == BSA_RC_ABORT_SYSTEM_ERROR && sPrivate.bStrict;
    if (bBroken) xbsa_NoteHealth(OBJECT_BROKEN);
    xbsa_NoteDataStatus(iRet, uiRead);
    return iRet;
}

int BSAGetData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    unsigned int uiRead = 0;
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr, RETR_MODE);
    if (iRet == BSA_RC_SUCCESS) iRet = ReadBlock(dataBlockPtr, &uiRead);
    return iRet == BSA_RC_SUCCESS ? iRet : Fail(iRet, uiRead);
}
