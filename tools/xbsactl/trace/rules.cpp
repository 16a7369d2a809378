#include "trace/rules.h"

#include "trace/takes.h"

namespace
{
constexpr RULE asSend[] = {
    {"Data written: ", take_SentBlock}, {"bufferLen", nullptr}, {"send() ", nullptr}};
constexpr RULE asReceive[] = {{"Data read: ", take_ReceivedBlock},
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
constexpr RULE asLogin[] = {{" REPLY: ", take_LoginReply}};
constexpr RULE asUtility[] = {{"COM COMMAND: [", take_Command},
                              {"Saveset ID: [", nullptr},
                              {"OPEN_JOB", nullptr},
                              {"parse_com_answer return: [", take_Parsed},
                              {"COM answer not received.", take_Unanswered},
                              {"COM Interface command could not be executed.", take_Unanswered},
                              {"COM utility executable", nullptr}};
constexpr RULE asParse[] = {{"Parsing line: [", take_Parsing},
                            {"ERROR MESSAGE: [", take_UtilityError}};
constexpr RULE asFind[] = {{"INI line found", nullptr}, {"Searching COM utility", nullptr}};
constexpr RULE asInit[] = {{"Start", nullptr},
                           {"Input: BSA_ObjectOwner.bsa_ObjectOwner = ", take_Owner},
                           {"Input: ", nullptr},
                           {"Informix session.", take_Informix},
                           {"Return: ", take_EarlyReturn},
                           {"End", take_CallEnd},
                           {"BSA_SERVICE_HOST: ", nullptr},
                           {"BSA_", nullptr}};
constexpr RULE asBegin[] = {
    {"Start", nullptr}, {"Return: ", take_EarlyReturn}, {"End", take_CallEnd}};
constexpr RULE asEndTxn[] = {{"End", take_TransactionEnd}};
constexpr RULE asCreate[] = {{"User: ", take_User},
                             {"Password: ", nullptr},
                             {"Object name: ", take_Name},
                             {"Object path: ", take_StorePath},
                             {"Return: ", take_Created}};
constexpr RULE asGet[] = {{"User: ", take_User},        {"Password: ", nullptr},
                          {"Object name: ", take_Name}, {"Object path: ", take_ReadPath},
                          {"Saveset name: ", nullptr},  {"SMS has not returned", nullptr},
                          {"End, return: ", take_Got}};
constexpr RULE asQuery[] = {
    {"COPYID: ", take_Found}, {"No match.", take_NoMatch}, {"End", take_CallEnd}};
constexpr RULE asNext[] = {{"End, return: ", take_Return}};
constexpr RULE asEndData[] = {{"Start", take_DataEnd},
                              {"Received message: ", take_ClosingReply},
                              {"Invalid sKorva.iLastOp", nullptr},
                              {"Return CODE: ", take_DataReturn}};
constexpr RULE asTerminate[] = {{"Closing trace", take_Terminated},
                                {"Invalid Handle", take_TerminateError}};
constexpr RULE asConnect[] = {{"Host name: ", take_Connect},
                              {"connect() - connected", take_Connected},
                              {"gethostbyname() cannot find host.", nullptr}};
constexpr RULE asOpen[] = {{"Exiting, xbsa_connect() failed", take_Broken},
                           {"Calling stpc_recv()", take_Greeting},
                           {"Welcome: ", take_Reply},
                           {"Send command: ", take_SentCommand},
                           {"Received message: ", take_Reply},
                           {"Failed to recieve", take_Broken},
                           {"stpc_recv() failed", take_Broken},
                           {"Reply String empty", take_Broken},
                           {"send() function failed", take_Broken}};
constexpr RULE asPort[] = {{"Send message: ", take_SentCommand},
                           {"Received message: ", take_Reply}};
constexpr RULE asTransfer[] = {{"Send message: ", take_SentCommand},
                               {"Received message: ", take_TransferReply}};
constexpr RULE asInfo[] = {{"Start", nullptr}};

constexpr unsigned OPENING = IN_CREATE | IN_GET;
constexpr unsigned RUNNING = OPENING | IN_QUERY | IN_END_DATA;

template <size_t COUNT>
constexpr FUNCTION Function(std::string_view I_svName, unsigned I_uCall, unsigned I_uWithin,
                            const RULE (&I_asRules)[COUNT])
{
    return {I_svName, I_uCall, I_uWithin, I_asRules, COUNT};
}

// Those with most lines first.
constexpr FUNCTION asFunctions[] = {
    Function("BSASendData", 0, IN_NONE, asSend),
    Function("BSAGetData", 0, IN_NONE, asReceive),
    Function("stpc_recv", 0, OPENING | IN_END_DATA, asReplies),
    Function("com_intf", 0, RUNNING, asUtility),
    Function("parse_com_answer", 0, RUNNING, asParse),
    Function("xbsa_open", 0, OPENING, asOpen),
    Function("LOGIN", 0, OPENING | IN_END_DATA, asLogin),
    Function("stpc_port", 0, OPENING, asPort),
    Function("stpc_stor", 0, IN_CREATE, asTransfer),
    Function("stpc_retr", 0, IN_GET, asTransfer),
    Function("stpc_send", 0, OPENING | IN_END_DATA, asSends),
    Function("xbsa_connect", 0, OPENING, asConnect),
    Function("BSACreateObject", IN_CREATE, IN_CREATE, asCreate),
    Function("BSAGetObject", IN_GET, IN_GET, asGet),
    Function("BSAEndData", IN_END_DATA, IN_END_DATA, asEndData),
    Function("BSABeginTxn", IN_BEGIN, IN_BEGIN, asBegin),
    Function("BSAEndTxn", IN_END_TXN, IN_END_TXN, asEndTxn),
    Function("find_com_intf", 0, RUNNING, asFind),
    Function("BSAQueryObject", IN_QUERY, IN_QUERY, asQuery),
    Function("BSAGetNextQueryObject", IN_NEXT, IN_NEXT, asNext),
    Function("BSAInit", IN_INIT, IN_INIT, asInit),
    Function("BSATerminate", IN_TERMINATE, IN_TERMINATE, asTerminate),
    Function("sms_parseinfo", 0, IN_CREATE, asInfo),
    Function("make_KORVA_authentication", 0, OPENING, asInfo),
};
} // namespace

const FUNCTION *rules_Find(std::string_view I_svName)
{
    for (const FUNCTION &sFunction : asFunctions)
        if (sFunction.svName == I_svName) return &sFunction;
    return nullptr;
}
