// The sessions as one page that needs nothing else: no script, no font, no network.
#ifndef XBSACTL_TRACELOG_HTML_H
#define XBSACTL_TRACELOG_HTML_H

#include <deque>
#include <string>
#include <vector>

#include "base/base.h"
#include "trace/actlog.h"
#include "trace/picture.h"
#include "trace/session.h"

class CHtmlPage
{
  public:
    explicit CHtmlPage(const std::string &I_strFile);

    // Keeps the newest sessions, as many as the page has room for.
    void Add(const TRACE_SESSION &I_sSession, const std::vector<ACT_MESSAGE> &I_vecMessages);
    void Finish(const std::string &I_strSummary); // the file is there afterwards

  private:
    struct ENTRY
    {
        std::string strNumber;
        std::string strOutcome;
        std::string strTitle;
        std::string strObjects;
        int64_t iFirst = 0;
        int64_t iLast = 0;
        std::vector<BAR> vecBars;
        std::string strDetails;
        size_t uBytes = 0;
    };

    void Write(const std::string &I_strText);
    void WriteOverview();
    std::string LeftOut() const;

    base::COutput sOutput;
    std::deque<ENTRY> deqEntries;
    size_t uBytes = 0;
    uint64_t uLeftOut = 0;
};

#endif
