#include "trace/trace.h"

#include <sys/stat.h>

#include <cstdio>
#include <memory>

#include "base/base.h"
#include "trace/actlog.h"
#include "trace/html.h"
#include "trace/lines.h"
#include "trace/print.h"
#include "trace/sessions.h"
#include "trace/text.h"

namespace
{
struct COUNTS
{
    uint64_t uDone = 0;
    uint64_t uFailed = 0;
    uint64_t uMixed = 0;
    uint64_t uReplies = 0;
    uint64_t uUnfinished = 0;
    uint64_t uHidden = 0;  // by --since and --handle
    uint64_t uForeign = 0; // lines that do not begin as the library's do
};

// The moment as a stamp. A time of day alone is one of the log's last day.
std::string Since(const trace::OPTIONS &I_sOptions)
{
    constexpr size_t DAY_LENGTH = 11; // "2026-07-13 "
    std::string strSince;
    if (I_sOptions.strSince.empty()) return strSince;
    strSince = lines_Moment(I_sOptions.strSince);
    if (strSince.size() == STAMP_LENGTH) return strSince;
    if (I_sOptions.strFile == "-")
        throw base::USAGE_ERROR("--since needs a day with standard input");
    strSince.insert(0, lines_LastStamp(I_sOptions.strFile), 0, DAY_LENGTH);
    return strSince;
}

// The page takes the place of what has its name.
void CheckPage(const trace::OPTIONS &I_sOptions)
{
    struct stat sPage = {};
    if (I_sOptions.strHtml.empty() || stat(I_sOptions.strHtml.c_str(), &sPage) != 0) return;
    for (const std::string &strInput : {I_sOptions.strFile, I_sOptions.strActLog})
    {
        struct stat sInput = {};
        if (stat(strInput.c_str(), &sInput) == 0 && S_ISREG(sInput.st_mode) &&
            sInput.st_dev == sPage.st_dev && sInput.st_ino == sPage.st_ino)
            throw base::USAGE_ERROR("--html would overwrite the log that is read");
    }
}

void Count(COUNTS &X_sCounts, const TRACE_SESSION &I_sSession)
{
    if (session_IsMixed(I_sSession)) X_sCounts.uMixed++;
    else if (I_sSession.bReplies) X_sCounts.uReplies++;
    else if (I_sSession.bFailed) X_sCounts.uFailed++;
    else if (I_sSession.bTerminated) X_sCounts.uDone++;
    else X_sCounts.uUnfinished++;
}

std::string Part(uint64_t I_uCount, const char *cpWhat)
{
    return I_uCount == 0 ? "" : ", " + std::to_string(I_uCount) + " " + cpWhat;
}

std::string Note(uint64_t I_uCount, const char *cpWhat)
{
    return I_uCount == 0 ? "" : std::string("; ") + cpWhat + ": " + std::to_string(I_uCount);
}

std::string Summary(const COUNTS &I_sCounts, const CActivityLog &I_sActivity)
{
    const uint64_t uShown = I_sCounts.uDone + I_sCounts.uFailed + I_sCounts.uMixed +
                            I_sCounts.uReplies + I_sCounts.uUnfinished;
    return text_Count(uShown, "session") + Part(I_sCounts.uDone, "done") +
           Part(I_sCounts.uFailed, "failed") + Part(I_sCounts.uUnfinished, "unfinished") +
           Part(I_sCounts.uMixed, "of mixed processes") +
           Part(I_sCounts.uReplies, "with replies only") +
           Part(I_sCounts.uHidden, "more left out by --since or --handle") +
           Note(I_sCounts.uForeign,
                "lines that are not the library's, or go on from the one before") +
           Note(I_sActivity.Unused(), "messages of the database that belong to no session shown") +
           Note(I_sActivity.Dropped(), "oldest messages of the database that were passed over");
}

void Print(const std::string &I_strText)
{
    fputs(I_strText.c_str(), stdout);
    if (ferror(stdout) != 0) throw base::FAILURE("writing standard output failed");
}
} // namespace

void trace::Run(const trace::OPTIONS &I_sOptions)
{
    CheckPage(I_sOptions);
    const std::string strSince = Since(I_sOptions);
    CLineReader sReader(I_sOptions.strFile);
    CActivityLog sActivity(I_sOptions.strActLog);
    std::unique_ptr<CHtmlPage> spPage;
    if (!I_sOptions.strHtml.empty()) spPage = std::make_unique<CHtmlPage>(I_sOptions.strHtml);

    COUNTS sCounts;
    CSessions sSessions([&](const TRACE_SESSION &I_sSession) {
        const bool bWanted =
            I_sSession.strLast >= strSince &&
            (I_sOptions.lHandle == 0 || session_HasHandle(I_sSession, I_sOptions.lHandle));
        if (!bWanted)
        {
            sCounts.uHidden++;
            return;
        }
        Count(sCounts, I_sSession);
        const std::vector<ACT_MESSAGE> vecMessages = sActivity.TakeFor(I_sSession);
        Print(print_Session(I_sSession, vecMessages));
        if (spPage) spPage->Add(I_sSession, vecMessages);
    });
    LOG_LINE sLine;
    while (sReader.Next(sLine))
    {
        sSessions.Take(sLine);
        if (!sLine.bTrace) sCounts.uForeign++;
    }
    sSessions.Finish();
    const std::string strSummary = Summary(sCounts, sActivity);
    Print(strSummary + "\n");
    if (spPage) spPage->Finish(strSummary);
}
