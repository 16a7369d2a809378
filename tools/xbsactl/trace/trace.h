// The reader of trace logs.
#ifndef XBSACTL_TRACE_H
#define XBSACTL_TRACE_H

#include <string>

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
} // namespace trace

#endif
