// Defines the session record and the private state.
#include "record/record.h"

#include <unistd.h>

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
    sInitial.sControl.hpField = &sGlobal.sSession.SControl;
    sInitial.sControl.hOwn = -1;
    sInitial.sControl.hClosed = -1;
    sInitial.sData.hpField = &sGlobal.sSession.SData;
    sInitial.sData.hOwn = -1;
    sInitial.sData.hClosed = -1;
    sInitial.sTrace.sLog.hFile = -1;
    return sInitial;
}

_sGlobal sGlobal = InitialRecord();
_sPrivate sPrivate = InitialPrivate();

bool xbsa_IsForeignProcess()
{
    return sPrivate.bStrict && getpid() != sPrivate.iProcess;
}

void xbsa_NoteHealth(HEALTH eHealth)
{
    if (eHealth > sPrivate.eHealth) sPrivate.eHealth = eHealth;
}

bool xbsa_IsIncomplete()
{
    return sPrivate.eHealth >= (sPrivate.bStrict ? OBJECT_REJECTED : OBJECT_BROKEN);
}

bool xbsa_IsCut()
{
    return sPrivate.eTransfer == TRANSFER_CUT_BY_RESTORE ||
           sPrivate.eTransfer == TRANSFER_CUT_BY_END;
}
