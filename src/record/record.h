// What the library knows: the session record, which everybody may see, and the private state.
//
// Promises: whatever a caller writes into the record, closes itself or restores from a copy, nothing
// is closed or freed that the library did not make. Nothing private outlives a session but the log,
// the trace buffer and a query result, which are kept for the life of the process.
// Needs: util.
//
//   record.cpp       the two records and their first values
//   connections.cpp  who owns the control and the data connection
//   results.cpp      the memory of a query result
//   layout.cpp       freezes the places of all fields that a caller reaches
#ifndef RECORD_RECORD_H
#define RECORD_RECORD_H

#include <ctime>

#include "util/util.h"
#include "xbsa_session.h"

// A connection of the record.
typedef struct
{
    int *hpField; // the number in the record, which callers may write
    int hOwn;     // open, made by xbsa_open; -1 none
    FILE_ID sID;  // what hOwn denoted then
    int hClosed;  // value of the field that BSAEndData has closed; -1 none
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
    OBJECT_REJECTED, // a BSASendData was rejected, or by default a BSAGetData failed: bytes are missing
    OBJECT_BROKEN, // a BSASendData failed on the connection; in strict mode a BSAGetData too
} HEALTH;

// The log and what belongs to its lines.
typedef struct
{
    char *cpBuffer;                     // trace buffer of our own making; null before the first
    APPENDED sLog;                      // log of our own opening
    time_t lStamped;                    // second that szStamp shows
    char szStamp[64];                   // what each line begins with
    size_t uStamp;                      // its length
    char szMasked[XBSA_REPLY_SIZE + 2]; // a reply without its secrets, after a null byte
} TRACE_STATE;

// The journal of a session with KORVA_JOURNAL and what it knows of the current object. It is made by
// the first such session, so that all others do not carry its memory.
typedef struct
{
    char szPath[4096];
    APPENDED sFile;

    ENUM_DIRECTION eDirection;
    bool bObject;                               // one was begun, its line is owed
    struct timespec sBegun;                     // monotonic
    unsigned long long ullBytes;                // that were moved
    unsigned long long ullBlocks;               // calls that moved them
    char szError[XBSA_TRACE_SIZE];              // first failure of the object
    alignas(64) unsigned char byaChecksum[576]; // state of XXH3-128

    char szLine[24576]; // room for every field with each of its bytes escaped
} JOURNAL;

// Settings of the data connection that are off unless the environment asks for them: 0 for each.
typedef struct
{
    int iFirstPort; // KORVA_PORT_RANGE
    int iLastPort;
    int iNextPort; // where the search for a free one begins
    int iRate;     // KORVA_RATE_LIMIT: bytes per second of a store
    int iBuffer;   // KORVA_SOCKET_BUFFER: bytes
} NETWORK;

typedef struct
{
    // settings of BSAInit
    bool bStrict; // KORVA_STRICT=1: no result hides a failure
    int iProcess; // process that BSAInit ran in
    NETWORK sNetwork;

    // the current object
    TRANSFER eTransfer;
    HEALTH eHealth;
    bool bServerLost; // the server vanished: it gets one second for each reply
    bool bNoUtility;  // the utility could not be run for the open
    bool bMoreLines;  // the opening reply has lines that were not read
    CONNECTION sControl;
    CONNECTION sData;

    // the utility
    bool bAnswered;                 // its last task got a positive answer
    BSA_ObjectDescriptor *spResult; // query result of our own making; null for none
    bool bResultSpent;              // it was handed out, or the list was emptied

    TRACE_STATE sTrace;
    JOURNAL *spJournal; // null: no journal is asked for
} _sPrivate;

extern _sPrivate sPrivate;

// --- The session (record.cpp) ---

// Whether this process is a child of the one that the session belongs to: in strict mode it may
// not end its parent's object.
bool xbsa_IsForeignProcess();

// Whether a call may go on with this handle.
inline bool xbsa_IsHandle(long lHandle)
{
    return lHandle == sGlobal.sSession.lBSAHandle && !xbsa_IsForeignProcess();
}

// Bytes moved for this object, as a whole number: printing a double for every block is slow.
inline long long xbsa_BytesMoved()
{
    return static_cast<long long>(sGlobal.sSession.dBytes);
}

// Notes a failed BSASendData, or BSAGetData in strict mode.
void xbsa_NoteHealth(HEALTH eHealth);

// Whether the object did not get through whole. By default a rejected call does not count.
bool xbsa_IsIncomplete();

// Whether the transfer was cut before its BSAEndData.
bool xbsa_IsCut();

// --- Connections (connections.cpp) ---

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

// Stores a new connection (or -1) in the record. Closes what a failed open left there before.
void xbsa_StoreConnection(CONNECTION *spConnection, int hSocket);

// Closes the connection, leaving its number in the record. Returns the result of close.
//   bSocket  whether the number denotes a socket: the host may have closed ours and opened a file
int xbsa_CloseConnection(CONNECTION *spConnection, bool bSocket);

// Forgets the object: the next call meets the state of a new session.
void xbsa_ForgetObject();

// Cuts a transfer that nobody ended, since a server may serve one client at a time, and forgets it.
void xbsa_CutTransfer();

// Ends what is remembered of an earlier session.
void xbsa_ForgetSession();

// --- Query results (results.cpp) ---

// Makes an empty query result. Returns null without memory.
BSA_ObjectDescriptor *qab_NewResult();

// Empties the list.
void qab_ClearResults();

// Frees our own result; the unloading of the library calls it.
void qab_ReleaseResult();

#endif
