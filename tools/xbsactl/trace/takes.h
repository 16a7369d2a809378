// What single lines tell, by their subjects. Each function takes the session, the line, and what
// follows the words that the line was known by.
#ifndef XBSACTL_TRACELOG_TAKES_H
#define XBSACTL_TRACELOG_TAKES_H

#include <string_view>

#include "trace/lines.h"
#include "trace/session.h"

// The runs of the COM utility.
void take_Command(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Parsed(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Unanswered(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_UtilityError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                       std::string_view I_svRest);
void take_Parsing(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);

// The control connection: commands and replies.
void take_User(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Connect(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Connected(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Broken(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Greeting(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_SentCommand(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                      std::string_view I_svRest);
void take_Reply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_TransferReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                        std::string_view I_svRest);
void take_LoginReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);

// The calls: whose session it is, what is asked for, what they return.
void take_Owner(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Informix(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Name(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_StorePath(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_ReadPath(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Return(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_EarlyReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                      std::string_view I_svRest);
void take_CallEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_TransactionEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                         std::string_view I_svRest);
void take_Found(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_NoMatch(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Terminated(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_TerminateError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                         std::string_view I_svRest);

// The data phase and its end.
void take_Created(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_Got(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_SentBlock(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_ReceivedBlock(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                        std::string_view I_svRest);
void take_DataEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);
void take_ClosingReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                       std::string_view I_svRest);
void take_DataReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest);

#endif
