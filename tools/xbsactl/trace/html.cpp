#include "trace/html.h"

#include <algorithm>

#include "trace/print.h"
#include "trace/text.h"

namespace
{
constexpr size_t MOST_SESSIONS = 200;
constexpr size_t MOST_BYTES = 16U << 20U;

constexpr const char *HEAD = R"(<!DOCTYPE html>
<html lang="en" xmlns="http://www.w3.org/1999/xhtml"><head><meta charset="utf-8"/>
<meta name="viewport" content="width=device-width, initial-scale=1"/>
<title>Sessions of a trace log</title><style>
:root{color-scheme:light dark;--back:#fff;--text:#1d2127;--dim:#5a6472;--line:#d5dae1;
--lane:#f0f2f5;--control:#2f6fb5;--utility:#c9751f;--data:#2e8b57;--mixed:#8a8f98;
--database:#7b3fa0;--bad:#c62828}
@media(prefers-color-scheme:dark){:root{--back:#15181c;--text:#e4e7eb;--dim:#9aa4b1;--line:#343a42;
--lane:#22272d;--control:#6aa7e8;--utility:#e9a04f;--data:#5cc48b;--mixed:#7d838c;
--database:#c08be0;--bad:#ff6b62}}
body{margin:0 auto;max-width:75rem;padding:1rem;background:var(--back);color:var(--text);
font:1rem/1.45 system-ui,sans-serif;overflow-wrap:anywhere}
h1{font-size:1.4rem}h2{font-size:1.05rem;margin:0 0 .3rem}a{color:inherit}
p,ul{margin:.3rem 0}ul{padding-left:1.2rem}section{border-top:1px solid var(--line);padding:1rem 0}
.dim,time{color:var(--dim)}.fact{color:var(--bad);font-weight:600}
.row{display:grid;grid-template-columns:minmax(0,19rem) minmax(0,1fr);gap:0 .8rem;align-items:center;margin:.15rem 0}
.row a{white-space:nowrap;overflow:hidden;text-overflow:ellipsis;font-size:.9rem}
.lane{display:block;width:100%;height:1.5rem;background:var(--lane);border-radius:3px}
.axis{display:flex;justify-content:space-between;font-size:.85rem}
.legend{display:flex;flex-wrap:wrap;gap:.2rem 1.2rem}
.legend svg{display:inline-block;width:1.6rem;height:1.2rem;
vertical-align:middle;background:none}
.control{fill:var(--control)}.utility{fill:var(--utility)}.data{fill:var(--data)}
.mixed{fill:var(--mixed);fill-opacity:.6}.database{fill:var(--database)}.bad{fill:var(--bad)}
table{border-collapse:collapse;width:100%;font-size:.9rem;margin-top:.5rem}
td,th{text-align:left;vertical-align:top;padding:.15rem .5rem .15rem 0;border-top:1px solid var(--line)}
td:nth-child(1),td:nth-child(2),td:nth-child(3){white-space:nowrap}
tr.bad td{color:var(--bad);font-weight:600}
@media(max-width:45rem){.row{grid-template-columns:minmax(0,1fr);margin:.5rem 0}
.row.axisrow>span:first-child{display:none}}
</style></head><body>
)";

std::string Swatch(const char *cpClass, const char *cpText)
{
    BAR sBar;
    sBar.cpClass = cpClass;
    sBar.dEnd = 1;
    sBar.strTitle = cpText;
    return "<span>" + picture_Lane({sBar}, 0, 1, false, cpText) + " " + cpText + "</span>\n";
}

std::string Legend()
{
    return "<p class=\"legend\">" + Swatch("control", "control commands") +
           Swatch("utility", "utility runs") + Swatch("data", "data phase") +
           Swatch("control bad", "failed") + Swatch("mixed", "several processes, mixed") +
           Swatch("database", "database message") +
           "</p>\n<p class=\"dim\">The log's clock has whole seconds. What began or ended within "
           "one "
           "second is spread over it in its order; rest the pointer on a bar for its text.</p>\n";
}

std::string Facts(const TRACE_SESSION &I_sSession)
{
    std::string strList = "<ul>";
    for (const std::string &strFact : print_Facts(I_sSession))
    {
        const bool bError = strFact.rfind("first error", 0) == 0;
        strList += std::string(bError ? "<li class=\"fact\">" : "<li>") + picture_Escape(strFact) +
                   "</li>";
    }
    return strList + "</ul>\n";
}

std::string TableRow(const PRINT_ROW &I_sRow)
{
    if (I_sRow.strKind.empty())
        return "<tr><th colspan=\"4\">" + picture_Escape(I_sRow.strText) + "</th></tr>\n";
    return std::string(I_sRow.bFailed ? "<tr class=\"bad\"><td>" : "<tr><td>") + I_sRow.strClock +
           "</td><td>" + I_sRow.strKind + "</td><td>" + picture_Escape(I_sRow.strDuration) +
           "</td><td>" + picture_Escape(I_sRow.strText) + (I_sRow.bFailed ? " (failed)" : "") +
           "</td></tr>\n";
}

std::string Table(const TRACE_SESSION &I_sSession, const std::vector<ACT_MESSAGE> &I_vecMessages)
{
    std::string strTable;
    for (const PRINT_ROW &sRow : print_Rows(I_sSession, I_vecMessages)) strTable += TableRow(sRow);
    return strTable.empty() ? "" : "<table><tbody>\n" + strTable + "</tbody></table>\n";
}

std::string Axis(int64_t I_iFirst, int64_t I_iLast)
{
    return "<div class=\"axis dim\"><span>" + text_Clock(I_iFirst, true) + "</span><span>" +
           text_Clock(I_iFirst + (I_iLast - I_iFirst) / 2, true) + "</span><span>" +
           text_Clock(I_iLast, true) + "</span></div>";
}
} // namespace

CHtmlPage::CHtmlPage(const std::string &I_strFile) : sOutput(I_strFile)
{
}

void CHtmlPage::Add(const TRACE_SESSION &I_sSession, const std::vector<ACT_MESSAGE> &I_vecMessages)
{
    ENTRY sEntry;
    sEntry.strNumber = std::to_string(I_sSession.uNumber);
    sEntry.strOutcome = session_Outcome(I_sSession);
    sEntry.strTitle = picture_Escape(print_Title(I_sSession));
    sEntry.strObjects = picture_Escape(session_Objects(I_sSession));
    sEntry.iFirst = I_sSession.iFirst;
    sEntry.iLast = std::max(I_sSession.iFirst, I_sSession.iLast);
    sEntry.vecBars = picture_Bars(I_sSession, I_vecMessages);
    sEntry.strDetails = Facts(I_sSession) + Table(I_sSession, I_vecMessages);
    sEntry.uBytes = sEntry.strDetails.size();
    for (const BAR &sBar : sEntry.vecBars) sEntry.uBytes += sizeof sBar + sBar.strTitle.size();

    uBytes += sEntry.uBytes;
    deqEntries.push_back(std::move(sEntry));
    while (deqEntries.size() > MOST_SESSIONS || (uBytes > MOST_BYTES && deqEntries.size() > 1))
    {
        uBytes -= deqEntries.front().uBytes;
        deqEntries.pop_front();
        uLeftOut++;
    }
}

void CHtmlPage::Write(const std::string &I_strText)
{
    sOutput.Write(I_strText.data(), I_strText.size());
}

std::string CHtmlPage::LeftOut() const
{
    if (uLeftOut == 0) return "";
    return "<p><strong>The picture has room for the newest " +
           text_Count(deqEntries.size(), "session") + "; " + std::to_string(uLeftOut) +
           " before them are left out.</strong> Choose with --since or --handle.</p>\n";
}

void CHtmlPage::WriteOverview()
{
    if (deqEntries.empty()) return;
    int64_t iFirst = deqEntries.front().iFirst;
    int64_t iLast = deqEntries.front().iLast;
    for (const ENTRY &sEntry : deqEntries)
    {
        iFirst = std::min(iFirst, sEntry.iFirst);
        iLast = std::max(iLast, sEntry.iLast);
    }
    Write(Legend());
    for (const ENTRY &sEntry : deqEntries)
        Write("<div class=\"row\"><a href=\"#s" + sEntry.strNumber + "\" title=\"" +
              sEntry.strTitle + "\">" + sEntry.strNumber + " " + sEntry.strOutcome + ", " +
              (sEntry.strObjects.empty() ? sEntry.strTitle : sEntry.strObjects) + "</a>" +
              picture_Lane(sEntry.vecBars, static_cast<double>(iFirst),
                           static_cast<double>(iLast + 1), true, "session " + sEntry.strNumber) +
              "</div>\n");
    Write("<div class=\"row axisrow\"><span></span>" + Axis(iFirst, iLast + 1) + "</div>\n");
}

void CHtmlPage::Finish(const std::string &I_strSummary)
{
    Write(HEAD);
    Write("<h1>Sessions of a trace log</h1>\n<p>" + picture_Escape(I_strSummary) + "</p>\n");
    Write(LeftOut());
    WriteOverview();
    for (const ENTRY &sEntry : deqEntries)
    {
        Write("<section id=\"s" + sEntry.strNumber + "\"><h2>" + sEntry.strNumber + " " +
              sEntry.strOutcome + ", " + sEntry.strTitle + "</h2>\n");
        Write(picture_Lane(sEntry.vecBars, static_cast<double>(sEntry.iFirst),
                           static_cast<double>(sEntry.iLast + 1), false,
                           "steps of session " + sEntry.strNumber));
        Write(Axis(sEntry.iFirst, sEntry.iLast + 1) + sEntry.strDetails + "</section>\n");
    }
    Write("</body></html>\n");
    sOutput.Commit();
}
