// The reader of trace logs.
#ifndef XBSACTL_TRACE_H
#define XBSACTL_TRACE_H

#include <cstdint>
#include <string>
#include <vector>

namespace trace
{
struct OPTIONS
{
    std::string strFile = "-"; // the log; "-": standard input
    std::string strSince;      // empty: from the start
    long lHandle = 0;          // 0 for all
    std::string strHtml;       // empty: no page
    std::string strActLog;     // empty: none
    bool bJson = false;        // JSON instead of a text
};

void Run(const OPTIONS &I_sOptions);

// The life of an object, in seconds since 1970.
struct SPAN
{
    long lProcess = 0;
    int64_t iFirst = 0;
    int64_t iLast = 0;
};

// The messages of the database's activity log for each, by the same rules as for a trace. A message
// belongs to one of them only. Throws FAILURE.
std::vector<std::vector<std::string>> MessagesOf(const std::string &I_strActLog,
                                                 const std::vector<SPAN> &I_vecSpans);
} // namespace trace

#endif
