// The exported calls, one per file: start line, checks in order, calls to lower rooms, result line.
//
// Promises: a call that its checks reject does not touch a connection (except that BSAEndData sends
// QUIT). A null argument is never followed, an unterminated one never read past its field.
// Needs: session, data, com, record, trace, util. Only the backup tool is above it.
//
//   BSA*.cpp               the calls
//   checks.cpp             what the calls of a backup and a restore share
//   codes.cpp              return codes and their texts
//   environment.cpp        settings from the process environment
//   network.cpp            settings of the data connection
//   descriptor_texts.cpp   texts of descriptor fields, for callers
#ifndef API_API_H
#define API_API_H

#include "record/record.h"

// Marks a call as made. Returns BSA_RC_INVALID_CALL_SEQUENCE if it was made before (and marks
// nothing), BSA_RC_INVALID_HANDLE for a wrong handle (the call still counts as made), else 0.
int xbsa_MarkCall(int iCallBit, long lHandle);

// The same, traced.
int xbsa_CheckCall(const char *cpFunction, int iCallBit, long lHandle);

// Runs the utility to open session and job. Returns 0, or -1 if the utility refused. A utility that
// could not be run does not count here; closing the job reports it.
int xbsa_OpenJob(ENUM_COM_TASK eTask);

// Copies login, object name and path from a descriptor to sSMS.
void xbsa_TakeLogin(const char *cpFunction, const BSA_ObjectDescriptor *spObject);

// In strict mode a data call needs the session's process and the transfer's direction: in the other
// direction both sides would wait for ever.
int xbsa_CheckStrict(int iMode);

// Checks the arguments of a data call, which may be made any number of times.
//   iMode  ENUM_DIRECTION of the call
inline int xbsa_CheckBlock(long lHandle, const BSA_DataBlock *spBlock, int iMode)
{
    if (lHandle != sGlobal.sSession.lBSAHandle) return BSA_RC_INVALID_HANDLE;
    if (spBlock == nullptr) return BSA_RC_NULL_ARGUMENT;
    bool bNoBuffer = spBlock->bufferPtr == nullptr && spBlock->bufferLen != 0;
    if (bNoBuffer) return BSA_RC_NULL_ARGUMENT;
    return sPrivate.bStrict ? xbsa_CheckStrict(iMode) : BSA_RC_SUCCESS;
}

// Reads the settings of the data connection from the process environment. Returns BSA_RC_SUCCESS.
// If a value is not allowed, reports it, sets none and returns BSA_RC_ABORT_SYSTEM_ERROR.
int xbsa_ReadNetwork();

// Stores in sSMS.iOpStatus how a data call ended, for the COM utility.
//   iRet    result of the call
//   uBytes  bytes that it moved
void xbsa_NoteDataStatus(int iRet, size_t uBytes);

#endif
