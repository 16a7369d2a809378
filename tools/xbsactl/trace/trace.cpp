#include "trace/trace.h"

#include <cstdio>
#include <filesystem>
#include <optional>

#include "trace/parts.h"

namespace trace
{
namespace
{
constexpr int SCHEMA = 1; // of the JSON text

// How the summary and its JSON name what is counted.
struct COUNT
{
    const char *cpKey;
    const char *cpFront;
    const char *cpBack;
    uint64_t uCount = 0;
};

enum COUNTED
{
    HIDDEN = 5, // after the sessions' outcomes
    FOREIGN,
    UNUSED,
    DROPPED
};

using COUNTS = std::array<COUNT, DROPPED + 1>;

constexpr COUNTS NO_COUNTS = {
    {{"done", ", ", " done"},
     {"failed", ", ", " failed"},
     {"unfinished", ", ", " unfinished"},
     {"mixed", ", ", " of mixed processes"},
     {"replies_only", ", ", " with replies only"},
     {"left_out", ", ", " more left out by --since or --handle"},
     {"foreign_lines", "; lines that are not the library's, or go on from the one before: ", ""},
     {"unused_messages", "; messages of the database that belong to no session shown: ", ""},
     {"dropped_messages", "; oldest messages of the database that were passed over: ", ""}}};

// The page takes the place of what has its name.
void CheckPage(const OPTIONS &I_sOptions)
{
    std::error_code sError; // what does not exist is not the same
    for (const std::string &strInput : {I_sOptions.strFile, I_sOptions.strActLog})
        if (std::filesystem::is_regular_file(strInput, sError) &&
            std::filesystem::equivalent(strInput, I_sOptions.strHtml, sError))
            throw base::USAGE_ERROR("--html would overwrite the log that is read");
}

std::string Summary(const COUNTS &I_sCounts, uint64_t I_uShown)
{
    std::string strSummary = Count(I_uShown, "session");
    for (const COUNT &sCount : I_sCounts)
        if (sCount.uCount > 0)
            strSummary += sCount.cpFront + std::to_string(sCount.uCount) + sCount.cpBack;
    return strSummary;
}

std::string SummaryJson(const COUNTS &I_sCounts, uint64_t I_uShown)
{
    std::string strJson = "{\"sessions\": " + std::to_string(I_uShown);
    for (const COUNT &sCount : I_sCounts)
        strJson += std::string(", \"") + sCount.cpKey + "\": " + std::to_string(sCount.uCount);
    return strJson + "}";
}

void Print(const std::string &I_strText)
{
    fputs(I_strText.c_str(), stdout);
    if (ferror(stdout) != 0) throw base::FAILURE("writing standard output failed");
}

bool IsWanted(const SESSION &I_sSession, const OPTIONS &I_sOptions, int64_t I_iSince)
{
    return I_sSession.sLast.iTime >= I_iSince &&
           (I_sOptions.lHandle == 0 || I_sSession.HasHandle(I_sOptions.lHandle));
}
} // namespace

void Run(const OPTIONS &I_sOptions)
{
    CheckPage(I_sOptions);
    const int64_t iSince = I_sOptions.strSince.empty()
                               ? std::numeric_limits<int64_t>::min()
                               : Moment(I_sOptions.strSince, I_sOptions.strFile);
    CLineReader sReader(I_sOptions.strFile);
    CActivityLog sActivity(I_sOptions.strActLog);
    std::optional<CPage> sPage;
    if (!I_sOptions.strHtml.empty()) sPage.emplace(I_sOptions.strHtml);

    COUNTS sCounts = NO_COUNTS;
    uint64_t uShown = 0;
    std::string strFront = "{\"schema\": " + std::to_string(SCHEMA) + ", \"sessions\": [\n";
    CSessions sSessions([&](const SESSION &sSession) {
        if (!IsWanted(sSession, I_sOptions, iSince))
        {
            sCounts[HIDDEN].uCount++;
            return;
        }
        sCounts[static_cast<size_t>(sSession.Outcome())].uCount++;
        uShown++;
        const SHOWN sShown = Show(sSession, sActivity.TakeFor(sSession));
        if (I_sOptions.bJson) Print(std::exchange(strFront, ",\n") + SessionJson(sShown));
        else Print(SessionText(sShown));
        if (sPage) sPage->Add(sShown);
    });
    uint64_t uLines = 0;
    for (const LOG_LINE *spLine = sReader.Next(); spLine != nullptr; spLine = sReader.Next())
    {
        uLines++;
        sSessions.Take(*spLine);
        if (!spLine->bTrace) sCounts[FOREIGN].uCount++;
    }
    sSessions.Finish();
    if (uLines > 0 && uLines == sCounts[FOREIGN].uCount)
        throw base::FileFailure(base::Quoted(I_sOptions.strFile),
                                " is not a trace log: no line of it is the library's");
    if (uLines == 0)
        fputs("xbsactl: warning: the log is empty: its disk was full when it was written, or "
              "XBSA_TRACE was 0\n",
              stderr);
    sCounts[UNUSED].uCount = sActivity.uUnused;
    sCounts[DROPPED].uCount = sActivity.uDropped;
    const std::string strSummary = Summary(sCounts, uShown);
    if (!I_sOptions.bJson) Print(strSummary + "\n");
    else
        Print((uShown == 0 ? strFront : "") + "],\n\"summary\": " + SummaryJson(sCounts, uShown) +
              "}\n");
    if (sPage) sPage->Finish(strSummary);
}
} // namespace trace
