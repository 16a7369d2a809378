// The data phase and its end.
#include "trace/takes.h"

#include <string>

#include "trace/marks.h"
#include "trace/steps.h"
#include "trace/text.h"

namespace
{
void TakeOpened(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest,
                const char *cpVerb)
{
    X_sSession.bTransfer = lines_StartsWith(I_svRest, "0");
    marks_End(X_sSession, I_sLine, X_sSession.bTransfer ? "open" : "failed", !X_sSession.bTransfer);
    marks_Return(X_sSession, I_sLine, I_svRest);
    if (X_sSession.bTransfer) marks_BeginData(X_sSession, I_sLine, cpVerb);
}

void NotePause(STEP &X_sData, int64_t I_iFrom, int64_t I_iTo)
{
    if (I_iTo - I_iFrom <= X_sData.iPause) return;
    X_sData.iPause = I_iTo - I_iFrom;
    X_sData.iPauseStart = I_iFrom;
}

// "65535, total: 131070": the process counts, and another process's line breaks the sum.
void TakeBlock(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest,
               const char *cpVerb)
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
    if (!X_sSession.bData && (X_sSession.uCall & IN_UNKNOWN) == 0) return;
    if (!X_sSession.bData)
        marks_BeginData(X_sSession, I_sLine, cpVerb); // the log began in the middle
    X_sSession.bTransfer = true;

    STEP &sData = X_sSession.sData;
    sData.uBytes += uBytes;
    sData.uBlocks += uBytes > 0 ? 1 : 0;
    sData.iEnd = I_sLine.iTime;
    NotePause(sData, X_sSession.iBlock, I_sLine.iTime);
    X_sSession.iBlock = I_sLine.iTime;
}
} // namespace

void take_Created(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    TakeOpened(X_sSession, I_sLine, I_svRest, "sent");
}

void take_Got(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    TakeOpened(X_sSession, I_sLine, I_svRest, "received");
}

void take_SentBlock(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    TakeBlock(X_sSession, I_sLine, I_svRest, "sent");
}

void take_ReceivedBlock(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                        std::string_view I_svRest)
{
    TakeBlock(X_sSession, I_sLine, I_svRest, "received");
}

void take_DataEnd(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    marks_EndData(X_sSession, I_sLine);
    if (X_sSession.bTransfer) marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "end of data");
    else marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "QUIT");
}

// The reply to the data comes first, that to QUIT second.
void take_ClosingReply(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                       std::string_view I_svRest)
{
    const bool bData = X_sSession.bTransfer;
    const bool bFailed = bData ? !lines_StartsWith(I_svRest, "226") : marks_IsRefusal(I_svRest);
    const std::string strReply = text_Clean(I_svRest);
    marks_End(X_sSession, I_sLine, strReply.empty() ? "no reply" : strReply, bFailed);
    X_sSession.bTransfer = false;
    if (bData) marks_Begin(X_sSession, I_sLine, STEP_KIND::CONTROL, "QUIT");
}

void take_DataReturn(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    marks_Return(X_sSession, I_sLine, I_svRest);
    X_sSession.uTotal = 0;
    X_sSession.bTransfer = false;
}
