#include "trace/parts.h"

#include <algorithm>

namespace trace
{
namespace
{
constexpr size_t STAMP_LENGTH = 19; // "2026-11-24 17:46:34"
constexpr std::string_view MARK = ": Trace: (QAB library) ";

int64_t LastDay(const std::string &I_strFile)
{
    if (I_strFile == "-")
        throw base::USAGE_ERROR("--since needs a date when the log is standard input");
    int64_t iDay = 0;
    CLineReader sReader(I_strFile);
    while (const LOG_LINE *spLine = sReader.Next())
        if (spLine->bTrace) iDay = spLine->sPlace.iTime / DAY * DAY;
    return iDay;
}
} // namespace

int64_t Moment(const std::string &I_strText, const std::string &I_strFile)
{
    if (I_strText.empty()) return std::numeric_limits<int64_t>::min();
    for (const char *cpForm : {STAMP_FORM, "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M",
                               "%Y-%m-%d %H", "%Y-%m-%dT%H", "%Y-%m-%d"})
        if (const auto iTime = ParseTime(I_strText, cpForm)) return *iTime;
    for (const char *cpForm : {"%H:%M:%S", "%H:%M"})
        if (const auto iTime = ParseTime(I_strText, cpForm)) return LastDay(I_strFile) + *iTime;
    throw base::USAGE_ERROR("--since: \"" + base::Printable(I_strText) +
                            "\" is not a time such as \"2026-11-24 17:00\", \"2026-11-24\" or "
                            "\"17:00\"");
}

const LOG_LINE *CLineReader::Next()
{
    if (!sLines.Next()) return nullptr;
    sLine.bWhole = sLines.bWhole;
    sLine.sPlace.uLine++;
    sLine.bTrace = false;
    std::string_view &svText = sLine.svText;
    svText = sLines.strLine;
    svText = svText.substr(0, svText.find_last_not_of('\r') + 1);
    if (!svText.starts_with(' ') || svText.find(MARK) != 1 + STAMP_LENGTH) return &sLine;

    const std::string_view svStamp = svText.substr(1, STAMP_LENGTH);
    if (svStamp != strStamp)
    {
        const std::optional<int64_t> iTime = ParseTime(std::string(svStamp));
        if (!iTime || Stamp(*iTime) != svStamp) return &sLine; // damaged
        sLine.sPlace.iTime = *iTime;
        strStamp = svStamp;
    }
    sLine.bTrace = true;
    svText.remove_prefix(1 + STAMP_LENGTH + MARK.size());
    return &sLine;
}
} // namespace trace
