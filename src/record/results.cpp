// The memory of a query result. The record's list is the caller's to read and to write.
#include <cstring>

#include "record/record.h"

// A result that was never handed out is freed only while the record still leads to it: a caller
// that took it out has it.
static void FreeResult()
{
    bool bReached = sPrivate.bResultSpent;
    for (const BSA_ObjectDescriptor *spEntry : sGlobal.spQueryResult)
    {
        if (spEntry == sPrivate.spResult) bReached = true;
    }
    if (bReached) x_Free(sPrivate.spResult);
    sPrivate.spResult = nullptr;
}

BSA_ObjectDescriptor *qab_NewResult()
{
    FreeResult();
    sPrivate.spResult = static_cast<BSA_ObjectDescriptor *>(x_Malloc(sizeof(BSA_ObjectDescriptor)));
    sPrivate.bResultSpent = false;
    if (sPrivate.spResult != nullptr) memset(sPrivate.spResult, 0, sizeof *sPrivate.spResult);
    return sPrivate.spResult;
}

void qab_ClearResults()
{
    FreeResult();
    for (BSA_ObjectDescriptor *&spEntry : sGlobal.spQueryResult) spEntry = nullptr;
}

__attribute__((destructor)) static void UnloadResult()
{
    FreeResult();
}
