// Tracks who owns the connections in the record.
#include "record/record.h"

// Closes our connection unless the host has closed it and reuses its number.
static void LetGo(CONNECTION *spConnection)
{
    if (spConnection->hOwn == -1) return;
    if (x_IsSame(spConnection->hOwn, &spConnection->sID)) SOCKET_close(spConnection->hOwn);
    spConnection->hOwn = -1;
}

// The caller ends the connections of an open transfer; those of a failed open have no owner. The
// new number may be that of an old connection which the host has closed.
void xbsa_StoreConnection(CONNECTION *spConnection, int hSocket)
{
    if (sPrivate.eTransfer == TRANSFER_IDLE && spConnection->hOwn != hSocket) LetGo(spConnection);
    *spConnection->hpField = hSocket;
    spConnection->hOwn = hSocket;
    spConnection->hClosed = -1;
    if (hSocket != -1) x_Identify(hSocket, &spConnection->sID);
}

int xbsa_CloseConnection(CONNECTION *spConnection, bool bSocket)
{
    int hSocket = *spConnection->hpField;
    bool bTaken = !bSocket && hSocket == spConnection->hOwn;
    if (bTaken || hSocket == spConnection->hClosed) return SOCKET_close(-1);
    spConnection->hClosed = hSocket;
    if (hSocket == spConnection->hOwn) spConnection->hOwn = -1;
    return SOCKET_close(hSocket);
}

void xbsa_ForgetObject()
{
    sPrivate.eTransfer = TRANSFER_IDLE;
    sPrivate.eHealth = OBJECT_WHOLE;
    sPrivate.bServerLost = false;
    sPrivate.bNoUtility = false;
    sPrivate.bMoreLines = false;
}

void xbsa_CutTransfer()
{
    CONNECTION *const spaConnections[] = {&sPrivate.sData, &sPrivate.sControl};
    for (CONNECTION *spConnection : spaConnections)
    {
        bool bShown = *spConnection->hpField == spConnection->hOwn;
        LetGo(spConnection);
        if (bShown) *spConnection->hpField = -1;
    }
    xbsa_ForgetObject();
}

void xbsa_ForgetSession()
{
    xbsa_CutTransfer();
    sPrivate.sControl.hClosed = -1;
    sPrivate.sData.hClosed = -1;
}

// Closes our connections when the host unloads the library.
__attribute__((destructor)) static void UnloadConnections()
{
    LetGo(&sPrivate.sData);
    LetGo(&sPrivate.sControl);
}
