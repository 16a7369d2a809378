#include "trace/parts.h"

#include <algorithm>
#include <charconv>

namespace trace
{
struct FUNCTION
{
    std::string_view svName;
    unsigned uWithin; // the calls in which its lines can appear
    unsigned uCall;   // the call that its line "Start" begins; 0 for none
};

namespace
{
constexpr uint64_t NO_MATCH = 17; // codes that are results, not failures
constexpr uint64_t NO_MORE_DATA = 18;

// The number at the start of the text, 0 when there is none; the text continues after it.
uint64_t TakeNumber(std::string_view &X_svText)
{
    uint64_t uNumber = 0;
    const char *cpStart = X_svText.data();
    const auto sResult = std::from_chars(cpStart, cpStart + X_svText.size(), uNumber);
    X_svText.remove_prefix(static_cast<size_t>(sResult.ptr - cpStart));
    return uNumber;
}

// One line on its way into a session.
struct TAKE
{
    SESSION &sSession;
    PROGRESS &sProgress;
    const LOG_LINE &sLine;
    std::string_view svRest; // what follows the words that identified the line

    std::string Rest() const
    {
        return Clean(svRest);
    }
    bool RestIs(std::string_view I_svStart) const
    {
        return svRest.starts_with(I_svStart);
    }
    bool IsRefusal() const
    {
        return RestIs("4") || RestIs("5");
    }
    bool InData() const
    {
        return sProgress.sPending && sProgress.sPending->eKind == KIND::DATA;
    }

    // Begins a step; a step that is still open is kept as not ended.
    void Begin(KIND I_eKind, const std::string &I_strText) const
    {
        if (sProgress.sPending) sSession.AddStep(*sProgress.sPending);
        sProgress.sPending = STEP{I_eKind, sLine.sPlace.iTime, I_strText};
    }

    void End(const std::string &I_strResult, bool I_bFailed = false) const
    {
        if (!sProgress.sPending) return;
        STEP sStep = *std::exchange(sProgress.sPending, std::nullopt);
        sStep.iEnd = sLine.sPlace.iTime;
        sStep.bEnded = true;
        sStep.bFailed = I_bFailed;
        sStep.strResult = I_strResult;
        sSession.AddStep(sStep);
    }

    // A heading; a backup keeps its job until its copy is certain.
    void AddObject(const std::string &I_strText, const std::string &I_strCopy = "",
                   const std::string &I_strJob = "") const
    {
        sSession.AddStep({.eKind = KIND::OBJECT,
                          .iStart = sLine.sPlace.iTime,
                          .strText = I_strText,
                          .strResult = I_strCopy,
                          .strJob = I_strJob});
    }

    // What a call found, or its failure.
    void AddCall(const std::string &I_strText, bool I_bFailed) const
    {
        STEP sStep{KIND::CALL, sLine.sPlace.iTime, I_strText};
        sStep.bFailed = I_bFailed;
        sSession.AddStep(sStep);
        sSession.bFailed |= I_bFailed;
    }

    // A call has returned the code.
    void Return() const
    {
        sProgress.uCall = IN_NONE;
        std::string_view svCode = svRest;
        const uint64_t uCode = TakeNumber(svCode);
        if (uCode == 0 || uCode == NO_MATCH || uCode == NO_MORE_DATA) return;
        NoteError(true);
        AddCall(Clean(sLine.svText), true);
    }

    // Weak: a later error may say more.
    void NoteError(bool I_bWeak) const
    {
        if (!sSession.sError || (sSession.sError->bWeak && !I_bWeak))
            sSession.sError = {sLine.sPlace, Clean(sLine.svText), I_bWeak};
    }

    void SetSign() const // the line cannot appear here
    {
        const size_t uEnd = sLine.svText.find_first_of(":( ");
        sProgress.strSign = "line " + std::to_string(sLine.sPlace.uLine) + " (" +
                            std::string(sLine.svText.substr(0, uEnd)) + ") is out of sequence";
    }
};

void EndCall(const TAKE &I_sTake)
{
    if (I_sTake.InData())
    {
        I_sTake.End("");
        I_sTake.AddCall("the object was abandoned: no BSAEndData", true);
    }
    I_sTake.sProgress.uCall = IN_NONE;
}

// These calls trace the code one line before their end.
void TakeEarlyReturn(const TAKE &I_sTake)
{
    const unsigned uCall = I_sTake.sProgress.uCall;
    I_sTake.Return();
    I_sTake.sProgress.uCall = uCall;
    I_sTake.sProgress.bRejected = uCall == IN_INIT && I_sTake.RestIs("5 ");
}

void TakeName(const TAKE &I_sTake)
{
    if (I_sTake.sProgress.strName) I_sTake.SetSign();
    I_sTake.sProgress.strName = I_sTake.Rest();
}

// A process writes name and path in sequence: only then they belong to one object.
void TakePath(const TAKE &I_sTake, const char *cpWhat)
{
    std::optional<std::string> &strName = I_sTake.sProgress.strName;
    if (!strName && (I_sTake.sProgress.uCall & IN_UNKNOWN) == 0) I_sTake.SetSign();
    const bool bPair = strName && !I_sTake.sSession.IsMixed();
    const std::string strObject = (bPair ? *strName : "an object") + " in " + I_sTake.Rest();
    I_sTake.AddObject(cpWhat + strObject);
    strName.reset();
}

void TakeConnect(const TAKE &I_sTake)
{
    I_sTake.sSession.strHost = I_sTake.Rest();
    I_sTake.Begin(KIND::CONTROL, "connect to " + I_sTake.sSession.strHost);
}

void TakeBroken(const TAKE &I_sTake)
{
    I_sTake.NoteError(true);
    I_sTake.End("failed", true);
}

void TakeSent(const TAKE &I_sTake)
{
    I_sTake.Begin(KIND::CONTROL, I_sTake.Rest());
    if (I_sTake.RestIs("USER ")) I_sTake.sSession.strUser = Clean(I_sTake.svRest.substr(5));
}

// A reply of several lines ends with the one that has no "-" after its code.
void TakeReply(const TAKE &I_sTake)
{
    if (I_sTake.svRest.size() > 3 && I_sTake.svRest[3] == '-') return;
    I_sTake.End(I_sTake.Rest(), I_sTake.IsRefusal());
}

void TakeTransferReply(const TAKE &I_sTake)
{
    TakeReply(I_sTake);
    if (I_sTake.RestIs("1")) I_sTake.Begin(KIND::CONTROL, "the server's data connection");
}

// At level 1 there are only replies.
void TakeLoginReply(const TAKE &I_sTake)
{
    if (I_sTake.IsRefusal()) I_sTake.NoteError(true);
    if (I_sTake.sSession.eOrigin == ORIGIN::REPLIES)
        I_sTake.sSession.AddStep({KIND::REPLY, I_sTake.sLine.sPlace.iTime, I_sTake.Rest()});
}

void TakeOpened(const TAKE &I_sTake, const char *cpVerb)
{
    const bool bOpen = I_sTake.RestIs("0");
    I_sTake.sProgress.bTransfer = bOpen;
    I_sTake.End(bOpen ? "open" : "failed", !bOpen);
    I_sTake.Return();
    if (bOpen) I_sTake.Begin(KIND::DATA, cpVerb);
}

// "65535, total: 131070": a line of another process breaks the running total.
void TakeBlock(const TAKE &I_sTake, const char *cpVerb)
{
    constexpr std::string_view TOTAL = ", total: ";
    PROGRESS &sProgress = I_sTake.sProgress;
    std::string_view svRest = I_sTake.svRest;
    const uint64_t uBytes = TakeNumber(svRest);
    if (!svRest.starts_with(TOTAL)) return;
    svRest.remove_prefix(TOTAL.size());
    const uint64_t uTotal = TakeNumber(svRest);
    if (sProgress.uTotal && uTotal != *sProgress.uTotal + uBytes)
        sProgress.strSign = "the total of line " + std::to_string(I_sTake.sLine.sPlace.uLine) +
                            " does not match the total before it";
    sProgress.uTotal = uTotal;
    I_sTake.sSession.uBytes += uBytes;
    if (!I_sTake.InData() && (sProgress.uCall & IN_UNKNOWN) == 0) return;
    if (!I_sTake.InData()) I_sTake.Begin(KIND::DATA, cpVerb); // the log began in the middle
    sProgress.bTransfer = true;
    sProgress.sPending->AddBlock(uBytes, I_sTake.sLine.sPlace.iTime);
}

void TakeDataEnd(const TAKE &I_sTake)
{
    if (I_sTake.InData()) I_sTake.End("");
    I_sTake.Begin(KIND::CONTROL, I_sTake.sProgress.bTransfer ? "end of data" : "QUIT");
}

// The reply to the data comes first, the reply to QUIT second.
void TakeClosingReply(const TAKE &I_sTake)
{
    const bool bData = std::exchange(I_sTake.sProgress.bTransfer, false);
    const std::string strReply = I_sTake.Rest();
    I_sTake.End(strReply.empty() ? "no reply" : strReply,
                bData ? !I_sTake.RestIs("226") : I_sTake.IsRefusal());
    if (bData) I_sTake.Begin(KIND::CONTROL, "QUIT");
}

void TakeDataReturn(const TAKE &I_sTake)
{
    I_sTake.Return();
    if (I_sTake.sProgress.uTotal) I_sTake.sProgress.uTotal = 0;
    I_sTake.sProgress.bTransfer = false;
}

// "copy id 77" of the saveset "77@..."; empty for a text without a number.
std::string CopyName(std::string_view I_svSaveset)
{
    constexpr size_t LONGEST_NUMBER = 20;
    const size_t uDigits = std::min(I_svSaveset.find_first_not_of("0123456789"), LONGEST_NUMBER);
    I_svSaveset = I_svSaveset.substr(0, uDigits);
    return I_svSaveset.empty() ? "" : "copy id " + std::string(I_svSaveset);
}

// What follows the option at that place of a command line, to the end.
std::string_view After(std::string_view I_svLine, size_t I_uOption)
{
    if (I_uOption == std::string_view::npos) return "";
    const size_t uPlace = I_svLine.find_first_not_of(" '", I_uOption + 4);
    return I_svLine.substr(std::min(uPlace, I_svLine.size()));
}

// The command line of the COM utility: "... -b 'openjob:JOB' ... -s SAVESET ... -- OBJECT]". For a
// restore the client names the copy; for a backup the server does. A job that ends well shows for
// certain which copy it made, even if other processes write to the log.
void TakeCommand(const TAKE &I_sTake)
{
    std::string_view svLine = I_sTake.svRest;
    if (svLine.ends_with(']')) svLine.remove_suffix(1);
    const size_t uBackup = svLine.find(" -b ");
    const size_t uQuery = svLine.find(" -q ");
    const size_t uTask = std::min({uBackup, uQuery, svLine.find(" -r ")});
    const std::string_view svTask = After(svLine, uTask);
    const size_t uColon = std::min(svTask.find(':'), svTask.size());
    const size_t uEnd = svTask.find_first_of(" '", uColon);
    const std::string strJob = Clean(svTask.substr(uColon, uEnd - uColon));
    const std::string strObject = Clean(After(svLine, svLine.rfind(" -- ")));
    const std::string strCopy = CopyName(After(svLine, svLine.find(" -s ")));
    std::string strVerb = Clean(svTask.substr(0, svTask.find_first_of(": ")));
    if (strVerb.empty()) strVerb = "run without a task";
    if (uTask == uQuery && uTask != std::string_view::npos) strVerb = "query";

    if (strVerb == "query") I_sTake.AddObject("query of " + strObject);
    if (strVerb == "openjob" && uTask == uBackup)
        I_sTake.AddObject("backup of " + strObject, "", strJob);
    if (strVerb == "openjob" && uTask != uBackup)
        I_sTake.AddObject("restore of " + strObject, strCopy);
    if (strVerb == "closejob" && !strCopy.empty() && svLine.ends_with(" -i 0"))
        I_sTake.sSession.sSteps.NameCopy(strJob, strCopy);
    I_sTake.sSession.bInformix = true;
    I_sTake.Begin(KIND::UTILITY, strVerb);
}

void TakeAnswer(const TAKE &I_sTake)
{
    constexpr std::string_view SAVESET = "savesetname=";
    if (I_sTake.RestIs("reply=ERROR")) I_sTake.NoteError(true);
    STEP *spStep = I_sTake.sSession.sSteps.Last();
    const bool bOwn = !I_sTake.sSession.IsMixed() && spStep != nullptr && !spStep->strJob.empty();
    if (bOwn && I_sTake.RestIs(SAVESET))
        spStep->strResult = CopyName(I_sTake.svRest.substr(SAVESET.size()));
}

void TakeParsed(const TAKE &I_sTake)
{
    const bool bFailed = !I_sTake.RestIs("0");
    if (bFailed) I_sTake.NoteError(true);
    I_sTake.End(bFailed ? "refused" : "answered", bFailed);
}

void TakeUnanswered(const TAKE &I_sTake)
{
    I_sTake.NoteError(false);
    I_sTake.End("no answer", true);
}

void TakeTerminated(const TAKE &I_sTake)
{
    EndCall(I_sTake);
    I_sTake.sSession.eState = STATE::TERMINATED;
}

void TakeTerminateError(const TAKE &I_sTake)
{
    I_sTake.sProgress.uCall = IN_NONE;
    I_sTake.sSession.bFailed = true;
    I_sTake.NoteError(true);
}

constexpr unsigned OPENING = IN_CREATE | IN_GET;
constexpr unsigned TALKING = OPENING | IN_END_DATA;
constexpr unsigned RUNNING = TALKING | IN_QUERY;

// The most frequent first.
constexpr FUNCTION FUNCTIONS[] = {
    {"BSASendData", IN_NONE, 0},
    {"BSAGetData", IN_NONE, 0},
    {"stpc_recv", TALKING, 0},
    {"com_intf", RUNNING, 0},
    {"parse_com_answer", RUNNING, 0},
    {"xbsa_open", OPENING, 0},
    {"LOGIN", TALKING, 0},
    {"stpc_port", OPENING, 0},
    {"stpc_stor", IN_CREATE, 0},
    {"stpc_retr", IN_GET, 0},
    {"stpc_send", TALKING, 0},
    {"xbsa_connect", OPENING, 0},
    {"BSACreateObject", IN_CREATE, IN_CREATE},
    {"BSAGetObject", IN_GET, IN_GET},
    {"BSAEndData", IN_END_DATA, IN_END_DATA},
    {"BSABeginTxn", IN_BEGIN, IN_BEGIN},
    {"BSAEndTxn", IN_END_TXN, IN_END_TXN},
    {"find_com_intf", RUNNING, 0},
    {"BSAQueryObject", IN_QUERY, IN_QUERY},
    {"BSAGetNextQueryObject", IN_NEXT, IN_NEXT},
    {"BSAInit", IN_INIT, IN_INIT},
    {"BSATerminate", IN_TERMINATE, IN_TERMINATE},
    {"sms_parseinfo", IN_CREATE, 0},
    {"make_KORVA_authentication", OPENING, 0},
};

struct RULE
{
    std::string_view svFunction; // empty: any
    std::string_view svStart;    // of what follows its name
    void (*fpTake)(const TAKE &I_sTake);
};

constexpr RULE RULES[] = {
    {"BSASendData", "Data written: ", [](const TAKE &sTake) { TakeBlock(sTake, "sent"); }},
    {"BSAGetData", "Data read: ", [](const TAKE &sTake) { TakeBlock(sTake, "received"); }},
    {"com_intf", "COM COMMAND: [", TakeCommand},
    {"com_intf", "parse_com_answer return: [", TakeParsed},
    {"com_intf", "COM answer not received.", TakeUnanswered},
    {"com_intf", "COM Interface command could not be executed.", TakeUnanswered},
    {"parse_com_answer", "Parsing line: [", TakeAnswer},
    {"parse_com_answer", "ERROR MESSAGE: [", [](const TAKE &sTake) { sTake.NoteError(false); }},
    {"LOGIN", " REPLY: ", TakeLoginReply},
    {"xbsa_connect", "Host name: ", TakeConnect},
    {"xbsa_connect", "connect() - connected", [](const TAKE &sTake) { sTake.End("connected"); }},
    {"xbsa_open", "Exiting, xbsa_connect() failed", TakeBroken},
    {"xbsa_open", "Calling stpc_recv()",
     [](const TAKE &sTake) { sTake.Begin(KIND::CONTROL, "greeting"); }},
    {"xbsa_open", "Welcome: ", TakeReply},
    {"xbsa_open", "Send command: ", TakeSent},
    {"xbsa_open", "Failed to recieve", TakeBroken},
    {"xbsa_open", "stpc_recv() failed", TakeBroken},
    {"xbsa_open", "Reply String empty", TakeBroken},
    {"xbsa_open", "send() function failed", TakeBroken},
    {"stpc_stor", "Received message: ", TakeTransferReply},
    {"stpc_retr", "Received message: ", TakeTransferReply},
    {"BSAInit", "Input: BSA_ObjectOwner.bsa_ObjectOwner = ",
     [](const TAKE &sTake) { sTake.sSession.strOwner = sTake.Rest(); }},
    {"BSAInit", "Informix session.", [](const TAKE &sTake) { sTake.sSession.bInformix = true; }},
    {"BSAInit", "Return: ", TakeEarlyReturn},
    {"BSAInit", "End", EndCall},
    {"BSABeginTxn", "Return: ", TakeEarlyReturn},
    {"BSABeginTxn", "End", EndCall},
    {"BSAEndTxn", "End", EndCall},
    {"BSACreateObject", "Object path: ", [](const TAKE &sTake) { TakePath(sTake, "backup of "); }},
    {"BSACreateObject", "Return: ", [](const TAKE &sTake) { TakeOpened(sTake, "sent"); }},
    {"BSAGetObject", "Object path: ", [](const TAKE &sTake) { TakePath(sTake, "restore of "); }},
    {"BSAGetObject", "End, return: ", [](const TAKE &sTake) { TakeOpened(sTake, "received"); }},
    {"BSAQueryObject", "COPYID: ",
     [](const TAKE &sTake) { sTake.AddCall("found " + CopyName(sTake.svRest), false); }},
    {"BSAQueryObject", "No match.",
     [](const TAKE &sTake) { sTake.AddCall("found no match", false); }},
    {"BSAQueryObject", "End", EndCall},
    {"BSAGetNextQueryObject", "End, return: ", [](const TAKE &sTake) { sTake.Return(); }},
    {"BSAEndData", "Start", TakeDataEnd},
    {"BSAEndData", "Received message: ", TakeClosingReply},
    {"BSAEndData", "Return CODE: ", TakeDataReturn},
    {"BSATerminate", "Closing trace", TakeTerminated},
    {"BSATerminate", "Invalid Handle", TakeTerminateError},
    {"", "Send message: ", TakeSent},
    {"", "Received message: ", TakeReply},
    {"", "User: ", [](const TAKE &sTake) { sTake.sSession.strUser = sTake.Rest(); }},
    {"", "Object name: ", TakeName},
};

// A line without a rule is an error when it contains one of these: the library's error texts
// consist of a function's name, the system's text and its own.
constexpr std::string_view ERROR_WORDS[] = {
    "ailed",    "Fail to",    "xiting",    "NEGATIVE",   "refused",  " too long",
    " to long", "Unable",     "could not", "received.",  "Invalid",  "NULL",
    "is empty", "Unexpected", "to small",  "No account", "too small"};

// Error texts do not begin like these; lines that quote a caller's text do. An object that could
// not be limited or written to the journal has not failed.
constexpr std::string_view PLAIN_STARTS[] = {
    "Start",        "End",         "Calling ",           "sigprocmask()",  "Pipe handle",
    "Dumping COM",  "Parsing COM", "COM interface step", "<<<<<",          ">>>>>",
    "Input: ",      "BSA_",        "Password: ",         "Saveset ",       "OPEN_JOB",
    "COM utility",  "Searching ",  "INI line found",     "Invalid sKorva", "KORVA_RATE_LIMIT",
    "KORVA_JOURNAL"};

// The session continues after a value was cut: a later failure says more.
constexpr std::string_view WEAK_WORDS[] = {"cut", "xiting", "Unexpected"};

constexpr std::string_view HANDLES[] = {
    "BSA Handle (process ID) = ", "Start, Input: bsaHandle = ", "Start - bsaHandle = "};

// A call begins only after the end of the one before; its lines appear between start and end.
void CheckOrder(const TAKE &I_sTake, const FUNCTION &I_sFunction)
{
    const bool bStart = I_sFunction.uCall != 0 && I_sTake.RestIs("Start");
    const unsigned uWithin = bStart ? static_cast<unsigned>(IN_NONE) : I_sFunction.uWithin;
    if ((I_sTake.sProgress.uCall & (uWithin | IN_UNKNOWN)) == 0) I_sTake.SetSign();
    if (bStart) I_sTake.sProgress.uCall = I_sFunction.uCall;
}

long HandleOf(const TAKE &I_sTake)
{
    for (const std::string_view svStart : HANDLES)
    {
        if (!I_sTake.RestIs(svStart)) continue;
        std::string_view svNumber = I_sTake.svRest.substr(svStart.size());
        return static_cast<long>(TakeNumber(svNumber));
    }
    return 0;
}
} // namespace

const FUNCTION *Writer(const LOG_LINE &I_sLine)
{
    const std::string_view svName = I_sLine.svText.substr(0, I_sLine.svText.find_first_of(":( "));
    const FUNCTION *spFound = std::ranges::find(FUNCTIONS, svName, &FUNCTION::svName);
    return spFound != std::end(FUNCTIONS) ? spFound : nullptr;
}

void Take(SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sWriter)
{
    TAKE sTake{X_sSession, X_sSession.sProgress, I_sLine,
               I_sLine.svText.substr(I_sWriter.svName.size())};
    for (const std::string_view svSkipped : {"()", ": "})
        if (sTake.RestIs(svSkipped)) sTake.svRest.remove_prefix(svSkipped.size());
    CheckOrder(sTake, I_sWriter);
    sTake.sProgress.lHandle = I_sWriter.uCall != 0 ? HandleOf(sTake) : 0;
    for (const RULE &sRule : RULES)
    {
        const bool bWriter = sRule.svFunction.empty() || sRule.svFunction == I_sWriter.svName;
        if (!bWriter || !sTake.RestIs(sRule.svStart)) continue;
        sTake.svRest.remove_prefix(sRule.svStart.size());
        return sRule.fpTake(sTake);
    }
    const auto fpStarts = [&](std::string_view svStart) { return sTake.RestIs(svStart); };
    const auto fpHolds = [&](std::string_view svWord) {
        return sTake.svRest.find(svWord) != std::string_view::npos;
    };
    if (std::ranges::none_of(PLAIN_STARTS, fpStarts) && std::ranges::any_of(ERROR_WORDS, fpHolds))
        sTake.NoteError(std::ranges::any_of(WEAK_WORDS, fpHolds));
}
} // namespace trace
