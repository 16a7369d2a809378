// Stores the utility's answer in the session record.
#include <cstring>

#include "com/com.h"
#include "trace/trace.h"
#include "util/util.h"

// A key of the answer and what becomes of its value.
typedef struct
{
    const char *cpKey;
    bool bCounts;          // the line counts toward a positive reply
    char *cpField;         // text fields: target of the value
    size_t uSize;          // bytes of that field
    int (*fpTake)(char *); // others: returns 0, or 1 to reject the answer; may be null
} COM_KEY;

static int TakeHostSpec(char *cpValue)
{
    char szPort[8];
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    if (ParseCLIHostSpec(cpValue, spSMS->szHostName, szPort, spSMS->szUser, spSMS->szPass) == 0)
    {
        return 1;
    }
    spSMS->iPort = x_Number(szPort);
    return 0;
}

// "label:id[:buffer size]"; the rest is ignored.
static int TakeTape(char *cpValue)
{
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    const char *cpColon = strchr(cpValue, ':');
    if (cpColon == nullptr) return 1;

    size_t uLabel = static_cast<size_t>(cpColon - cpValue);
    x_CopyText(spSMS->szTape, sizeof spSMS->szTape, cpValue, uLabel);
    spSMS->ulTapeID = static_cast<unsigned long>(x_ToLong(cpColon + 1, nullptr, 10));
    cpColon = strchr(cpColon + 1, ':');
    if (cpColon != nullptr) spSMS->iTCPBufsiz = x_Number(cpColon + 1);
    return 0;
}

// "saveset[@restore id]"
static int TakeSaveset(char *cpValue)
{
    _sSMS *spSMS = &sGlobal.sObject.sSMS;
    STUCT_COM_INPUT *spCOM = &sGlobal.sCOM;
    char *cpAt = strchr(cpValue, '@');
    if (cpAt != nullptr) *cpAt++ = '\0';

    memset(spSMS->szName, 0, sizeof spSMS->szName);
    memset(spCOM->szSavesetID, 0, sizeof spCOM->szSavesetID);
    x_CopyText(spSMS->szName, sizeof spSMS->szName, cpValue);
    i_CopyField("parse_com_answer", spCOM->szSavesetID, sizeof spCOM->szSavesetID, cpValue);
    i_CopyField("parse_com_answer", spCOM->szRestoreID, sizeof spCOM->szRestoreID,
                cpAt != nullptr ? cpAt : "");
    return 0;
}

static int TakeSegment(char *cpValue)
{
    sGlobal.sObject.sSMS.ulSegmentNum = static_cast<unsigned long>(x_ToLong(cpValue, nullptr, 10));
    return 0;
}

static int TakeVerbosity(char *cpValue)
{
    sGlobal.ucXBSATraceLevel = i_LevelToLog(cpValue);
    return 0;
}

// Traces a text of the answer with masked passwords.
static void TraceText(const char *cpWhat, char *cpText, const char *cpEnd)
{
    const char *cpPassword = com_FindPassword(cpText);
    size_t uShown =
        cpPassword != nullptr ? static_cast<size_t>(cpPassword - cpText) : strlen(cpText);
    TRACE("parse_com_answer: %s: [%.*s%s]%s", cpWhat, static_cast<int>(uShown), cpText,
          cpPassword != nullptr ? TRACE_SECRET : "", cpEnd);
}

static int TakeMessage(char *cpValue)
{
    if (i_Verbosity() >= TRACE_STEPS) TraceText("ERROR MESSAGE", cpValue, "");
    return 0;
}

#define TEXT_FIELD(field) (field), sizeof(field), nullptr
#define TAKEN_BY(function) nullptr, 0, (function)

static const COM_KEY asKeys[] = {
    {"reply", false, TAKEN_BY(nullptr)},
    {"jobname", true, TEXT_FIELD(sGlobal.sCOM.szJobName)},
    {"media", false, TAKEN_BY(nullptr)},
    {"tape_server", true, TAKEN_BY(TakeHostSpec)},
    {"drive", true, TEXT_FIELD(sGlobal.sObject.sSMS.szPath)},
    {"tape", true, TAKEN_BY(TakeTape)},
    {"savesetname", true, TAKEN_BY(TakeSaveset)},
    {"format", true, TEXT_FIELD(sGlobal.sObject.sSMS.szInter)},
    {"initiator", true, TAKEN_BY(nullptr)},
    {"segment", true, TAKEN_BY(TakeSegment)},
    {"logfile", true, TEXT_FIELD(sGlobal.szLogFile)},
    {"verbose", true, TAKEN_BY(TakeVerbosity)},
    {"message", true, TAKEN_BY(TakeMessage)},
    {"sessionID", true, TEXT_FIELD(sGlobal.sCOM.szSessionID)},
    {"lifetime", true, TAKEN_BY(nullptr)},
};
static const COM_KEY *const spReplyKey = asKeys;

static int RejectFormat()
{
    TRACE("parse_com_answer: Invalid reply format.");
    return 1;
}

// The first keyword that the line begins with; null if it has none of our keys.
static const COM_KEY *FindKey(const char *cpLine)
{
    for (const COM_KEY &sKey : asKeys)
    {
        if (x_MatchKeyword(cpLine, sKey.cpKey, 0, "= ", 1) == 1) return &sKey;
    }
    return nullptr;
}

static int TakeReply(const char *cpValue, int *ipReplyCheck)
{
    if (*ipReplyCheck != 0) return RejectFormat();
    if (x_MatchKeyword(cpValue, "ERROR", 0, nullptr, 0) == 1) return 1;
    if (x_MatchKeyword(cpValue, "OK", 0, nullptr, 0) == 0) return RejectFormat();
    *ipReplyCheck = 2;
    return 0;
}

// Returns 0, or 1 to reject the answer.
//   ipReplyCheck  0 before any line that counts; above 1 if the answer is positive
static int TakeLine(char *cpLine, int *ipReplyCheck)
{
    char szCOMValue[XBSA_COM_VALUE];
    if (i_Verbosity() >= TRACE_STEPS) TraceText("Parsing line", cpLine, ".");
    const COM_KEY *spKey = FindKey(cpLine);
    char *cpEqual = strchr(cpLine, '=');
    if (spKey == nullptr || cpEqual == nullptr || cpEqual[1] == '\0') return 0;

    int iCut =
        i_CopyField("parse_com_answer", szCOMValue, sizeof szCOMValue, x_SkipSpaces(cpEqual + 1));
    x_AllTrim(szCOMValue);
    if (spKey == spReplyKey) return TakeReply(szCOMValue, ipReplyCheck);

    if (spKey->bCounts) (*ipReplyCheck)++;
    if (iCut == 1 && spKey->fpTake == TakeHostSpec) return 1; // a truncated login is another login
    if (spKey->fpTake != nullptr) return spKey->fpTake(szCOMValue);
    if (spKey->cpField != nullptr)
    {
        i_CopyField("parse_com_answer", spKey->cpField, spKey->uSize, szCOMValue);
    }
    return 0;
}

int parse_com_answer(char *I_bypBuff, unsigned int)
{
    char *cpNext = nullptr;
    int iReplyCheck = 0;
    char *cpCOMLine = strtok_r(I_bypBuff, "\n\r", &cpNext);
    for (; cpCOMLine != nullptr; cpCOMLine = strtok_r(nullptr, "\n\r", &cpNext))
    {
        if (TakeLine(cpCOMLine, &iReplyCheck) != 0) return 1;
    }
    return iReplyCheck > 1 ? 0 : RejectFormat();
}
