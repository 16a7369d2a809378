#include "tracelog_rules.h"

#include <algorithm>
#include <array>

#include "tracelog_steps.h"
#include "tracelog_text.h"

namespace
{
constexpr uint64_t NO_MATCH = 17; // codes that are answers, not failures
constexpr uint64_t NO_MORE_DATA = 18;

void Begin(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, STEP_KIND I_eKind,
           const std::string &I_strText)
{
    if (X_sSession.bPending) session_AddStep(X_sSession, X_sSession.sPending);
    X_sSession.sPending = STEP{};
    X_sSession.sPending.eKind = I_eKind;
    X_sSession.sPending.iStart = X_sSession.sPending.iEnd = I_sLine.iTime;
    X_sSession.sPending.strText = I_strText;
    X_sSession.bPending = true;
}

void End(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const std::string &I_strResult,
         bool I_bFailed)
{
    if (!X_sSession.bPending) return;
    X_sSession.bPending = false;
    X_sSession.sPending.iEnd = I_sLine.iTime;
    X_sSession.sPending.bEnded = true;
    X_sSession.sPending.bFailed = I_bFailed;
    X_sSession.sPending.strResult = I_strResult;
    session_AddStep(X_sSession, X_sSession.sPending);
}

void AddMark(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, STEP_KIND I_eKind,
             const std::string &I_strText)
{
    STEP sStep;
    sStep.eKind = I_eKind;
    sStep.iStart = sStep.iEnd = I_sLine.iTime;
    sStep.bEnded = true;
    sStep.strText = I_strText;
    session_AddStep(X_sSession, sStep);
}

void EndData(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine)
{
    if (!X_sSession.bData) return;
    X_sSession.bData = false;
    X_sSession.sData.iEnd = I_sLine.iTime;
    X_sSession.sData.bEnded = true;
    session_AddStep(X_sSession, X_sSession.sData);
}

bool IsRefusal(std::string_view I_svReply)
{
    return !I_svReply.empty() && (I_svReply[0] == '4' || I_svReply[0] == '5');
}

// The object at the end of the utility's command line.
std::string_view ObjectOf(std::string_view I_svCommand)
{
    const size_t uPlace = I_svCommand.rfind(" -- ");
    if (uPlace == std::string_view::npos) return "";
    I_svCommand.remove_prefix(uPlace + 4);
    while (!I_svCommand.empty() && I_svCommand[0] == ' ') I_svCommand.remove_prefix(1);
    return I_svCommand;
}

// The saveset behind "-s".
std::string_view CopyOf(std::string_view I_svCommand)
{
    const size_t uPlace = I_svCommand.find(" -s ");
    if (uPlace == std::string_view::npos) return "";
    I_svCommand.remove_prefix(uPlace + 4);
    return I_svCommand.substr(0, I_svCommand.find(' '));
}

// "-b", "-r" or "-q" behind the path of the utility, and what follows.
std::string_view TaskOf(std::string_view I_svCommand)
{
    size_t uPlace = I_svCommand.size();
    for (const char *cpTask : {" -b ", " -r ", " -q "})
        uPlace = std::min(uPlace, I_svCommand.find(cpTask));
    return uPlace < I_svCommand.size() ? I_svCommand.substr(uPlace + 1) : "";
}

void TakeCommand(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (!I_svRest.empty() && I_svRest.back() == ']') I_svRest.remove_suffix(1);
    const std::string_view svTask = TaskOf(I_svRest);
    std::string_view svVerb =
        svTask.substr(0, 2) == "-q" ? "query" : svTask.substr(std::min<size_t>(3, svTask.size()));
    while (!svVerb.empty() && (svVerb[0] == ' ' || svVerb[0] == '\'')) svVerb.remove_prefix(1);
    svVerb = svVerb.substr(0, svVerb.find_first_of(": "));
    if (svVerb.empty()) svVerb = "run without a task";

    const std::string strObject = text_Clean(ObjectOf(I_svRest));
    if (svVerb == "query") AddMark(X_sSession, I_sLine, STEP_KIND::OBJECT, "query of " + strObject);
    if (svVerb == "openjob")
    {
        const char *cpWhat = svTask[1] == 'b' ? "backup of " : "restore of ";
        AddMark(X_sSession, I_sLine, STEP_KIND::OBJECT,
                cpWhat + strObject + ", copy id " + text_Clean(CopyOf(I_svRest)));
    }
    X_sSession.bInformix = true;
    Begin(X_sSession, I_sLine, STEP_KIND::UTILITY, text_Clean(svVerb));
}

void TakeParsed(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const bool bFailed = !lines_StartsWith(I_svRest, "0");
    if (bFailed) steps_NoteError(X_sSession, I_sLine, true);
    End(X_sSession, I_sLine, bFailed ? "refused" : "answered", bFailed);
}

void TakeUnanswered(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    steps_NoteError(X_sSession, I_sLine, false);
    End(X_sSession, I_sLine, "no answer", true);
}

void TakeUtilityError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    steps_NoteError(X_sSession, I_sLine, false);
}

void TakeParsing(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (lines_StartsWith(I_svRest, "reply=ERROR")) steps_NoteError(X_sSession, I_sLine, true);
}

void TakeOwner(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/, std::string_view I_svRest)
{
    X_sSession.strOwner = text_Clean(I_svRest);
}

void TakeInformix(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/,
                  std::string_view /*rest*/)
{
    X_sSession.bInformix = true;
}

void TakeUser(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/, std::string_view I_svRest)
{
    X_sSession.strUser = text_Clean(I_svRest);
}

// A process writes name and path one behind the other: only then they are one object's.
void TakeName(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (X_sSession.bNamed) steps_SetSign(X_sSession, I_sLine);
    X_sSession.bNamed = true;
    X_sSession.strName = text_Clean(I_svRest);
}

void AddPlainObject(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const char *cpWhat,
                    std::string_view I_svPath)
{
    const bool bUnknown = (X_sSession.uCall & CALL_UNKNOWN) != 0;
    if (!X_sSession.bNamed && !bUnknown) steps_SetSign(X_sSession, I_sLine);
    const bool bPair = X_sSession.bNamed && !session_IsMixed(X_sSession);
    const std::string strName = bPair ? X_sSession.strName : "an object";
    X_sSession.bNamed = false;
    AddMark(X_sSession, I_sLine, STEP_KIND::OBJECT,
            cpWhat + strName + " in " + text_Clean(I_svPath));
}

void TakeStorePath(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddPlainObject(X_sSession, I_sLine, "backup of ", I_svRest);
}

void TakeReadPath(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddPlainObject(X_sSession, I_sLine, "restore of ", I_svRest);
}

void TakeConnect(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    X_sSession.strHost = text_Clean(I_svRest);
    Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "connect to " + X_sSession.strHost);
}

void TakeConnected(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    End(X_sSession, I_sLine, "connected", false);
}

void TakeBroken(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    steps_NoteError(X_sSession, I_sLine, true);
    End(X_sSession, I_sLine, "failed", true);
}

void TakeGreeting(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "greeting");
}

void TakeSent(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, text_Clean(I_svRest));
    if (lines_StartsWith(I_svRest, "USER ")) TakeUser(X_sSession, I_sLine, I_svRest.substr(5));
}

// A reply of several lines ends with the one that has no "-" behind its code.
void TakeReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (I_svRest.size() > 3 && I_svRest[3] == '-') return;
    End(X_sSession, I_sLine, text_Clean(I_svRest), IsRefusal(I_svRest));
}

void TakeTransferReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                       std::string_view I_svRest)
{
    const bool bPositive = lines_StartsWith(I_svRest, "1");
    TakeReply(X_sSession, I_sLine, I_svRest);
    if (bPositive) Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "the server's data connection");
}

// At level 1 each reply stands alone.
void TakeLoginReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (IsRefusal(I_svRest)) steps_NoteError(X_sSession, I_sLine, true);
    if (X_sSession.bReplies) AddMark(X_sSession, I_sLine, STEP_KIND::REPLY, text_Clean(I_svRest));
}

void AddReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svCode)
{
    X_sSession.uCall = CALL_NONE;
    const uint64_t uCode = lines_TakeNumber(I_svCode);
    if (uCode == 0 || uCode == NO_MATCH || uCode == NO_MORE_DATA) return;
    X_sSession.bFailed = true;
    steps_NoteError(X_sSession, I_sLine, true);
    STEP sStep;
    sStep.iStart = sStep.iEnd = I_sLine.iTime;
    sStep.bEnded = true;
    sStep.bFailed = true;
    sStep.strText = text_Clean(I_sLine.svText);
    session_AddStep(X_sSession, sStep);
}

void TakeReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddReturn(X_sSession, I_sLine, I_svRest);
}

// The code comes one line before the end of these calls.
void TakeEarlyReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const unsigned uCall = X_sSession.uCall;
    AddReturn(X_sSession, I_sLine, I_svRest);
    X_sSession.uCall = uCall;
    X_sSession.bRejected = uCall == CALL_INIT && lines_StartsWith(I_svRest, "5 ");
}

void TakeCallEnd(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/, std::string_view /*rest*/)
{
    X_sSession.uCall = CALL_NONE;
}

void TakeTransaction(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/,
                     std::string_view /*rest*/)
{
    X_sSession.bTransaction = true;
}

void TakeTransactionEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                        std::string_view /*rest*/)
{
    EndData(X_sSession, I_sLine);
    X_sSession.bTransaction = false;
    X_sSession.uCall = CALL_NONE;
}

void TakeOpened(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const bool bBackup = X_sSession.uCall == CALL_CREATE;
    X_sSession.bTransfer = lines_StartsWith(I_svRest, "0");
    End(X_sSession, I_sLine, X_sSession.bTransfer ? "open" : "failed", !X_sSession.bTransfer);
    AddReturn(X_sSession, I_sLine, I_svRest);
    if (!X_sSession.bTransfer) return;
    X_sSession.bData = true;
    X_sSession.sData = STEP{};
    X_sSession.sData.eKind = STEP_KIND::DATA;
    X_sSession.sData.strText = bBackup ? "sent" : "received";
    X_sSession.sData.iStart = X_sSession.sData.iEnd = I_sLine.iTime;
    X_sSession.iBlock = I_sLine.iTime;
}

void NotePause(STEP &X_sData, int64_t I_iFrom, int64_t I_iTo)
{
    if (I_iTo - I_iFrom <= X_sData.iPause) return;
    X_sData.iPause = I_iTo - I_iFrom;
    X_sData.iPauseStart = I_iFrom;
}

// "65535, total: 131070": the process counts, and another process's line breaks the sum.
void TakeBlock(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    constexpr std::string_view TOTAL = ", total: ";
    const uint64_t uBytes = lines_TakeNumber(I_svRest);
    if (!lines_StartsWith(I_svRest, TOTAL)) return;
    I_svRest.remove_prefix(TOTAL.size());
    const uint64_t uTotal = lines_TakeNumber(I_svRest);
    if (X_sSession.bTotalKnown && uTotal != X_sSession.uTotal + uBytes)
        X_sSession.strSign = "the total of line " + std::to_string(I_sLine.uNumber) +
                             " does not follow from the one before";
    X_sSession.bTotalKnown = true;
    X_sSession.uTotal = uTotal;
    X_sSession.uBytes += uBytes;
    if (!X_sSession.bData) return;

    STEP &sData = X_sSession.sData;
    sData.uBytes += uBytes;
    sData.uBlocks += uBytes > 0 ? 1 : 0;
    sData.iEnd = I_sLine.iTime;
    NotePause(sData, X_sSession.iBlock, I_sLine.iTime);
    X_sSession.iBlock = I_sLine.iTime;
}

void TakeDataEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    EndData(X_sSession, I_sLine);
    if (X_sSession.bTransfer) Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "end of data");
    else Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "QUIT");
}

// The reply to the data comes first, that to QUIT second.
void TakeClosingReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const bool bData = X_sSession.bTransfer;
    const bool bFailed = bData ? !lines_StartsWith(I_svRest, "226") : IsRefusal(I_svRest);
    const std::string strReply = text_Clean(I_svRest);
    End(X_sSession, I_sLine, strReply.empty() ? "no reply" : strReply, bFailed);
    X_sSession.bTransfer = false;
    if (bData) Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "QUIT");
}

void TakeDataReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddReturn(X_sSession, I_sLine, I_svRest);
    X_sSession.uTotal = 0;
    X_sSession.bTransfer = false;
}

void TakeFound(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    AddMark(X_sSession, I_sLine, STEP_KIND::CALL,
            "found copy id " + text_Clean(I_svRest.substr(0, I_svRest.find(':'))));
}

void TakeNoMatch(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    AddMark(X_sSession, I_sLine, STEP_KIND::CALL, "found no match");
}

void TakeTerminated(TRACE_SESSION &X_sSession, const LOG_LINE & /*I_sLine*/,
                    std::string_view /*rest*/)
{
    X_sSession.uCall = CALL_NONE;
    X_sSession.bTerminated = true;
}

void TakeTerminateError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                        std::string_view /*rest*/)
{
    X_sSession.uCall = CALL_NONE;
    X_sSession.bFailed = true;
    steps_NoteError(X_sSession, I_sLine, true);
}

constexpr RULE asSend[] = {
    {"Data written: ", TakeBlock}, {"bufferLen", nullptr}, {"send() ", nullptr}};
constexpr RULE asReceive[] = {{"Data read: ", TakeBlock},
                              {"bufferLen", nullptr},
                              {"recv() ", nullptr},
                              {"Start", nullptr},
                              {"End", nullptr}};
constexpr RULE asReplies[] = {{"sigprocmask()", nullptr},
                              {"Receiving message", nullptr},
                              {"recv() return", nullptr},
                              {"Calling recv(", nullptr}};
constexpr RULE asSends[] = {
    {"Calling send(", nullptr}, {"send() return", nullptr}, {"done send()", nullptr}};
constexpr RULE asLogin[] = {{" REPLY: ", TakeLoginReply}};
constexpr RULE asUtility[] = {{"COM COMMAND: [", TakeCommand},
                              {"Saveset ID: [", nullptr},
                              {"OPEN_JOB", nullptr},
                              {"parse_com_answer return: [", TakeParsed},
                              {"COM answer not received.", TakeUnanswered},
                              {"COM Interface command could not be executed.", TakeUnanswered},
                              {"COM utility executable", nullptr}};
constexpr RULE asParse[] = {{"Parsing line: [", TakeParsing},
                            {"ERROR MESSAGE: [", TakeUtilityError}};
constexpr RULE asFind[] = {{"INI line found", nullptr}, {"Searching COM utility", nullptr}};
constexpr RULE asInit[] = {{"Start", nullptr},
                           {"Input: BSA_ObjectOwner.bsa_ObjectOwner = ", TakeOwner},
                           {"Input: ", nullptr},
                           {"Informix session.", TakeInformix},
                           {"Return: ", TakeEarlyReturn},
                           {"End", TakeCallEnd},
                           {"BSA_SERVICE_HOST: ", nullptr},
                           {"BSA_", nullptr}};
constexpr RULE asBegin[] = {
    {"Start", TakeTransaction}, {"Return: ", TakeEarlyReturn}, {"End", TakeCallEnd}};
constexpr RULE asEndTxn[] = {{"End", TakeTransactionEnd}};
constexpr RULE asCreate[] = {{"User: ", TakeUser},
                             {"Password: ", nullptr},
                             {"Object name: ", TakeName},
                             {"Object path: ", TakeStorePath},
                             {"Return: ", TakeOpened}};
constexpr RULE asGet[] = {{"User: ", TakeUser},         {"Password: ", nullptr},
                          {"Object name: ", TakeName},  {"Object path: ", TakeReadPath},
                          {"Saveset name: ", nullptr},  {"SMS has not returned", nullptr},
                          {"End, return: ", TakeOpened}};
constexpr RULE asQuery[] = {
    {"COPYID: ", TakeFound}, {"No match.", TakeNoMatch}, {"End", TakeCallEnd}};
constexpr RULE asNext[] = {{"End, return: ", TakeReturn}};
constexpr RULE asEndData[] = {{"Start", TakeDataEnd},
                              {"Received message: ", TakeClosingReply},
                              {"Invalid sKorva.iLastOp", nullptr},
                              {"Return CODE: ", TakeDataReturn}};
constexpr RULE asTerminate[] = {{"Closing trace", TakeTerminated},
                                {"Invalid Handle", TakeTerminateError}};
constexpr RULE asConnect[] = {{"Host name: ", TakeConnect},
                              {"connect() - connected", TakeConnected},
                              {"gethostbyname() cannot find host.", nullptr}};
constexpr RULE asOpen[] = {{"Exiting, xbsa_connect() failed", TakeBroken},
                           {"Calling stpc_recv()", TakeGreeting},
                           {"Welcome: ", TakeReply},
                           {"Send command: ", TakeSent},
                           {"Received message: ", TakeReply},
                           {"Failed to recieve", TakeBroken},
                           {"stpc_recv() failed", TakeBroken},
                           {"Reply String empty", TakeBroken},
                           {"send() function failed", TakeBroken}};
constexpr RULE asPort[] = {{"Send message: ", TakeSent}, {"Received message: ", TakeReply}};
constexpr RULE asTransfer[] = {{"Send message: ", TakeSent},
                               {"Received message: ", TakeTransferReply}};
constexpr RULE asInfo[] = {{"Start", nullptr}};

constexpr unsigned OPENING = CALL_CREATE | CALL_GET;
constexpr unsigned RUNNING = OPENING | CALL_QUERY | CALL_END_DATA;

template <size_t COUNT>
constexpr FUNCTION Function(std::string_view I_svName, unsigned I_uCall, unsigned I_uWithin,
                            const RULE (&I_asRules)[COUNT])
{
    return {I_svName, I_uCall, I_uWithin, I_asRules, COUNT};
}

// Those with most lines first.
constexpr FUNCTION asFunctions[] = {
    Function("BSASendData", 0, CALL_NONE, asSend),
    Function("BSAGetData", 0, CALL_NONE, asReceive),
    Function("stpc_recv", 0, OPENING | CALL_END_DATA, asReplies),
    Function("com_intf", 0, RUNNING, asUtility),
    Function("parse_com_answer", 0, RUNNING, asParse),
    Function("xbsa_open", 0, OPENING, asOpen),
    Function("LOGIN", 0, OPENING, asLogin),
    Function("stpc_port", 0, OPENING, asPort),
    Function("stpc_stor", 0, CALL_CREATE, asTransfer),
    Function("stpc_retr", 0, CALL_GET, asTransfer),
    Function("stpc_send", 0, OPENING | CALL_END_DATA, asSends),
    Function("xbsa_connect", 0, OPENING, asConnect),
    Function("BSACreateObject", CALL_CREATE, CALL_CREATE, asCreate),
    Function("BSAGetObject", CALL_GET, CALL_GET, asGet),
    Function("BSAEndData", CALL_END_DATA, CALL_END_DATA, asEndData),
    Function("BSABeginTxn", CALL_BEGIN, CALL_BEGIN, asBegin),
    Function("BSAEndTxn", CALL_END_TXN, CALL_END_TXN, asEndTxn),
    Function("find_com_intf", 0, RUNNING, asFind),
    Function("BSAQueryObject", CALL_QUERY, CALL_QUERY, asQuery),
    Function("BSAGetNextQueryObject", CALL_NEXT, CALL_NEXT, asNext),
    Function("BSAInit", CALL_INIT, CALL_INIT, asInit),
    Function("BSATerminate", CALL_TERMINATE, CALL_TERMINATE, asTerminate),
    Function("sms_parseinfo", 0, CALL_CREATE, asInfo),
    Function("make_KORVA_authentication", 0, OPENING, asInfo),
};
} // namespace

const FUNCTION *rules_Find(std::string_view I_svName)
{
    for (const FUNCTION &sFunction : asFunctions)
        if (sFunction.svName == I_svName) return &sFunction;
    return nullptr;
}
