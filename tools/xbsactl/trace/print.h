// The sessions as text.
#ifndef XBSACTL_TRACELOG_PRINT_H
#define XBSACTL_TRACELOG_PRINT_H

#include <string>
#include <vector>

#include "trace/actlog.h"
#include "trace/session.h"

// One line of a session, of the log or of the database, as both text and page show it.
struct PRINT_ROW
{
    std::string strClock;
    std::string strKind; // "control", "utility", "data", "call", "database"; empty: a heading
    std::string strText;
    std::string strDuration; // empty where there is none to be told
    bool bFailed = false;
};

// Steps and messages in the order of time. Within one second the order of the two is not known.
std::vector<PRINT_ROW> print_Rows(const TRACE_SESSION &I_sSession,
                                  const std::vector<ACT_MESSAGE> &I_vecMessages);

std::string print_Title(const TRACE_SESSION &I_sSession);              // who
std::vector<std::string> print_Facts(const TRACE_SESSION &I_sSession); // when, how much, what else
std::string print_Session(const TRACE_SESSION &I_sSession,
                          const std::vector<ACT_MESSAGE> &I_vecMessages);

#endif
