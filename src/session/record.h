// What the library knows beside the session record: things that callers must not see or change.
#ifndef SESSION_RECORD_H
#define SESSION_RECORD_H

#include "xbsa_session.h"

typedef struct
{
    int iStrict;        // KORVA_STRICT=1 at BSAInit: no result hides a failure
    int iDataFailed;    // a BSASendData of this object failed, or a BSAGetData in strict mode
    int iDataBroken;    // one of them on the connection: the object did not get through whole
    int iServerLost;    // nothing came from the server for minutes: no reply is waited for
    int iJobMissing;    // the utility could not be run for the open of this object
    int iDirection;     // STOR_MODE or RETR_MODE while a transfer is open, else 0
    int iOpeningGoesOn; // the opening reply has more lines than the one that was read
    int iGivenUp;       // GIVEN_UP_: why a backup was cut before its BSAEndData
    int hOwnControl;    // open control connection that xbsa_open made; -1 none
    int hOwnData;       // open data connection that xbsa_open made; -1 none
    int hClosedControl; // value of SControl that was closed already; -1 none
    int hClosedData;    // value of SData that was closed already; -1 none
} _sPrivate;

extern _sPrivate sPrivate;

enum
{
    GIVEN_UP_NONE,
    GIVEN_UP_RESTORE, // a restore was begun in its place
    GIVEN_UP_END      // its transaction ended
};

// The record keeps the numbers of connections after they were closed, and the host may use such a
// number by now. These give -1 in its place.
inline int xbsa_ControlSocket()
{
    int hSocket = sGlobal.sSession.SControl;
    return hSocket == sPrivate.hClosedControl ? -1 : hSocket;
}

inline int xbsa_DataSocket()
{
    int hSocket = sGlobal.sSession.SData;
    return hSocket == sPrivate.hClosedData ? -1 : hSocket;
}

// Bytes moved for this object, as the trace shows them. As a whole number: a trace of every block would
// feel what it takes to print a double.
inline long long xbsa_Total()
{
    return static_cast<long long>(sGlobal.sSession.dBytes);
}

// Stores a new connection (or -1) in the record and closes the one that an abandoned transfer left.
void xbsa_StoreControl(int hSocket);
void xbsa_StoreData(int hSocket);

// Cuts the transfer that nobody ended, for a server may serve one client at a time.
//   iReason  GIVEN_UP_ value to note when it was a backup
void xbsa_GiveUpTransfer(int iReason);

// Closes the connection, leaving its number in the record. Returns the result of close.
int xbsa_CloseControl();
int xbsa_CloseData();

// Whether the server of the data connection has vanished, to be asked when a send made no progress for
// a while. When it has, the connection is reset.
bool xbsa_IsServerLost();

// Takes the error number of a failed send or receive for the same.
void xbsa_NoteLoss(int iError);

// Frees the query results that were never handed out and empties the list.
void qab_ClearResults();

#endif
