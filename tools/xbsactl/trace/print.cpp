#include "trace/print.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "explain/explain.h"
#include "trace/text.h"

namespace
{
const char *KindName(STEP_KIND I_eKind)
{
    switch (I_eKind)
    {
    case STEP_KIND::CONTROL:
        return "control";
    case STEP_KIND::UTILITY:
        return "utility";
    case STEP_KIND::DATA:
        return "data";
    case STEP_KIND::REPLY:
        return "reply";
    case STEP_KIND::CALL:
        return "call";
    case STEP_KIND::OBJECT:
        break;
    }
    return "";
}

std::string DataText(const STEP &I_sStep, bool I_bDay)
{
    std::string strText = text_Count(I_sStep.uBytes, "byte") + " " + I_sStep.strText + " in " +
                          text_Count(I_sStep.uBlocks, "block");
    const std::string strRate = text_Rate(I_sStep.uBytes, I_sStep.iEnd - I_sStep.iStart);
    if (!strRate.empty()) strText += ", " + strRate;
    if (I_sStep.iPause > 1)
        strText += ", longest pause " + text_Duration(I_sStep.iPause) + " from " +
                   text_Clock(I_sStep.iPauseStart, I_bDay);
    return strText;
}

PRINT_ROW Row(const STEP &I_sStep, bool I_bDay)
{
    PRINT_ROW sRow;
    sRow.strClock = text_Clock(I_sStep.iStart, I_bDay);
    sRow.strKind = KindName(I_sStep.eKind);
    sRow.bFailed = I_sStep.bFailed;
    sRow.strText = I_sStep.eKind == STEP_KIND::DATA ? DataText(I_sStep, I_bDay) : I_sStep.strText;
    if (!I_sStep.strResult.empty())
        sRow.strText += (I_sStep.eKind == STEP_KIND::OBJECT ? ", " : ": ") + I_sStep.strResult;
    if (session_HasDuration(I_sStep))
        sRow.strDuration =
            I_sStep.bEnded ? text_Duration(I_sStep.iEnd - I_sStep.iStart) : "not ended";
    return sRow;
}

PRINT_ROW Row(const ACT_MESSAGE &I_sMessage, bool I_bProcess, bool I_bDay)
{
    PRINT_ROW sRow;
    sRow.strClock = text_Clock(I_sMessage.iTime, I_bDay);
    sRow.strKind = "database";
    sRow.strText = I_bProcess ? std::to_string(I_sMessage.lProcess) + ": " + I_sMessage.strText
                              : I_sMessage.strText;
    return sRow;
}

std::string Times(const TRACE_SESSION &I_sSession)
{
    const bool bSameDay = I_sSession.strFirst.substr(0, 10) == I_sSession.strLast.substr(0, 10);
    return I_sSession.strFirst + " to " + I_sSession.strLast.substr(bSameDay ? 11 : 0);
}

std::string Lines(const TRACE_SESSION &I_sSession)
{
    return "lines " + std::to_string(I_sSession.uFirstLine) + " to " +
           std::to_string(I_sSession.uLastLine);
}

std::string TextRow(const PRINT_ROW &I_sRow)
{
    if (I_sRow.strKind.empty()) return "  " + I_sRow.strText + "\n";
    std::array<char, 64> szStart{};
    snprintf(szStart.data(), szStart.size(), "    %s  %-8s %-9s  ", I_sRow.strClock.c_str(),
             I_sRow.strKind.c_str(), I_sRow.strDuration.c_str());
    return szStart.data() + I_sRow.strText + (I_sRow.bFailed ? "  <-- failed" : "") + "\n";
}
} // namespace

std::vector<PRINT_ROW> print_Rows(const TRACE_SESSION &I_sSession,
                                  const std::vector<ACT_MESSAGE> &I_vecMessages)
{
    const bool bDay = I_sSession.strFirst.substr(0, 10) != I_sSession.strLast.substr(0, 10);
    const bool bMixed = session_IsMixed(I_sSession);
    std::vector<PRINT_ROW> vecRows;
    auto spMessage = I_vecMessages.begin();
    const auto fpAddMessages = [&](int64_t I_iUntil) {
        for (; spMessage != I_vecMessages.end() && spMessage->iTime <= I_iUntil; ++spMessage)
            vecRows.push_back(Row(*spMessage, bMixed, bDay));
    };
    for (const STEP &sStep : session_Steps(I_sSession))
    {
        fpAddMessages(sStep.iStart - 1);
        vecRows.push_back(Row(sStep, bDay));
    }
    fpAddMessages(INT64_MAX);
    return vecRows;
}

std::string print_Title(const TRACE_SESSION &I_sSession)
{
    std::string strTitle = session_Handles(I_sSession);
    if (session_IsMixed(I_sSession)) return strTitle;
    if (I_sSession.bInformix) strTitle += ", Informix";
    if (!I_sSession.strOwner.empty()) strTitle += ", owner " + I_sSession.strOwner;
    if (!I_sSession.strUser.empty()) strTitle += ", user " + I_sSession.strUser;
    if (!I_sSession.strHost.empty()) strTitle += ", server " + I_sSession.strHost;
    return strTitle;
}

std::vector<std::string> print_Facts(const TRACE_SESSION &I_sSession)
{
    std::vector<std::string> vecFacts;
    if (session_IsMixed(I_sSession))
    {
        vecFacts.push_back(Times(I_sSession) + ", " + Lines(I_sSession));
        vecFacts.push_back("lines of several processes are mixed here: " + I_sSession.strMixed +
                           "; who wrote which line and how long a step took cannot be told: use "
                           "one log a process, XBSA_LOGFILE");
    }
    else
    {
        vecFacts.push_back(Times(I_sSession) + " (" +
                           text_Duration(I_sSession.iLast - I_sSession.iFirst) + "), " +
                           Lines(I_sSession));
        if (!I_sSession.bReplies)
            vecFacts.push_back(text_Count(I_sSession.uObjects, "task") + ", " +
                               text_Count(I_sSession.uBytes, "byte"));
    }
    const std::string strNote = session_Note(I_sSession);
    if (!strNote.empty()) vecFacts.push_back(strNote);
    if (I_sSession.strError.empty()) return vecFacts;
    vecFacts.push_back("first error, line " + std::to_string(I_sSession.uErrorLine) + " at " +
                       I_sSession.strErrorStamp.substr(11) + ": " + I_sSession.strError);
    const auto eMode = I_sSession.bInformix ? explain::MODE::INFORMIX : explain::MODE::PLAIN;
    const std::string strMeaning = explain::Meaning(I_sSession.strError, eMode);
    const std::string strHint = explain::Hint(I_sSession.strError, eMode);
    if (!strMeaning.empty()) vecFacts.push_back("meaning: " + strMeaning);
    if (!strHint.empty()) vecFacts.push_back("hint: " + strHint);
    return vecFacts;
}

std::string print_Session(const TRACE_SESSION &I_sSession,
                          const std::vector<ACT_MESSAGE> &I_vecMessages)
{
    std::string strText = "session " + std::to_string(I_sSession.uNumber) + ": " +
                          session_Outcome(I_sSession) + ", " + print_Title(I_sSession) + "\n";
    for (const std::string &strFact : print_Facts(I_sSession)) strText += "  " + strFact + "\n";
    for (const PRINT_ROW &sRow : print_Rows(I_sSession, I_vecMessages)) strText += TextRow(sRow);
    return strText + "\n";
}
