// The sessions as one page that needs nothing else: no script, no font, no network.
#ifndef XBSACTL_TRACE_PAGE_H
#define XBSACTL_TRACE_PAGE_H

#include <deque>
#include <string>
#include <vector>

#include "base/base.h"
#include "trace/picture.h"

namespace trace
{
class CPage
{
  public:
    explicit CPage(const std::string &I_strFile);

    void Add(const SHOWN &I_sShown);              // keeps the newest, as many as have room
    void Finish(const std::string &I_strSummary); // the file is there afterwards

  private:
    struct ENTRY
    {
        std::string strNumber;
        std::string strLink; // of the overview
        std::string strSection;
        int64_t iFirst = 0;
        int64_t iLast = 0;
        std::vector<BAR> vecBars;
        size_t uBytes = 0;
    };

    void Write(const std::string &I_strText);
    void WriteOverview();

    base::COutput sOutput;
    std::deque<ENTRY> deqEntries;
    size_t uBytes = 0;
    uint64_t uLeftOut = 0;
};
} // namespace trace

#endif
