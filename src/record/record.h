// The library's state: the public session record and the private state.
//
// Promises: whatever a caller writes into the record, closes itself or restores from a copy, the
// library closes and frees only what it has made. Only the log, the trace buffer and a query result
// outlive a session; they are kept for the life of the process.
// Needs: util.
//
//   record.cpp       the two records and their first values
//   connections.cpp  who owns the control and the data connection
//   results.cpp      the memory of a query result
//   layout.cpp       fixes the offsets of all fields that a caller reaches
#ifndef RECORD_RECORD_H
#define RECORD_RECORD_H

#include <ctime>

#include "util/util.h"
#include "xbsa_session.h"

// A connection of the record.
typedef struct
{
    int *hpField; // the number in the record, which callers may change
    int hOwn;     // open, made by xbsa_open; -1 none
    FILE_ID sID;  // what hOwn referred to then
    int hClosed;  // number that BSAEndData has closed; -1 none
} CONNECTION;

// Progress of the current object's transfer.
typedef enum
{
    TRANSFER_IDLE,
    TRANSFER_STORING,
    TRANSFER_RESTORING,
    TRANSFER_CUT_BY_RESTORE, // a restore began during a backup, and may be open
    TRANSFER_CUT_BY_END      // the transaction ended first (strict mode)
} TRANSFER;

// State of the object so far; the worst value counts.
typedef enum
{
    OBJECT_WHOLE,
    OBJECT_REJECTED, // bytes are missing: BSASendData was rejected, or by default BSAGetData failed
    OBJECT_BROKEN,   // BSASendData failed on the connection; in strict mode also BSAGetData
} HEALTH;

// The log and the parts of its lines.
typedef struct
{
    char *cpBuffer;                     // our own trace buffer; null before its first use
    APPENDED sLog;                      // the log that we opened
    time_t lStamped;                    // second that szStamp shows
    char szStamp[64];                   // beginning of each line
    size_t uStamp;                      // its length
    char szMasked[XBSA_REPLY_SIZE + 2]; // a reply without its secrets, after a null byte
} TRACE_STATE;

// The journal and its data about the current object. The first session with KORVA_JOURNAL allocates
// it, so that other processes do not need its memory.
typedef struct
{
    char szPath[4096];
    APPENDED sFile;

    ENUM_DIRECTION eDirection;
    bool bObject;                               // an object has begun and has no line yet
    bool bFault;                                // one that no call reports
    struct timespec sBegun;                     // monotonic
    unsigned long long ullBytes;                // bytes moved
    unsigned long long ullBlocks;               // calls that moved bytes
    char szError[XBSA_TRACE_SIZE];              // first failure of the object
    alignas(64) unsigned char byaChecksum[576]; // state of XXH3-128

    char szLine[24576]; // room for every field with all bytes escaped
} JOURNAL;

// Settings of the data connection from the environment; 0 for off.
typedef struct
{
    int iFirstPort; // KORVA_PORT_RANGE
    int iLastPort;
    int iNextPort; // where the search for a free port begins
    int iRate;     // KORVA_RATE_LIMIT: bytes per second of a store
    int iBuffer;   // KORVA_SOCKET_BUFFER: bytes
} NETWORK;

typedef struct
{
    // settings of BSAInit
    bool bStrict; // KORVA_STRICT=1: results hide no failure
    int iProcess; // process that called BSAInit
    NETWORK sNetwork;

    // the current object
    TRANSFER eTransfer;
    HEALTH eHealth;
    bool bStoring;    // BSACreateObject opens a transfer
    bool bServerLost; // the server vanished: wait one second for each reply
    bool bNoUtility;  // the utility could not be run for opening
    bool bMoreLines;  // the opening reply has lines that were not read
    CONNECTION sControl;
    CONNECTION sData;

    // the utility
    bool bAnswered;                 // the last task got a positive answer
    BSA_ObjectDescriptor *spResult; // our own query result, or null
    bool bResultSpent;              // it was returned, or the list was emptied

    TRACE_STATE sTrace;
    JOURNAL *spJournal; // null: no journal
} _sPrivate;

extern _sPrivate sPrivate;

// --- The session (record.cpp) ---

// Whether this process is a child of the session's process. In strict mode a child may not end its
// parent's object.
bool xbsa_IsForeignProcess();

// Whether the handle is valid.
inline bool xbsa_IsHandle(long lHandle)
{
    return lHandle == sGlobal.sSession.lBSAHandle && !xbsa_IsForeignProcess();
}

// Bytes moved for this object, as an integer: printing a double for every block is slow.
inline long long xbsa_BytesMoved()
{
    return static_cast<long long>(sGlobal.sSession.dBytes);
}

// Records a failed BSASendData, or BSAGetData in strict mode.
void xbsa_NoteHealth(HEALTH eHealth);

// Whether the object did not get through whole. By default a rejected call does not count.
bool xbsa_IsIncomplete();

// Whether the transfer was cut before its BSAEndData.
bool xbsa_IsCut();

// --- Connections (connections.cpp) ---

// These return -1 for a number that BSAEndData has closed, because the host may use it.
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

// Stores a new connection (or -1) in the record. Closes what an earlier failed open left there.
void xbsa_StoreConnection(CONNECTION *spConnection, int hSocket);

// Closes the connection but leaves its number in the record. Returns the result of close.
//   bSocket  whether the number is a socket: the host may have closed ours and opened a file
int xbsa_CloseConnection(CONNECTION *spConnection, bool bSocket);

// Forgets the object, so that the next call finds the state of a new session.
void xbsa_ForgetObject();

// Cuts and forgets a transfer that nobody ended, because a server may serve one client at a time.
void xbsa_CutTransfer();

// Forgets an earlier session.
void xbsa_ForgetSession();

// --- Query results (results.cpp) ---

// Makes an empty query result. Returns null if memory is exhausted.
BSA_ObjectDescriptor *qab_NewResult();

// Empties the list.
void qab_ClearResults();

// Frees our own result. Called when the library is unloaded.
void qab_ReleaseResult();

#endif
