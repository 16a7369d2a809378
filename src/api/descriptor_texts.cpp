// Texts of descriptor fields, for callers that trace them.
#include <cstdio>

#include "trace/trace.h"

// Each table ends with a row above the highest value, which stops the look-up.
static const MsgTbl asCopyTypes[] = {{BSA_CopyType_ANY, "ANY"},
                                     {BSA_CopyType_ARCHIVE, "ARCHIVE"},
                                     {BSA_CopyType_BACKUP, "BACKUP"},
                                     {BSA_CopyType_BACKUP + 1, nullptr}};

static const MsgTbl asObjectTypes[] = {{BSA_ObjectType_ANY, "ANY"},
                                       {BSA_ObjectType_FILE, "FILE"},
                                       {BSA_ObjectType_DIRECTORY, "DIRECTORY"},
                                       {BSA_ObjectType_OTHER, "OTHER"},
                                       {BSA_ObjectType_OTHER + 1, nullptr}};

static const MsgTbl asObjectStates[] = {{BSA_ObjectStatus_ANY, "ANY"},
                                        {BSA_ObjectStatus_MOST_RECENT, "MOST_RECENT"},
                                        {BSA_ObjectStatus_NOT_MOST_RECENT, "NOT_MOST_RECENT"},
                                        {BSA_ObjectStatus_NOT_MOST_RECENT + 1, nullptr}};

static const char *FindText(const char *cpFunction, const MsgTbl *spRow, int iValue)
{
    TRACE("%s()", cpFunction);
    while (spRow->cpFlagName != nullptr && spRow->iFlag != iValue) spRow++;
    TRACE("%s", spRow->cpFlagName != nullptr ? spRow->cpFlagName : "(null)");
    TRACE("%s() leave.", cpFunction);
    return spRow->cpFlagName;
}

const char *qab_bsacopytype(BSA_CopyType eFlag)
{
    return FindText("qab_bsacopytype", asCopyTypes, static_cast<int>(eFlag));
}

const char *qab_bsaobjecttype(BSA_ObjectType eFlag)
{
    return FindText("qab_bsaobjecttype", asObjectTypes, static_cast<int>(eFlag));
}

const char *qab_bsaobjectstatus(BSA_ObjectStatus eFlag)
{
    return FindText("qab_bsaobjectstatus", asObjectStates, static_cast<int>(eFlag));
}

// Each line is cut after 1023 characters.
static void DumpText(const char *cpLabel, const char *cpText, size_t uSize, const char *cpEnd)
{
    char szLine[1024];
    snprintf(szLine, sizeof szLine, "%s%.*s%s", cpLabel, static_cast<int>(uSize), cpText, cpEnd);
    COM_trace(szLine);
}

static void DumpNumber(const char *cpName, long lNumber, const char *cpEnd)
{
    TRACE("%s: %d%s", cpName, static_cast<int>(lNumber), cpEnd);
}

#define DUMP_TEXT(label, field, end)                                                               \
    DumpText(label, reinterpret_cast<const char *>(field), sizeof(field), end)

static void DumpNames(const BSA_ObjectDescriptor *spObject)
{
    const BSA_ObjectOwner *spOwner = &spObject->objectOwner;
    char szOwner[sizeof spOwner->bsa_ObjectOwner + sizeof TRACE_SECRET];
    i_MaskOwner(szOwner, sizeof szOwner, spOwner->bsa_ObjectOwner);
    DumpNumber("rsv1", static_cast<long>(spObject->rsv1), "");
    DUMP_TEXT("BSA_ObjectOwner.bsa_ObjectOwner:  ", szOwner, "");
    DUMP_TEXT("BSA_ObjectOwner.app_ObjectOwner:  ", spOwner->app_ObjectOwner, "\n");
    DUMP_TEXT("BSA_ObjectName.objectSpaceName:  ", spObject->objectName.objectSpaceName, "");
    DUMP_TEXT("BSA_ObjectName.pathName:  ", spObject->objectName.pathName, "\n");
}

static void DumpTime(const struct tm *spTime)
{
    DumpNumber("createTime.tm_sec", spTime->tm_sec, "");
    DumpNumber("createTime.tm_min", spTime->tm_min, "");
    DumpNumber("createTime.tm_hour", spTime->tm_hour, "");
    DumpNumber("createTime.tm_mday", spTime->tm_mday, "");
    DumpNumber("createTime.tm_mon", spTime->tm_mon, "");
    DumpNumber("createTime.tm_year", spTime->tm_year, "");
    DumpNumber("createTime.tm_wday", spTime->tm_wday, "");
    DumpNumber("createTime.tm_yday", spTime->tm_yday, "");
    DumpNumber("createTime.tm_isdst", spTime->tm_isdst, "\n");
}

static void DumpWords(const char *cpName, const BSA_UInt64 *spNumber)
{
    TRACE("%s.left: %d", cpName, static_cast<int>(spNumber->left));
    TRACE("%s.right: %d", cpName, static_cast<int>(spNumber->right));
}

void qab_dumpobject(BSA_ObjectDescriptor *objectDescriptionPtr)
{
    const BSA_ObjectDescriptor *spObject = objectDescriptionPtr;
    if (i_Verbosity() < TRACE_STEPS || spObject == nullptr) return;

    TRACE("BSA_ObjectDescriptor dump begin :");
    TRACE("================================\n");
    DumpNames(spObject);
    DumpTime(&spObject->createTime);
    DumpNumber("BSA_CopyType", static_cast<long>(spObject->copyType), "");
    DumpWords("copyId", &spObject->copyId);
    DumpWords("restoreOrder", &spObject->restoreOrder);
    DUMP_TEXT("rsv2: ", spObject->rsv2, "");
    DUMP_TEXT("rsv3: ", spObject->rsv3, "");
    DumpWords("estimatedSize", &spObject->estimatedSize);
    DUMP_TEXT("resourceType: ", spObject->resourceType, "");
    DumpNumber("BSA_ObjectType", static_cast<long>(spObject->objectType), "");
    DumpNumber("BSA_ObjectStatus", static_cast<long>(spObject->objectStatus), "");
    DUMP_TEXT("rsv4: ", spObject->rsv4, "");
    DUMP_TEXT("objectDescription: ", spObject->objectDescription, "");
    DUMP_TEXT("objectInfo: ", spObject->objectInfo, "");
}
