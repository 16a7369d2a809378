// The journal: one line of JSON for each object of a session with KORVA_JOURNAL.
//
// Promises: off means one comparison for each call. An object gets one line, at its end, by one write; a
// line that cannot be written is traced and changes no result. No password is in a line. A line is valid
// JSON whatever the names hold.
// Needs: trace, record, util.
//
//   journal.cpp   the life of the file and of an object's entry
//   line.cpp      an entry as JSON
//   checksum.cpp  XXH3-128 of the bytes that were moved
#ifndef JOURNAL_JOURNAL_H
#define JOURNAL_JOURNAL_H

#include "record/record.h"

// Opens the journal of a new session, or closes that of an earlier one.
void journal_Start();

// Begins the entry of an object. An object that is still open has been cut: its line is written first.
void journal_Begin(ENUM_DIRECTION eDirection);

// Whether blocks must be added.
inline bool journal_IsOn()
{
    return sPrivate.spJournal != nullptr;
}

// Adds the bytes that a call has moved.
void journal_Add(const BSA_DataBlock *spBlock, unsigned int uMoved);

// Writes the line of the open object; does nothing when there is none, or when it has its line.
//   bWhole    whether the object got through
//   cpReason  error of the line when the object has kept no message
void journal_End(bool bWhole, const char *cpReason);

// Writes the line that is owed and closes the file; the unloading of the library calls it.
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

// Writes the digits of the bytes so far, with a terminator.
void journal_ReadChecksum(const JOURNAL *spJournal, char (&szDigits)[JOURNAL_DIGITS + 1]);

#endif
