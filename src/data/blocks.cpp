// Finishes a block of a store that its first send did not take whole.
#include "data/data.h"

#include <cerrno>
#include <unistd.h>

#include "trace/trace.h"

enum
{
    SEND_RETRIES = 5
};

void data_NoteLoss(int iError)
{
    if (iError == ETIMEDOUT || iError == EHOSTUNREACH || iError == ENETUNREACH)
    {
        sPrivate.bServerLost = true;
    }
}

// Retries, one second apart, until a send succeeds. Returns the last result.
static ssize_t SendAgain(const BSA_DataBlock *spBlock, size_t uSent)
{
    ssize_t iSend = -1;
    int iError = errno;
    data_NoteLoss(iError);
    const char *cpText = SysErrorTxt(GetSockErrCode(), 3, "Data sending failed.");
    TRACE("BSASendData(%d): %s", iError, cpText);
    for (int iRetry = 1; iRetry <= SEND_RETRIES && iSend <= 0; iRetry++)
    {
        TRACE("BSASendData: Data sending failed. Resending [%d] times", iRetry);
        sleep(1);
        iSend = data_Send(spBlock, uSent);
    }
    if (iSend > 0) sPrivate.bServerLost = false; // the server is still there
    if (iSend == -1) i_Fail("BSASendData", GetSockErrCode(), "Data sending failed.");
    return iSend;
}

DATA_PROGRESS data_SendOn(const BSA_DataBlock *spBlock, ssize_t iFirst)
{
    DATA_PROGRESS sSent = {0, iFirst};
    while (sSent.uMoved < spBlock->bufferLen)
    {
        if (sSent.iLast == -1) sSent.iLast = SendAgain(spBlock, sSent.uMoved);
        if (sSent.iLast < 1) break;
        sSent.uMoved += static_cast<unsigned int>(sSent.iLast);
        if (sSent.uMoved < spBlock->bufferLen) sSent.iLast = data_Send(spBlock, sSent.uMoved);
    }
    return sSent;
}
