// The one record, its private companion, and who owns the connections in it.
#include "session/record.h"

#include "trace/trace.h"

static constexpr _sGlobal InitialRecord()
{
    _sGlobal sInitial = {};
    sInitial.sSession.SControl = -1;
    sInitial.sSession.SData = -1;
    sInitial.sObject.sBSA_Object.copyType = BSA_CopyType_ANY;
    sInitial.sObject.sBSA_Object.objectType = BSA_ObjectType_ANY;
    sInitial.sObject.sBSA_Object.objectStatus = BSA_ObjectStatus_ANY;
    sInitial.sQueryDescriptor.copyType = BSA_CopyType_ANY;
    sInitial.sQueryDescriptor.objectType = BSA_ObjectType_ANY;
    sInitial.sQueryDescriptor.objectStatus = BSA_ObjectStatus_ANY;
    sInitial.iReadTraceEnvironment = 1;
    return sInitial;
}

_sGlobal sGlobal = InitialRecord();
_sPrivate sPrivate = {0, 0, 0, 0, 0, 0, 0, 0, -1, -1, -1, -1};

static void Store(int hSocket, int *hpField, int *hpOwn, int *hpClosed)
{
    if (*hpOwn != -1) SOCKET_close(*hpOwn);
    *hpField = hSocket;
    *hpOwn = hSocket;
    *hpClosed = -1;
}

static int Close(int hSocket, int *hpOwn, int *hpClosed)
{
    int iRet = SOCKET_close(hSocket);
    if (hSocket != -1) *hpClosed = hSocket;
    if (hSocket == *hpOwn) *hpOwn = -1;
    return iRet;
}

void xbsa_StoreControl(int hSocket)
{
    Store(hSocket, &sGlobal.sSession.SControl, &sPrivate.hOwnControl, &sPrivate.hClosedControl);
}

void xbsa_StoreData(int hSocket)
{
    sPrivate.iDirection = 0;
    Store(hSocket, &sGlobal.sSession.SData, &sPrivate.hOwnData, &sPrivate.hClosedData);
}

void xbsa_GiveUpTransfer(int iReason)
{
    if (sPrivate.iDirection == STOR_MODE) sPrivate.iGivenUp = iReason;
    if (sPrivate.hOwnData != -1) xbsa_StoreData(-1);
    if (sPrivate.hOwnControl != -1) xbsa_StoreControl(-1);
}

int xbsa_CloseControl()
{
    return Close(xbsa_ControlSocket(), &sPrivate.hOwnControl, &sPrivate.hClosedControl);
}

int xbsa_CloseData()
{
    sPrivate.iDirection = 0;
    return Close(xbsa_DataSocket(), &sPrivate.hOwnData, &sPrivate.hClosedData);
}

// Entries below iQueryIndex were handed out and freed; their pointers stay in the list.
void qab_ClearResults()
{
    for (int iEntry = 0; iEntry < XBSA_QUERY_RESULTS; iEntry++)
    {
        if (iEntry >= sGlobal.iQueryIndex) x_Free(sGlobal.spQueryResult[iEntry]);
        sGlobal.spQueryResult[iEntry] = nullptr;
    }
    sGlobal.iQueryIndex = 0;
}

// A host that unloads the library gets everything back: connections, log, memory.
__attribute__((destructor)) static void Unload()
{
    if (sPrivate.hOwnData != -1) SOCKET_close(sPrivate.hOwnData);
    if (sPrivate.hOwnControl != -1) SOCKET_close(sPrivate.hOwnControl);
    sPrivate.hOwnData = -1;
    sPrivate.hOwnControl = -1;
    qab_ClearResults();
    i_ReleaseTrace();
}
