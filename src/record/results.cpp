// Manages the memory of a query result. Callers may read and write the record's list.
//
// All queries of the process share one block, so that it still exists when a caller restores an
// earlier copy of the record.
#include <cstring>

#include "record/record.h"

// If a result was never returned and the record no longer points to it, a caller has taken it and
// owns it. Any other block can be reused.
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
    sPrivate.spResult = nullptr; // another library's destructor may still call us
}
