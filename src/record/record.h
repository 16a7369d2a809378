// What the library knows beside the session record: things that callers must not see or change, so
// that whatever they write into the record closes and frees nothing that is not ours.
#ifndef RECORD_RECORD_H
#define RECORD_RECORD_H

#include "util/descriptor.h"
#include "xbsa_session.h"

// A connection of the record.
typedef struct
{
    int hOwn;    // open, made by xbsa_open; -1 none
    FILE_ID sID; // what hOwn denoted then
    int hClosed; // value of the record's field that BSAEndData has closed; -1 none
} CONNECTION;

// How far the transfer of the current object is.
typedef enum
{
    TRANSFER_IDLE,
    TRANSFER_STORING,
    TRANSFER_RESTORING,
    TRANSFER_CUT_BY_RESTORE, // a restore was opened while a backup was; the restore may be open
    TRANSFER_CUT_BY_END      // the transaction ended first (strict mode)
} TRANSFER;

// What became of the object so far; the worst counts.
typedef enum
{
    OBJECT_WHOLE,
    OBJECT_REJECTED, // a BSASendData was rejected, so its bytes are missing
    OBJECT_BROKEN    // a BSASendData failed on the connection; in strict mode a BSAGetData too
} HEALTH;

typedef struct
{
    bool bStrict;   // KORVA_STRICT=1 at BSAInit: no result hides a failure
    int iProcess;   // process that BSAInit ran in
    bool bAnswered; // the utility's last task got a positive answer

    // of the current object
    TRANSFER eTransfer;
    HEALTH eHealth;
    bool bServerLost; // the server vanished: its replies are not waited for
    bool bJobMissing; // the utility could not be run for the open
    bool bMoreLines;  // the opening reply has lines that were not read
    CONNECTION sControl;
    CONNECTION sData;

    // for the life of the process
    char *cpTraceBuffer;            // the trace buffer of our own making; null before the first
    int hLog;                       // log of our own opening; -1 none
    FILE_ID sLog;                   // what hLog denoted then
    BSA_ObjectDescriptor *spResult; // query result of our own making; null for none
    bool bResultSpent;              // it was handed out
} _sPrivate;

extern _sPrivate sPrivate;

// A number that BSAEndData has closed may be in use by the host. These give -1 for it.
inline int xbsa_ControlSocket()
{
    int hSocket = sGlobal.sSession.SControl;
    return hSocket == sPrivate.sControl.hClosed ? -1 : hSocket;
}

inline int xbsa_DataSocket()
{
    int hSocket = sGlobal.sSession.SData;
    return hSocket == sPrivate.sData.hClosed ? -1 : hSocket;
}

// Bytes moved for this object, as a whole number: printing a double for every block is slow.
inline long long xbsa_Total()
{
    return static_cast<long long>(sGlobal.sSession.dBytes);
}

// Stores a new connection (or -1) in the record. Closes what a failed open left there before.
void xbsa_StoreControl(int hSocket);
void xbsa_StoreData(int hSocket);

// Closes the connection, leaving its number in the record. Returns the result of close.
//   bSocket  whether the number denotes a socket: the host may have closed ours and opened a file
int xbsa_CloseControl(bool bSocket);
int xbsa_CloseData(bool bSocket);

// Forgets the object: the next call meets the state of a new session.
void xbsa_ForgetObject();

// Cuts a transfer that nobody ended, since a server may serve one client at a time, and forgets it.
void xbsa_CutTransfer();

// Ends what is remembered of an earlier session.
void xbsa_ForgetSession();

// Notes a failed BSASendData, or BSAGetData in strict mode.
void xbsa_NoteHealth(HEALTH eHealth);

// Whether the object did not get through whole. By default a rejected call does not count.
bool xbsa_IsIncomplete();

// Whether this process is a child of the one that the session belongs to: in strict mode it may
// not end its parent's object.
bool xbsa_IsForeignProcess();

// Whether a call may go on with this handle.
inline bool xbsa_IsHandle(long lHandle)
{
    return lHandle == sGlobal.sSession.lBSAHandle && !xbsa_IsForeignProcess();
}

// Notes that the server has vanished when the error of a send or receive says so.
void xbsa_NoteLoss(int iError);

// Makes an empty query result. Returns null without memory.
BSA_ObjectDescriptor *qab_NewResult();

// Frees our own query result unless it is out of reach, and empties the list.
void qab_ClearResults();

#endif
