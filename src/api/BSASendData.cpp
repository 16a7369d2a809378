// Sends one buffer of the open object.
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "api/object.h"
#include "record/record.h"
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

// Sends the rest of a block of which the first send took a part, nothing or, without bytes to send,
// was not made.
//   ipSend  in: result of the first send; out: of the last one
// Returns the bytes sent in all.
static unsigned int SendOn(const BSA_DataBlock *spBlock, ssize_t *ipSend)
{
    unsigned int uiSent = 0;
    while (uiSent < spBlock->bufferLen)
    {
        if (*ipSend == -1) *ipSend = Resend(spBlock, uiSent);
        if (*ipSend < 1) break;
        uiSent += static_cast<unsigned int>(*ipSend);
        if (uiSent < spBlock->bufferLen) *ipSend = SendRest(spBlock, uiSent);
    }
    return uiSent;
}

__attribute__((noinline, cold)) static int Fail(int iRet, unsigned int uiSent)
{
    xbsa_NoteHealth(iRet == BSA_RC_ABORT_SYSTEM_ERROR ? OBJECT_BROKEN : OBJECT_REJECTED);
    xbsa_NoteDataStatus(iRet, uiSent);
    return iRet;
}

// The end of a block that did not go through in one call, or that is traced.
__attribute__((noinline, cold)) static int Finish(const BSA_DataBlock *spBlock, ssize_t iSend)
{
    unsigned int uiSent = SendOn(spBlock, &iSend);
    sGlobal.sSession.dBytes += uiSent;
    TRACE("BSASendData: Data written: %u, total: %lld", uiSent, xbsa_Total());
    TRACE_CALL("BSASendData: send() return: %d, written: %u, total: %lld", static_cast<int>(iSend),
               uiSent, xbsa_Total());
    return iSend == -1 ? Fail(BSA_RC_ABORT_SYSTEM_ERROR, uiSent) : BSA_RC_SUCCESS;
}

// Sends bufferLen bytes, whatever numBytes says. As a rule one send takes them all.
int BSASendData(long bsaHandle, BSA_DataBlock *dataBlockPtr)
{
    int iRet = xbsa_CheckBlock(bsaHandle, dataBlockPtr, STOR_MODE);
    if (iRet != BSA_RC_SUCCESS) return Fail(iRet, 0);

    TRACE_CALL("BSASendData: bufferLen=%u, numBytes=%u", dataBlockPtr->bufferLen,
               dataBlockPtr->numBytes);
    const int iLength = dataBlockPtr->bufferLen;
    ssize_t iSend = iLength != 0 ? SendRest(dataBlockPtr, 0) : 1;
    if (iSend != iLength || i_Verbosity() >= TRACE_STEPS) return Finish(dataBlockPtr, iSend);

    sGlobal.sSession.dBytes += iLength;
    return BSA_RC_SUCCESS;
}
