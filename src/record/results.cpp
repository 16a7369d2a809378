// The memory of a query result. The record's list is the caller's to read and to write.
//
// One block serves every query of the process: a caller that puts an earlier copy of the record back
// finds it still there.
#include <cstring>

#include "record/record.h"

// A result that was never handed out and to which the record does not lead any more is the caller's,
// who took it out. Any other block is ours to use again.
static void TakeBackResult()
{
    bool bOurs = sPrivate.bResultSpent;
    for (const BSA_ObjectDescriptor *spEntry : sGlobal.spQueryResult)
    {
        if (spEntry == sPrivate.spResult) bOurs = true;
    }
    if (!bOurs) sPrivate.spResult = nullptr;
    sPrivate.bResultSpent = true;
}

BSA_ObjectDescriptor *qab_NewResult()
{
    TakeBackResult();
    void *vpBlock = sPrivate.spResult;
    if (vpBlock == nullptr) vpBlock = x_Malloc(sizeof(BSA_ObjectDescriptor));
    sPrivate.spResult = static_cast<BSA_ObjectDescriptor *>(vpBlock);
    sPrivate.bResultSpent = false;
    if (vpBlock != nullptr) memset(vpBlock, 0, sizeof(BSA_ObjectDescriptor));
    return sPrivate.spResult;
}

void qab_ClearResults()
{
    TakeBackResult();
    for (BSA_ObjectDescriptor *&spEntry : sGlobal.spQueryResult) spEntry = nullptr;
}

__attribute__((destructor)) void qab_ReleaseResult()
{
    TakeBackResult();
    x_Free(sPrivate.spResult);
    sPrivate.spResult = nullptr; // a call after it, by another library that ends, starts anew
}
