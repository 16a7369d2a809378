// Sends one buffer of the open object.
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "api/object.h"
#include "session/record.h"
#include "trace/trace.h"

enum
{
    SEND_RETRIES = 5
};

static inline ssize_t SendRest(const BSA_DataBlock *spBlock, size_t uSent)
{
    return send(xbsa_DataSocket(), spBlock->bufferPtr + uSent, spBlock->bufferLen - uSent,
                MSG_NOSIGNAL);
}

// Tries again, one second apart, until something goes through. Returns the last send's result.
// Kept out of the path of a good send.
__attribute__((noinline, cold)) static ssize_t Resend(const BSA_DataBlock *spBlock, size_t uSent)
{
    ssize_t iSend = -1;
    int iError = errno;
    xbsa_NoteLoss(iError);
    const char *cpText = SysErrorTxt(GetSockErrCode(), 3, "Data sending failed.");
    TRACE("BSASendData(%d): %s", iError, cpText);
    for (int iRetry = 1; iRetry <= SEND_RETRIES && iSend <= 0; iRetry++)
    {
        TRACE("BSASendData: Data sending failed. Resending [%d] times", iRetry);
        sleep(1);
        iSend = SendRest(spBlock, uSent);
        iError = errno;
    }
    if (iSend == -1)
    {
        cpText = SysErrorTxt(static_cast<unsigned long>(iError), 3, "Data sending failed.");
        TRACE("BSASendData: %s", cpText);
    }
    return iSend;
}

// A send made no progress for a while, or failed: a slow server is waited for, a failure is tried
// again. Returns the last send's result.
__attribute__((noinline, cold)) static ssize_t Recover(const BSA_DataBlock *spBlock, size_t uSent)
{
    ssize_t iSend = -1;
    while (iSend == -1 && errno == EAGAIN && !xbsa_IsServerLost()) iSend = SendRest(spBlock, uSent);
    if (iSend != -1) return iSend;

    if (sPrivate.iServerLost != 0) errno = ETIMEDOUT;
    return Resend(spBlock, uSent);
}

// Sends bufferLen bytes, whatever numBytes says.
//   upSent  receives the bytes that the system took
static int SendBlock(const BSA_DataBlock *spBlock, size_t *upSent)
{
    ssize_t iSend = 1;
    size_t uSent = 0;
    TRACE_CALL("BSASendData: bufferLen=%u, numBytes=%u", spBlock->bufferLen, spBlock->numBytes);
    while (iSend > 0 && uSent < spBlock->bufferLen)
    {
        iSend = SendRest(spBlock, uSent);
        if (iSend == -1) iSend = Recover(spBlock, uSent);
        if (iSend > 0) uSent += static_cast<size_t>(iSend);
    }
    *upSent = uSent;
    sGlobal.sSession.dBytes += static_cast<double>(uSent);
    TRACE("BSASendData: Data written: %d, total: %.0f", static_cast<int>(uSent),
          sGlobal.sSession.dBytes);
    TRACE_CALL("BSASendData: send() return: %d, written: %d, total: %.0f", static_cast<int>(iSend),
               static_cast<int>(uSent), sGlobal.sSession.dBytes);
    return iSend == -1 ? BSA_RC_ABORT_SYSTEM_ERROR : BSA_RC_SUCCESS;
}

int BSASendData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    size_t uSent = 0;
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr, RETR_MODE);
    if (iRet == BSA_RC_SUCCESS) iRet = SendBlock(dataBlockPtr, &uSent);
    if (iRet == BSA_RC_SUCCESS) return iRet;

    sPrivate.iDataFailed = 1;
    if (iRet == BSA_RC_ABORT_SYSTEM_ERROR) sPrivate.iDataBroken = 1;
    xbsa_NoteDataStatus(iRet, uSent);
    return iRet;
}
