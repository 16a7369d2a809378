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

// How the summary and its JSON name the counts.
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
     {"left_out", ", ", " more excluded by --since or --handle"},
     {"foreign_lines", "; other lines, or continued from the line before: ", ""},
     {"unused_messages", "; database messages outside the sessions shown: ", ""},
     {"dropped_messages", "; oldest database messages skipped: ", ""}}};

// The page replaces a file of its name.
void CheckPage(const OPTIONS &I_sOptions)
{
    std::error_code sError; // a missing file is not the same
    for (const std::string &strInput : {I_sOptions.strFile, I_sOptions.strActLog})
        if (std::filesystem::is_regular_file(strInput, sError) &&
            std::filesystem::equivalent(strInput, I_sOptions.strHtml, sError))
            throw base::USAGE_ERROR("--html would overwrite the input log");
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

// Returns how many lines the library did not write.
uint64_t ReadLog(CLineReader &X_sReader, CSessions &X_sSessions, const std::string &I_strFile)
{
    uint64_t uLines = 0;
    uint64_t uForeign = 0;
    for (; const LOG_LINE *spLine = X_sReader.Next(); uLines++)
    {
        X_sSessions.Take(*spLine);
        if (!spLine->bTrace) uForeign++;
    }
    X_sSessions.Finish();
    if (uLines > 0 && uLines == uForeign)
        throw base::FileFailure(base::Quoted(I_strFile),
                                " is not a trace log: it contains no line of the library");
    if (uLines == 0)
        fputs("xbsactl: warning: the log is empty: the disk was full when it was written, or "
              "XBSA_TRACE was 0\n",
              stderr);
    return uForeign;
}

void Print(const std::string &I_strText)
{
    fputs(I_strText.c_str(), stdout);
    if (ferror(stdout) != 0) throw base::FAILURE("writing standard output failed");
}
} // namespace

void Run(const OPTIONS &I_sOptions)
{
    CheckPage(I_sOptions);
    const int64_t iSince = Moment(I_sOptions.strSince, I_sOptions.strFile);
    CLineReader sReader(I_sOptions.strFile);
    CActivityLog sActivity(I_sOptions.strActLog);
    std::optional<CPage> sPage;
    if (!I_sOptions.strHtml.empty()) sPage.emplace(I_sOptions.strHtml);

    COUNTS sCounts = NO_COUNTS;
    uint64_t uShown = 0;
    std::string strFront = base::Text("{\"schema\": ", SCHEMA, ", \"sessions\": [\n");
    CSessions sSessions([&](const SESSION &sSession) {
        const bool bHandle =
            I_sOptions.lHandle == 0 || sSession.setHandles.contains(I_sOptions.lHandle);
        const bool bWanted = bHandle && sSession.sLast.iTime >= iSince;
        sCounts[bWanted ? static_cast<COUNTED>(sSession.Outcome()) : HIDDEN].uCount++;
        if (!bWanted) return;
        const SHOWN sShown = Show(sSession, sActivity.TakeFor(sSession));
        uShown++;
        Print(I_sOptions.bJson ? std::exchange(strFront, ",\n") + SessionJson(sShown)
                               : SessionText(sShown));
        if (sPage) sPage->Add(sShown);
    });
    sCounts[FOREIGN].uCount = ReadLog(sReader, sSessions, I_sOptions.strFile);
    sCounts[UNUSED].uCount = sActivity.Unused();
    sCounts[DROPPED].uCount = sActivity.uDropped;
    const std::string strSummary = Summary(sCounts, uShown);
    if (uShown > 0) strFront.clear();
    const std::string strJson =
        strFront + "],\n\"summary\": " + SummaryJson(sCounts, uShown) + "}\n";
    Print(I_sOptions.bJson ? strJson : strSummary + "\n");
    if (sPage) sPage->Finish(strSummary);
}
} // namespace trace
