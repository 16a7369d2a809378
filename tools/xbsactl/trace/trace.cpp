#include "trace/trace.h"

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

#include "base/base.h"
#include "trace/actlog.h"
#include "trace/lines.h"
#include "trace/page.h"
#include "trace/sessions.h"
#include "trace/show.h"
#include "trace/text.h"

namespace trace
{
namespace
{
constexpr int SCHEMA = 1; // of the JSON text

struct COUNTS
{
    uint64_t uShown = 0;
    uint64_t uDone = 0;
    uint64_t uFailed = 0;
    uint64_t uUnfinished = 0;
    uint64_t uMixed = 0;
    uint64_t uReplies = 0;
    uint64_t uHidden = 0;  // by --since and --handle
    uint64_t uForeign = 0; // lines that do not begin as the library's do

    void Count(const SESSION &I_sSession)
    {
        uShown++;
        if (I_sSession.IsMixed()) uMixed++;
        else if (I_sSession.eOrigin == ORIGIN::REPLIES) uReplies++;
        else if (I_sSession.bFailed) uFailed++;
        else if (I_sSession.eState == STATE::TERMINATED) uDone++;
        else uUnfinished++;
    }
};

// The page takes the place of what has its name.
void CheckPage(const OPTIONS &I_sOptions)
{
    std::error_code sError; // what does not exist is not the same
    for (const std::string &strInput : {I_sOptions.strFile, I_sOptions.strActLog})
        if (std::filesystem::is_regular_file(strInput, sError) &&
            std::filesystem::equivalent(strInput, I_sOptions.strHtml, sError))
            throw base::USAGE_ERROR("--html would overwrite the log that is read");
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
    return Count(I_sCounts.uShown, "session") + Part(I_sCounts.uDone, "done") +
           Part(I_sCounts.uFailed, "failed") + Part(I_sCounts.uUnfinished, "unfinished") +
           Part(I_sCounts.uMixed, "of mixed processes") +
           Part(I_sCounts.uReplies, "with replies only") +
           Part(I_sCounts.uHidden, "more left out by --since or --handle") +
           Note(I_sCounts.uForeign,
                "lines that are not the library's, or go on from the one before") +
           Note(I_sActivity.Unused(), "messages of the database that belong to no session shown") +
           Note(I_sActivity.Dropped(), "oldest messages of the database that were passed over");
}

base::JSON SummaryJson(const COUNTS &I_sCounts, const CActivityLog &I_sActivity)
{
    return {{"sessions", I_sCounts.uShown},
            {"done", I_sCounts.uDone},
            {"failed", I_sCounts.uFailed},
            {"unfinished", I_sCounts.uUnfinished},
            {"mixed", I_sCounts.uMixed},
            {"replies_only", I_sCounts.uReplies},
            {"left_out", I_sCounts.uHidden},
            {"foreign_lines", I_sCounts.uForeign},
            {"unused_messages", I_sActivity.Unused()},
            {"dropped_messages", I_sActivity.Dropped()}};
}

void Print(const std::string &I_strText)
{
    fputs(I_strText.c_str(), stdout);
    if (ferror(stdout) != 0) throw base::FAILURE("writing standard output failed");
}

bool IsWanted(const SESSION &I_sSession, const OPTIONS &I_sOptions, const std::string &I_strSince)
{
    return I_sSession.sLast.strStamp >= I_strSince &&
           (I_sOptions.lHandle == 0 || I_sSession.HasHandle(I_sOptions.lHandle));
}
} // namespace

void Run(const OPTIONS &I_sOptions)
{
    CheckPage(I_sOptions);
    const std::string strSince =
        I_sOptions.strSince.empty() ? "" : Moment(I_sOptions.strSince, I_sOptions.strFile);
    CLineReader sReader(I_sOptions.strFile);
    CActivityLog sActivity(I_sOptions.strActLog);
    std::optional<CPage> sPage;
    if (!I_sOptions.strHtml.empty()) sPage.emplace(I_sOptions.strHtml);

    COUNTS sCounts;
    std::string strFront = "{\"schema\": " + std::to_string(SCHEMA) + ", \"sessions\": [\n";
    CSessions sSessions([&](const SESSION &sSession) {
        if (!IsWanted(sSession, I_sOptions, strSince))
        {
            sCounts.uHidden++;
            return;
        }
        sCounts.Count(sSession);
        const SHOWN sShown = Show(sSession, sActivity.TakeFor(sSession));
        if (I_sOptions.bJson)
            Print(std::exchange(strFront, ",\n") + base::Dump(SessionJson(sShown)));
        else Print(SessionText(sShown));
        if (sPage) sPage->Add(sShown);
    });
    for (LOG_LINE sLine; sReader.Next(sLine);)
    {
        sSessions.Take(sLine);
        if (!sLine.bTrace) sCounts.uForeign++;
    }
    sSessions.Finish();
    const std::string strSummary = Summary(sCounts, sActivity);
    if (!I_sOptions.bJson) Print(strSummary + "\n");
    else
        Print((sCounts.uShown == 0 ? strFront : "") +
              "],\n\"summary\": " + base::Dump(SummaryJson(sCounts, sActivity)) + "}\n");
    if (sPage) sPage->Finish(strSummary);
}
} // namespace trace
