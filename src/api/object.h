// What the calls of a backup and a restore share.
#ifndef API_OBJECT_H
#define API_OBJECT_H

#include "session/record.h"

// Marks a call as made. Returns BSA_RC_INVALID_CALL_SEQUENCE when it was made already (then nothing
// is marked), BSA_RC_INVALID_HANDLE for a wrong handle (the call still counts as made), else 0.
int xbsa_CheckCall(const char *cpFunction, int iCallBit, long lHandle);

// Forgets what is known of the object before this one, and cuts it when it is still open.
void xbsa_NewObject();

// Runs the utility to open session and job. Returns 0, or -1 when the utility refused. A utility
// that could not be run is no refusal here; BSAEndData then fails.
int xbsa_OpenJob(ENUM_COM_TASK eTask);

// Leaves the last message for a run of the utility that failed: 1 not run, -1 refused.
void xbsa_ReportJob(int iRet);

// Takes login, object name and path from a descriptor into sSMS.
void xbsa_TakeLogin(const char *cpFunction, const BSA_ObjectDescriptor *spObject);

// Looks at the arguments of a data call. Blocks come as often as the caller likes, but only the way
// that the transfer goes: against it both sides would wait for ever.
//   iAgainst  ENUM_DIRECTION in which the call cannot be
inline int xbsa_CheckBlock(long lHandle, const BSA_DataBlock *spBlock, int iAgainst)
{
    if (lHandle != sGlobal.sSession.lBSAHandle) return BSA_RC_INVALID_HANDLE;
    if (spBlock == nullptr) return BSA_RC_NULL_ARGUMENT;
    bool bNoBuffer = spBlock->bufferPtr == nullptr && spBlock->bufferLen != 0;
    if (bNoBuffer) return BSA_RC_NULL_ARGUMENT;
    return sPrivate.iDirection == iAgainst ? BSA_RC_INVALID_CALL_SEQUENCE : BSA_RC_SUCCESS;
}

// Notes in sSMS.iOpStatus how a data call ended, for the COM utility.
//   iRet    result of the call
//   uBytes  what it moved
void xbsa_NoteDataStatus(int iRet, size_t uBytes);

#endif
