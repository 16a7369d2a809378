// The one record, its private companion, and who owns the connections in it.
#include "record/record.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

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

static constexpr _sPrivate InitialPrivate()
{
    _sPrivate sInitial = {};
    sInitial.sControl.hOwn = -1;
    sInitial.sControl.hClosed = -1;
    sInitial.sData.hOwn = -1;
    sInitial.sData.hClosed = -1;
    sInitial.hLog = -1;
    return sInitial;
}

_sGlobal sGlobal = InitialRecord();
_sPrivate sPrivate = InitialPrivate();

// Closes a connection of ours unless the host has closed it and uses its number.
static void LetGo(CONNECTION *spConnection)
{
    if (spConnection->hOwn == -1) return;
    if (x_IsSame(spConnection->hOwn, &spConnection->sID)) SOCKET_close(spConnection->hOwn);
    spConnection->hOwn = -1;
}

// The connections of an open transfer are the caller's to end; those that a failed open left are
// nobody's. The new number may be that of an old connection which the host has closed.
static void Store(int hSocket, int *hpField, CONNECTION *spConnection)
{
    if (sPrivate.eTransfer == TRANSFER_IDLE && spConnection->hOwn != hSocket) LetGo(spConnection);
    *hpField = hSocket;
    spConnection->hOwn = hSocket;
    spConnection->hClosed = -1;
    if (hSocket != -1) x_Identify(hSocket, &spConnection->sID);
}

static int Close(int hSocket, bool bSocket, CONNECTION *spConnection)
{
    bool bTaken = !bSocket && hSocket == spConnection->hOwn;
    int iRet = SOCKET_close(bTaken ? -1 : hSocket);
    if (hSocket != -1) spConnection->hClosed = hSocket;
    if (hSocket == spConnection->hOwn) spConnection->hOwn = -1;
    return iRet;
}

void xbsa_StoreControl(int hSocket)
{
    Store(hSocket, &sGlobal.sSession.SControl, &sPrivate.sControl);
}

void xbsa_StoreData(int hSocket)
{
    Store(hSocket, &sGlobal.sSession.SData, &sPrivate.sData);
}

int xbsa_CloseControl(bool bSocket)
{
    return Close(xbsa_ControlSocket(), bSocket, &sPrivate.sControl);
}

int xbsa_CloseData(bool bSocket)
{
    return Close(xbsa_DataSocket(), bSocket, &sPrivate.sData);
}

void xbsa_ForgetObject()
{
    sPrivate.eTransfer = TRANSFER_IDLE;
    sPrivate.eHealth = OBJECT_WHOLE;
    sPrivate.bServerLost = false;
    sPrivate.bJobMissing = false;
    sPrivate.bMoreLines = false;
}

static void Cut(int *hpField, CONNECTION *spConnection)
{
    if (spConnection->hOwn != -1 && *hpField == spConnection->hOwn) *hpField = -1;
    LetGo(spConnection);
}

void xbsa_CutTransfer()
{
    Cut(&sGlobal.sSession.SData, &sPrivate.sData);
    Cut(&sGlobal.sSession.SControl, &sPrivate.sControl);
    xbsa_ForgetObject();
}

void xbsa_ForgetSession()
{
    xbsa_CutTransfer();
    sPrivate.sControl.hClosed = -1;
    sPrivate.sData.hClosed = -1;
}

void xbsa_NoteHealth(HEALTH eHealth)
{
    if (eHealth > sPrivate.eHealth) sPrivate.eHealth = eHealth;
}

bool xbsa_IsIncomplete()
{
    return sPrivate.eHealth >= (sPrivate.bStrict ? OBJECT_REJECTED : OBJECT_BROKEN);
}

bool xbsa_IsForeignProcess()
{
    return sPrivate.bStrict && getpid() != sPrivate.iProcess;
}

void xbsa_NoteLoss(int iError)
{
    if (iError == ETIMEDOUT || iError == EHOSTUNREACH || iError == ENETUNREACH)
    {
        sPrivate.bServerLost = true;
    }
}

// A result that was never handed out is freed only while the record still leads to it: a caller
// that took it out has it.
static void FreeResult()
{
    BSA_ObjectDescriptor **sppList = sGlobal.spQueryResult;
    bool bReached = sPrivate.bResultSpent;
    for (int iEntry = 0; iEntry < XBSA_QUERY_RESULTS; iEntry++)
    {
        if (sppList[iEntry] == sPrivate.spResult) bReached = true;
    }
    if (bReached) x_Free(sPrivate.spResult);
    sPrivate.spResult = nullptr;
}

BSA_ObjectDescriptor *qab_NewResult()
{
    FreeResult();
    sPrivate.spResult = static_cast<BSA_ObjectDescriptor *>(x_Malloc(sizeof(BSA_ObjectDescriptor)));
    sPrivate.bResultSpent = false;
    if (sPrivate.spResult != nullptr) memset(sPrivate.spResult, 0, sizeof *sPrivate.spResult);
    return sPrivate.spResult;
}

void qab_ClearResults()
{
    FreeResult();
    for (BSA_ObjectDescriptor *&spEntry : sGlobal.spQueryResult) spEntry = nullptr;
}

// A host that unloads the library gets everything back: connections, log, memory.
__attribute__((destructor)) static void Unload()
{
    LetGo(&sPrivate.sData);
    LetGo(&sPrivate.sControl);
    FreeResult();
    i_ReleaseTrace();
}
