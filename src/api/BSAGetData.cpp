// Reads the next bytes of the open object.
#include <cerrno>
#include <sys/socket.h>

#include "api/object.h"
#include "session/record.h"
#include "trace/trace.h"

// Reads until the buffer is full or the server has closed.
//   upRead  receives the bytes read
static int ReadBlock(BSA_DataBlock *spBlock, size_t *upRead)
{
    ssize_t iReceived = 0;
    size_t uRead = 0;
    TRACE_CALL("BSAGetData: Start");
    TRACE_CALL("BSAGetData: bufferLen=%u, numBytes=%u", spBlock->bufferLen, spBlock->numBytes);
    while (uRead < spBlock->bufferLen)
    {
        errno = 0;
        iReceived =
            recv(xbsa_DataSocket(), spBlock->bufferPtr + uRead, spBlock->bufferLen - uRead, 0);
        if (iReceived < 1) break;
        uRead += static_cast<size_t>(iReceived);
    }
    if (iReceived == -1)
    {
        SysErrorTxt(GetSockErrCode(), 3, "Data receiving failed.");
        xbsa_NoteLoss(errno);
    }
    *upRead = uRead;
    sGlobal.sSession.dBytes += static_cast<double>(uRead);
    spBlock->numBytes = static_cast<BSA_UInt16>(uRead);
    TRACE("BSAGetData: Data read: %d, total: %.0f", static_cast<int>(uRead),
          sGlobal.sSession.dBytes);
    TRACE_CALL("BSAGetData: recv() return: %d, read: %d, total: %.0f", static_cast<int>(iReceived),
               static_cast<int>(uRead), sGlobal.sSession.dBytes);
    TRACE_CALL("BSAGetData: End");
    return iReceived == -1 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}

int BSAGetData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    size_t uRead = 0;
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr);
    if (iRet == BSA_RC_SUCCESS) iRet = ReadBlock(dataBlockPtr, &uRead);
    xbsa_NoteDataStatus(iRet, uRead);
    if (iRet == BSA_RC_ABORT_SYSTEM_ERROR && sPrivate.iStrict != 0)
    {
        sPrivate.iDataFailed = 1;
        sPrivate.iDataBroken = 1;
    }
    return iRet;
}
