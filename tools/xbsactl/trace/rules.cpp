#include "trace/rules.h"

#include <array>

#include "trace/take.h"

namespace trace
{
namespace
{
struct RULE
{
    std::string_view svStart; // of what follows the function's name
    void (*fpTake)(const TAKE &I_sTake);
};

void Ignore(const TAKE & /*I_sTake*/)
{
}

void EndCall(const TAKE &I_sTake)
{
    I_sTake.sProgress.uCall = IN_NONE;
}

void Return(const TAKE &I_sTake)
{
    I_sTake.Return();
}

// The code comes one line before the end of these calls.
void EarlyReturn(const TAKE &I_sTake)
{
    const unsigned uCall = I_sTake.sProgress.uCall;
    I_sTake.Return();
    I_sTake.sProgress.uCall = uCall;
    I_sTake.sProgress.bRejected = uCall == IN_INIT && I_sTake.RestIs("5 ");
}

void User(const TAKE &I_sTake)
{
    I_sTake.sSession.strUser = I_sTake.Rest();
}

void Name(const TAKE &I_sTake)
{
    if (I_sTake.sProgress.strName) I_sTake.SetSign();
    I_sTake.sProgress.strName = I_sTake.Rest();
}

void Connect(const TAKE &I_sTake)
{
    I_sTake.sSession.strHost = I_sTake.Rest();
    I_sTake.Begin(KIND::CONTROL, "connect to " + I_sTake.sSession.strHost);
}

void Broken(const TAKE &I_sTake)
{
    I_sTake.NoteError(true);
    I_sTake.End("failed", true);
}

void Command(const TAKE &I_sTake)
{
    I_sTake.Begin(KIND::CONTROL, I_sTake.Rest());
    if (I_sTake.RestIs("USER ")) I_sTake.sSession.strUser = Clean(I_sTake.svRest.substr(5));
}

// At level 1 each reply stands alone.
void LoginReply(const TAKE &I_sTake)
{
    if (IsRefusal(I_sTake.svRest)) I_sTake.NoteError(true);
    if (I_sTake.sSession.eOrigin == ORIGIN::REPLIES) I_sTake.Add(KIND::REPLY, I_sTake.Rest());
}

void Parsed(const TAKE &I_sTake)
{
    if (!I_sTake.RestIs("0")) I_sTake.NoteError(true);
    I_sTake.End(I_sTake.RestIs("0") ? "answered" : "refused", !I_sTake.RestIs("0"));
}

void Unanswered(const TAKE &I_sTake)
{
    I_sTake.NoteError(false);
    I_sTake.End("no answer", true);
}

void DataEnd(const TAKE &I_sTake)
{
    I_sTake.EndData();
    I_sTake.Begin(KIND::CONTROL, I_sTake.sProgress.bTransfer ? "end of data" : "QUIT");
}

void DataReturn(const TAKE &I_sTake)
{
    I_sTake.Return();
    if (I_sTake.sProgress.uTotal) I_sTake.sProgress.uTotal = 0;
    I_sTake.sProgress.bTransfer = false;
}

void TransactionEnd(const TAKE &I_sTake)
{
    I_sTake.GiveUpData();
    EndCall(I_sTake);
}

void Terminated(const TAKE &I_sTake)
{
    TransactionEnd(I_sTake);
    I_sTake.sSession.eState = STATE::TERMINATED;
}

void TerminateError(const TAKE &I_sTake)
{
    EndCall(I_sTake);
    I_sTake.sSession.bFailed = true;
    I_sTake.NoteError(true);
}

void Greeting(const TAKE &I_sTake)
{
    I_sTake.Begin(KIND::CONTROL, "greeting");
}

void Found(const TAKE &I_sTake)
{
    I_sTake.Add(KIND::CALL,
                "found copy id " + Clean(I_sTake.svRest.substr(0, I_sTake.svRest.find(':'))));
}

constexpr RULE SENDING[] = {{"Data written: ", [](const TAKE &sTake) { TakeBlock(sTake, "sent"); }},
                            {"bufferLen", Ignore},
                            {"send() ", Ignore}};
constexpr RULE RECEIVING[] = {
    {"Data read: ", [](const TAKE &sTake) { TakeBlock(sTake, "received"); }},
    {"bufferLen", Ignore},
    {"recv() ", Ignore}};
constexpr RULE REPLY_LINES[] = {
    {"Receiving message", Ignore}, {"recv() return", Ignore}, {"Calling recv(", Ignore}};
constexpr RULE COMMAND_LINES[] = {{"send() return", Ignore}, {"done send()", Ignore}};
constexpr RULE LOGIN[] = {{" REPLY: ", LoginReply}};
constexpr RULE UTILITY[] = {{"COM COMMAND: [", TakeCommand},
                            {"Saveset ID: [", Ignore},
                            {"OPEN_JOB", Ignore},
                            {"parse_com_answer return: [", Parsed},
                            {"COM answer not received.", Unanswered},
                            {"COM Interface command could not be executed.", Unanswered},
                            {"COM utility executable", Ignore}};
constexpr RULE ANSWER[] = {{"Parsing line: [", TakeAnswer},
                           {"ERROR MESSAGE: [", [](const TAKE &sTake) { sTake.NoteError(false); }}};
constexpr RULE INI[] = {{"INI line found", Ignore}, {"Searching COM utility", Ignore}};
constexpr RULE INIT[] = {
    {"Input: BSA_ObjectOwner.bsa_ObjectOwner = ",
     [](const TAKE &sTake) { sTake.sSession.strOwner = sTake.Rest(); }},
    {"Input: ", Ignore},
    {"Informix session.", [](const TAKE &sTake) { sTake.sSession.bInformix = true; }},
    {"Return: ", EarlyReturn},
    {"End", EndCall},
    {"BSA_", Ignore}};
constexpr RULE BEGIN[] = {{"Return: ", EarlyReturn}, {"End", EndCall}};
constexpr RULE END_TXN[] = {{"End", TransactionEnd}};
constexpr RULE CREATE[] = {
    {"User: ", User},
    {"Password: ", Ignore},
    {"Object name: ", Name},
    {"Object path: ", [](const TAKE &sTake) { TakePath(sTake, "backup of "); }},
    {"Return: ", [](const TAKE &sTake) { TakeOpened(sTake, "sent"); }}};
constexpr RULE GET[] = {
    {"User: ", User},
    {"Password: ", Ignore},
    {"Object name: ", Name},
    {"Object path: ", [](const TAKE &sTake) { TakePath(sTake, "restore of "); }},
    {"Saveset name: ", Ignore},
    {"SMS has not returned", Ignore},
    {"End, return: ", [](const TAKE &sTake) { TakeOpened(sTake, "received"); }}};
constexpr RULE QUERY[] = {
    {"COPYID: ", Found},
    {"No match.", [](const TAKE &sTake) { sTake.Add(KIND::CALL, "found no match"); }},
    {"End", EndCall}};
constexpr RULE NEXT[] = {{"End, return: ", Return}};
constexpr RULE END_DATA[] = {{"Start", DataEnd},
                             {"Received message: ", TakeClosingReply},
                             {"Invalid sKorva.iLastOp", Ignore},
                             {"Return CODE: ", DataReturn}};
constexpr RULE TERMINATE[] = {{"Closing trace", Terminated}, {"Invalid Handle", TerminateError}};
constexpr RULE CONNECT[] = {
    {"Host name: ", Connect},
    {"connect() - connected", [](const TAKE &sTake) { sTake.End("connected"); }},
    {"gethostbyname() cannot find host.", Ignore}};
constexpr RULE OPEN[] = {{"Exiting, xbsa_connect() failed", Broken},
                         {"Calling stpc_recv()", Greeting},
                         {"Welcome: ", TakeReply},
                         {"Send command: ", Command},
                         {"Received message: ", TakeReply},
                         {"Failed to recieve", Broken},
                         {"stpc_recv() failed", Broken},
                         {"Reply String empty", Broken},
                         {"send() function failed", Broken}};
constexpr RULE PORT[] = {{"Send message: ", Command}, {"Received message: ", TakeReply}};
constexpr RULE TRANSFER[] = {{"Send message: ", Command},
                             {"Received message: ", TakeTransferReply}};
constexpr RULE START[] = {{"Start", Ignore}};
} // namespace

struct FUNCTION
{
    std::string_view svName;
    unsigned uCall;   // the call that its line "Start" begins; 0 for none
    unsigned uWithin; // the calls in which its other lines can come
    const RULE *spRules;
    size_t uRules;

    template <size_t COUNT>
    constexpr FUNCTION(std::string_view I_svName, unsigned I_uCall, unsigned I_uWithin,
                       const RULE (&I_asRules)[COUNT])
        : svName(I_svName), uCall(I_uCall), uWithin(I_uWithin), spRules(I_asRules), uRules(COUNT)
    {
    }
};

namespace
{
constexpr unsigned OPENING = IN_CREATE | IN_GET;
constexpr unsigned TALKING = OPENING | IN_END_DATA;
constexpr unsigned RUNNING = TALKING | IN_QUERY;

// Those with most lines first.
constexpr FUNCTION FUNCTIONS[] = {
    {"BSASendData", 0, IN_NONE, SENDING},
    {"BSAGetData", 0, IN_NONE, RECEIVING},
    {"stpc_recv", 0, TALKING, REPLY_LINES},
    {"com_intf", 0, RUNNING, UTILITY},
    {"parse_com_answer", 0, RUNNING, ANSWER},
    {"xbsa_open", 0, OPENING, OPEN},
    {"LOGIN", 0, TALKING, LOGIN},
    {"stpc_port", 0, OPENING, PORT},
    {"stpc_stor", 0, IN_CREATE, TRANSFER},
    {"stpc_retr", 0, IN_GET, TRANSFER},
    {"stpc_send", 0, TALKING, COMMAND_LINES},
    {"xbsa_connect", 0, OPENING, CONNECT},
    {"BSACreateObject", IN_CREATE, IN_CREATE, CREATE},
    {"BSAGetObject", IN_GET, IN_GET, GET},
    {"BSAEndData", IN_END_DATA, IN_END_DATA, END_DATA},
    {"BSABeginTxn", IN_BEGIN, IN_BEGIN, BEGIN},
    {"BSAEndTxn", IN_END_TXN, IN_END_TXN, END_TXN},
    {"find_com_intf", 0, RUNNING, INI},
    {"BSAQueryObject", IN_QUERY, IN_QUERY, QUERY},
    {"BSAGetNextQueryObject", IN_NEXT, IN_NEXT, NEXT},
    {"BSAInit", IN_INIT, IN_INIT, INIT},
    {"BSATerminate", IN_TERMINATE, IN_TERMINATE, TERMINATE},
    {"sms_parseinfo", 0, IN_CREATE, START},
    {"make_KORVA_authentication", 0, OPENING, START},
};

// A line that no rule knows is an error when it holds one of these: the library's error texts are
// composed of a function's name, the system's words and its own.
constexpr std::string_view ERROR_WORDS[] = {"ailed",      "Fail to",  "xiting",   "NEGATIVE",   "refused",
                               " too long",  " to long", "Unable",   "could not",  "received.",
                               "Invalid",    "NULL",     "is empty", "Unexpected", "to small",
                               "No account", "too small"};

// No error text begins like these, and many lines do.
constexpr std::string_view PLAIN_STARTS[] = {"Start",       "End",         "Calling ",    "sigprocmask()",
                                "Pipe handle", "Dumping COM", "Parsing COM", "COM interface step",
                                "<<<<<",       ">>>>>"};

// A value that was cut is reported, and the session goes on: what fails afterwards says more.
constexpr std::string_view WEAK_WORDS[] = {"cut", "xiting", "Unexpected"};

constexpr std::string_view HANDLES[] = {
    "BSA Handle (process ID) = ", "Start, Input: bsaHandle = ", "Start - bsaHandle = "};

template <size_t COUNT>
bool HoldsOne(std::string_view I_svText, const std::string_view (&I_svWords)[COUNT])
{
    return std::any_of(std::begin(I_svWords), std::end(I_svWords), [&](std::string_view svWord) {
        return I_svText.find(svWord) != std::string_view::npos;
    });
}

// Null when the text begins with none of them.
template <size_t COUNT>
const std::string_view *StartsWithOne(std::string_view I_svText,
 const std::string_view (&I_svStarts)[COUNT])
{
    const auto *spStart =
        std::find_if(std::begin(I_svStarts), std::end(I_svStarts),
                     [&](std::string_view svStart) { return StartsWith(I_svText, svStart); });
    return spStart == std::end(I_svStarts) ? nullptr : spStart;
}

// A call begins only after the one before has ended; what belongs to a call comes within it.
void CheckOrder(const TAKE &I_sTake, const FUNCTION &I_sFunction)
{
    const bool bStart = I_sFunction.uCall != 0 && I_sTake.RestIs("Start");
    const unsigned uWithin = bStart ? static_cast<unsigned>(IN_NONE) : I_sFunction.uWithin;
    if ((I_sTake.sProgress.uCall & (uWithin | IN_UNKNOWN)) == 0) I_sTake.SetSign();
    if (bStart) I_sTake.sProgress.uCall = I_sFunction.uCall;
}

void TakeHandle(const TAKE &I_sTake)
{
    const std::string_view *spStart = StartsWithOne(I_sTake.svRest, HANDLES);
    if (spStart == nullptr) return;
    std::string_view svNumber = I_sTake.svRest.substr(spStart->size());
    I_sTake.sProgress.lHandle = static_cast<long>(TakeNumber(svNumber));
}
} // namespace

const FUNCTION *Writer(const LOG_LINE &I_sLine)
{
    const std::string_view svName = I_sLine.svText.substr(0, I_sLine.svText.find_first_of(":( "));
    for (const FUNCTION &sFunction : FUNCTIONS)
        if (sFunction.svName == svName) return &sFunction;
    return nullptr;
}

void Take(SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sWriter)
{
    TAKE sTake{X_sSession, X_sSession.sProgress, I_sLine,
               I_sLine.svText.substr(I_sWriter.svName.size())};
    for (const std::string_view svSkipped : {"()", ": "})
        if (sTake.RestIs(svSkipped)) sTake.svRest.remove_prefix(svSkipped.size());
    CheckOrder(sTake, I_sWriter);
    sTake.sProgress.lHandle = 0;
    if (I_sWriter.uCall != 0) TakeHandle(sTake);
    for (size_t uRule = 0; uRule < I_sWriter.uRules; uRule++)
    {
        const RULE &sRule = I_sWriter.spRules[uRule];
        if (!sTake.RestIs(sRule.svStart)) continue;
        sTake.svRest.remove_prefix(sRule.svStart.size());
        return sRule.fpTake(sTake);
    }
    if (StartsWithOne(sTake.svRest, PLAIN_STARTS) == nullptr && HoldsOne(sTake.svRest, ERROR_WORDS))
        sTake.NoteError(HoldsOne(sTake.svRest, WEAK_WORDS));
}
} // namespace trace
