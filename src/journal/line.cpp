// Composes an entry as one line of JSON.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "journal/journal.h"

enum
{
    HOST_LONGEST = 255 // bytes shown of a host's name
};

// Where the next text goes. The line has room for the longest fields.
typedef struct
{
    char *cpNext;
    char *cpEnd;
} ENTRY;

__attribute__((format(printf, 2, 3))) static void Put(ENTRY *spEntry, const char *cpFormat, ...)
{
    va_list vaArguments;
    va_start(vaArguments, cpFormat);
    size_t uRoom = static_cast<size_t>(spEntry->cpEnd - spEntry->cpNext);
    int iLength = vsnprintf(spEntry->cpNext, uRoom, cpFormat, vaArguments);
    va_end(vaArguments);
    if (iLength > 0 && static_cast<size_t>(iLength) < uRoom) spEntry->cpNext += iLength;
}

// Length of the UTF-8 character at the start of a terminated text, or 0.
static size_t CharacterLength(const unsigned char *bypText)
{
    const unsigned char byFirst = bypText[0];
    const unsigned char bySecond = byFirst != 0 ? bypText[1] : 0;
    size_t uLength = byFirst < 0x80 ? 1 : byFirst < 0xE0 ? 2 : byFirst < 0xF0 ? 3 : 4;
    if ((byFirst >= 0x80 && byFirst < 0xC2) || byFirst > 0xF4) return 0;
    if (byFirst == 0xE0 && bySecond < 0xA0) return 0; // overlong
    if (byFirst == 0xED && bySecond > 0x9F) return 0; // surrogate
    if (byFirst == 0xF0 && bySecond < 0x90) return 0;
    if (byFirst == 0xF4 && bySecond > 0x8F) return 0; // beyond Unicode
    for (size_t uAt = 1; uAt < uLength; uAt++)
    {
        if ((bypText[uAt] & 0xC0) != 0x80) return 0; // also stops at the terminator
    }
    return uLength;
}

// A name may be in any character set, so a byte that is not UTF-8 becomes the character of its
// number.
static void PutText(ENTRY *spEntry, const char *cpKey, const char *cpText, size_t uLongest)
{
    char szText[XBSA_TRACE_SIZE];
    x_CopyText(szText, sizeof szText, cpText, uLongest);
    const unsigned char *bypText = reinterpret_cast<const unsigned char *>(szText);
    Put(spEntry, ",\"%s\":\"", cpKey);
    while (*bypText != '\0')
    {
        size_t uLength = CharacterLength(bypText);
        bool bEscaped = *bypText < ' ' || *bypText == 0x7F || uLength == 0;
        bool bQuoted = *bypText == '"' || *bypText == '\\';
        if (bEscaped) Put(spEntry, "\\u%04x", *bypText);
        else Put(spEntry, "%s%.*s", bQuoted ? "\\" : "", static_cast<int>(uLength), bypText);
        bypText += bEscaped ? 1 : uLength;
    }
    Put(spEntry, "\"");
}

// Uses integers only, because the host's locale may print fractions with a comma.
static void PutTimes(ENTRY *spEntry, const JOURNAL *spJournal)
{
    struct timespec sNow = {0, 0};
    clock_gettime(CLOCK_MONOTONIC, &sNow);
    long lSeconds = sNow.tv_sec - spJournal->sBegun.tv_sec;
    long lMicros = (sNow.tv_nsec - spJournal->sBegun.tv_nsec) / 1000;
    if (lMicros < 0)
    {
        lSeconds--;
        lMicros += 1000000;
    }
    Put(spEntry, ",\"seconds\":%ld.%06ld", lSeconds, lMicros);
}

static void PutHead(ENTRY *spEntry, const JOURNAL *spJournal)
{
    char szTime[32];
    struct tm sNow = {};
    time_t lNow = time(nullptr);
    gmtime_r(&lNow, &sNow);
    strftime(szTime, sizeof szTime, "%Y-%m-%dT%H:%M:%SZ", &sNow);
    Put(spEntry, "{\"schema\":1,\"time\":\"%s\",\"pid\":%d", szTime, sPrivate.iProcess);
    Put(spEntry, ",\"mode\":\"%s\"", sGlobal.iQAB != 0 ? "informix" : "plain");
    Put(spEntry, ",\"direction\":\"%s\"", spJournal->eDirection == STOR_MODE ? "store" : "restore");
}

static void PutServer(ENTRY *spEntry)
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    char szServer[HOST_LONGEST + 16];
    snprintf(szServer, sizeof szServer, "%.*s:%d", HOST_LONGEST, spSMS->szHostName, spSMS->iPort);
    PutText(spEntry, "server", spSMS->szHostName[0] != '\0' ? szServer : "", sizeof szServer);
}

size_t journal_Compose(JOURNAL *spJournal, bool bWhole)
{
    const BSA_ObjectDescriptor *spObject = &sGlobal.sObject.sBSA_Object;
    const BSA_ObjectName *spName = &spObject->objectName;
    char szDigits[JOURNAL_DIGITS + 1];
    journal_ReadChecksum(spJournal, szDigits);

    ENTRY sEntry = {spJournal->szLine, spJournal->szLine + sizeof spJournal->szLine};
    PutHead(&sEntry, spJournal);
    PutText(&sEntry, "space", spName->objectSpaceName, sizeof spName->objectSpaceName);
    PutText(&sEntry, "path", spName->pathName, sizeof spName->pathName);
    Put(&sEntry, ",\"copy_id\":%u", spObject->copyId.right);
    PutServer(&sEntry);
    Put(&sEntry, ",\"bytes\":%llu", spJournal->ullBytes);
    Put(&sEntry, ",\"blocks\":%llu", spJournal->ullBlocks);
    PutTimes(&sEntry, spJournal);
    Put(&sEntry, ",\"result\":%d", bWhole ? BSA_RC_SUCCESS : BSA_RC_ABORT_SYSTEM_ERROR);
    PutText(&sEntry, "error", bWhole ? "" : spJournal->szError, sizeof spJournal->szError);
    Put(&sEntry, ",\"xxh128\":\"%s\"}\n", szDigits);
    return static_cast<size_t>(sEntry.cpNext - spJournal->szLine);
}
