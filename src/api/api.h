// The exported calls, one per file: start line, checks in their order, the calls downwards, result line.
//
// Promises: a call that its checks reject touches no connection (BSAEndData alone says QUIT all the same),
// a null argument is never followed, an unterminated one never read past its field.
// Needs: session, data, com, record, trace, util. Nothing is above it but the backup tool.
//
//   BSA*.cpp               the calls
//   checks.cpp             what the calls of a backup and a restore share
//   codes.cpp              return codes and their texts
//   environment.cpp        settings from the process environment
//   network.cpp            those of the data connection
//   descriptor_texts.cpp   texts of descriptor fields, for callers
#ifndef API_API_H
#define API_API_H

#include "record/record.h"

// Marks a call as made. Returns BSA_RC_INVALID_CALL_SEQUENCE when it was made already (then nothing
// is marked), BSA_RC_INVALID_HANDLE for a wrong handle (the call still counts as made), else 0.
int xbsa_MarkCall(int iCallBit, long lHandle);

// The same, traced.
int xbsa_CheckCall(const char *cpFunction, int iCallBit, long lHandle);

// Runs the utility to open session and job. Returns 0, or -1 when the utility refused. A utility
// that could not be run does not count here; the close of the job shows it.
int xbsa_OpenJob(ENUM_COM_TASK eTask);

// Takes login, object name and path from a descriptor into sSMS.
void xbsa_TakeLogin(const char *cpFunction, const BSA_ObjectDescriptor *spObject);

// What strict mode asks of a data call: the process of the session, and the way that the transfer
// goes. Against it both sides would wait for ever.
int xbsa_CheckStrict(int iMode);

// Looks at the arguments of a data call, which comes as often as the caller likes.
//   iMode  ENUM_DIRECTION of the call
inline int xbsa_CheckBlock(long lHandle, const BSA_DataBlock *spBlock, int iMode)
{
    if (lHandle != sGlobal.sSession.lBSAHandle) return BSA_RC_INVALID_HANDLE;
    if (spBlock == nullptr) return BSA_RC_NULL_ARGUMENT;
    bool bNoBuffer = spBlock->bufferPtr == nullptr && spBlock->bufferLen != 0;
    if (bNoBuffer) return BSA_RC_NULL_ARGUMENT;
    return sPrivate.bStrict ? xbsa_CheckStrict(iMode) : BSA_RC_SUCCESS;
}

// Reads the settings of the data connection from the process environment. Returns BSA_RC_SUCCESS, or
// BSA_RC_ABORT_SYSTEM_ERROR after having reported a value that is not allowed; then none is set.
int xbsa_ReadNetwork();

// Notes in sSMS.iOpStatus how a data call ended, for the COM utility.
//   iRet    result of the call
//   uBytes  what it moved
void xbsa_NoteDataStatus(int iRet, size_t uBytes);

#endif
