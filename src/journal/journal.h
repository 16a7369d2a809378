// The journal: one line of JSON for each object, if KORVA_JOURNAL is set.
//
// Promises: a switched-off journal costs one comparison per call. An object gets one line, at its
// end, with one write. A failed write is traced and does not change a result. A line contains no
// password and is valid JSON whatever the names contain.
// Needs: trace, record, util.
//
//   journal.cpp   the file and an object's entry
//   line.cpp      an entry as JSON
//   checksum.cpp  XXH3-128 of the bytes moved
#ifndef JOURNAL_JOURNAL_H
#define JOURNAL_JOURNAL_H

#include "record/record.h"

// Opens the journal of a new session, or closes that of an earlier session.
void journal_Start();

// Begins the entry of an object. Writes the line of an earlier object that is still open, as cut.
void journal_Begin(ENUM_DIRECTION eDirection);

// Whether blocks must be added.
inline bool journal_IsOn()
{
    return sPrivate.spJournal != nullptr;
}

// Adds the bytes that a call moved.
void journal_Add(const BSA_DataBlock *spBlock, unsigned int uMoved);

// Records a fault that no call reports: the line says that the object did not get through.
void journal_Fault(const char *cpReason);

// Writes the line of the open object, if there is one that has no line yet.
//   bWhole    whether the object got through
//   cpReason  error of the line if the object has no message
void journal_End(bool bWhole, const char *cpReason);

// Writes a missing line and closes the file. Called when the library is unloaded.
void journal_Release();

// --- Inside the room ---

// Composes the line in szLine. Returns its length in bytes.
size_t journal_Compose(JOURNAL *spJournal, bool bWhole);

void journal_ResetChecksum(JOURNAL *spJournal);
void journal_AddToChecksum(JOURNAL *spJournal, const void *vpBytes, size_t uLength);

enum
{
    JOURNAL_DIGITS = 32
};

// Writes the digits of the checksum so far, with a terminator.
void journal_ReadChecksum(const JOURNAL *spJournal, char (&szDigits)[JOURNAL_DIGITS + 1]);

#endif
