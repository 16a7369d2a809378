#include "trace/parts.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

#include "trace/head_html.h"
#include "trace/legend_html.h"
#include "trace/page_css.h"

namespace trace
{
namespace
{
constexpr size_t MOST_SESSIONS = 200;
constexpr size_t PAGE_BYTES = 16U << 20U;

// Text escaped for elements and attributes of a page.
std::string Escape(const std::string &I_strText)
{
    std::string strEscaped;
    for (const char cChar : I_strText)
    {
        if (cChar == '<') strEscaped += "&lt;";
        else if (cChar == '>') strEscaped += "&gt;";
        else if (cChar == '&') strEscaped += "&amp;";
        else if (cChar == '"') strEscaped += "&quot;";
        else strEscaped += cChar;
    }
    return strEscaped;
}

constexpr double LANE_WIDTH = 1000; // units of the picture
constexpr int LANE_HEIGHT = 24;
constexpr double THINNEST = 3;

// Assigns places within each second to everything that begins or ends in it.
auto Spread(const std::vector<STEP> &I_vecSteps)
{
    std::map<int64_t, std::pair<double, double>> mapEvents; // of a second: all, and those placed
    for (const STEP &sStep : I_vecSteps)
        for (const int64_t iTime : {sStep.iStart, sStep.iEnd})
            if (sStep.HasDuration()) mapEvents[iTime].first++;
    return [mapEvents = std::move(mapEvents)](int64_t I_iTime) mutable {
        auto &[dAll, dPlaced] = mapEvents[I_iTime];
        return static_cast<double>(I_iTime) + ++dPlaced / (dAll + 1);
    };
}

std::string Title(const STEP &I_sStep)
{
    std::string strTitle = Clock(I_sStep.iStart, false) + " ";
    if (I_sStep.eKind == KIND::DATABASE) strTitle += "database: ";
    if (I_sStep.eKind == KIND::DATA) strTitle += Count(I_sStep.uBytes, "byte") + " ";
    strTitle += I_sStep.strText;
    if (!I_sStep.strResult.empty()) strTitle += ": " + I_sStep.strResult;
    const std::string strDuration = StepDuration(I_sStep);
    return Escape(strDuration.empty() ? strTitle : strTitle + ", " + strDuration);
}

// Data and failures are drawn larger.
int Height(const BAR &I_sBar)
{
    if (I_sBar.bFailed || I_sBar.strClass == "data") return 18;
    return I_sBar.strClass == "control" ? 6 : 12;
}

std::string Rectangle(const BAR &I_sBar, double I_dFrom, double I_dScale)
{
    const double dWidth = std::max((I_sBar.dEnd - I_sBar.dStart) * I_dScale, THINNEST);
    const double dPlace = std::min((I_sBar.dStart - I_dFrom) * I_dScale, LANE_WIDTH - dWidth);
    const int iHeight = Height(I_sBar);
    std::array<char, 160> szText{};
    snprintf(szText.data(), szText.size(),
             "<rect class=\"%s%s\" x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\"><title>",
             I_sBar.strClass.c_str(), I_sBar.bFailed ? " bad" : "", std::max(dPlace, 0.0),
             (LANE_HEIGHT - iHeight) / 2, dWidth, iHeight);
    return szText.data() + I_sBar.strTitle + "</title></rect>";
}

// One bar for steps that cannot or need not be distinguished. Otherwise the log records whole
// seconds: steps within one second are spread over it, so that their order can be seen.
std::vector<BAR> Bars(const SHOWN &I_sShown)
{
    const SESSION &sSession = I_sShown.sSession;
    const bool bMixed = sSession.IsMixed();
    const bool bWhole = bMixed || sSession.eOrigin == ORIGIN::REPLIES;
    std::vector<BAR> vecBars;
    if (bWhole)
        vecBars.push_back({bMixed ? "mixed" : "control", !bMixed && sSession.sError,
                           static_cast<double>(sSession.sFirst.iTime),
                           static_cast<double>(sSession.sLast.iTime + 1),
                           bMixed ? "lines of several processes" : "replies of the server"});
    auto fpPlace = Spread(I_sShown.vecSteps);
    for (const STEP &sStep : I_sShown.vecSteps)
    {
        const bool bDatabase = sStep.eKind == KIND::DATABASE;
        if (!bDatabase && (bWhole || !sStep.HasDuration())) continue;
        const double dStart = bDatabase ? static_cast<double>(sStep.iStart) : fpPlace(sStep.iStart);
        const double dEnd = bDatabase ? dStart : std::max(dStart, fpPlace(sStep.iEnd));
        vecBars.push_back({KindName(sStep.eKind), sStep.bFailed, dStart, dEnd, Title(sStep)});
    }
    return vecBars;
}

std::string Lane(const std::vector<BAR> &I_vecBars, int64_t I_iFrom, int64_t I_iTo,
                 const std::string &I_strTitle)
{
    const auto dFrom = static_cast<double>(I_iFrom);
    const double dScale = LANE_WIDTH / static_cast<double>(std::max<int64_t>(I_iTo - I_iFrom, 1));
    std::string strLane = "<svg class=\"lane\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 "
                          "1000 24\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"" +
                          Escape(I_strTitle) + "\">";
    for (const BAR &sBar : I_vecBars) strLane += Rectangle(sBar, dFrom, dScale);
    return strLane + "</svg>";
}

// Bars of one kind that touch are drawn as one.
std::string JoinedLane(const std::vector<BAR> &I_vecBars, int64_t I_iFrom, int64_t I_iTo,
                       const std::string &I_strTitle)
{
    const double dGap = static_cast<double>(std::max<int64_t>(I_iTo - I_iFrom, 1)) / LANE_WIDTH;
    std::vector<BAR> vecJoined;
    for (const BAR &sBar : I_vecBars)
    {
        BAR *spLast = vecJoined.empty() ? nullptr : &vecJoined.back();
        if (spLast != nullptr && spLast->strClass == sBar.strClass &&
            spLast->bFailed == sBar.bFailed && sBar.dStart - spLast->dEnd < dGap)
        {
            spLast->dEnd = std::max(spLast->dEnd, sBar.dEnd);
            spLast->strTitle = Count(++spLast->uSteps, "step") + ": " + sBar.strClass;
        }
        else vecJoined.push_back(sBar);
    }
    return Lane(vecJoined, I_iFrom, I_iTo, I_strTitle);
}

// The tables of all sessions have columns of the same width: those of the first row count,
// and that row may be a heading. On a narrow screen a step's text goes below its time.
constexpr const char *TABLE = "<table><colgroup><col/><col/><col/><col/></colgroup><tbody>\n";

std::string Axis(int64_t I_iFirst, int64_t I_iLast)
{
    std::string strAxis = "<div class=\"axis dim\">";
    for (const int64_t iTime : {I_iFirst, I_iFirst + (I_iLast - I_iFirst) / 2, I_iLast})
        strAxis += "<span>" + Clock(iTime, true) + "</span>";
    return strAxis + "</div>";
}

std::string FactList(const SESSION &I_sSession)
{
    std::string strList = "<ul>";
    for (const std::string &strFact : Facts(I_sSession))
        strList += (strFact.starts_with("first error") ? "<li class=\"fact\">" : "<li>") +
                   Escape(strFact) + "</li>";
    return strList + "</ul>\n";
}

std::string TableRow(const SHOWN &I_sShown, const STEP &I_sStep)
{
    std::array<std::string, 4> strCells = Cells(I_sShown, I_sStep);
    if (I_sStep.eKind == KIND::OBJECT)
        return "<tr><th colspan=\"4\">" + Escape(strCells.back()) + "</th></tr>\n";
    if (I_sStep.bFailed) strCells.back() += " (failed)";
    std::string strRow = I_sStep.bFailed ? "<tr class=\"bad\">" : "<tr>";
    for (const std::string &strCell : strCells) strRow += "<td>" + Escape(strCell) + "</td>";
    return strRow + "</tr>\n";
}

std::string Table(const SHOWN &I_sShown)
{
    if (I_sShown.vecSteps.empty()) return "";
    std::string strTable = TABLE;
    for (const STEP &sStep : I_sShown.vecSteps) strTable += TableRow(I_sShown, sStep);
    return strTable + "</tbody></table>\n";
}
} // namespace

void CPage::Add(const SHOWN &I_sShown)
{
    const SESSION &sSession = I_sShown.sSession;
    const std::string strTitle = Escape(sSession.Title());
    const std::string strObjects = Escape(sSession.sSteps.Names());
    const std::string strNumber = std::to_string(sSession.uNumber);
    const std::string strHead = strNumber + " " + sSession.OutcomeText() + ", ";
    ENTRY sEntry{"session " + strNumber, sSession.sFirst.iTime,
                 std::max(sSession.sFirst.iTime, sSession.sLast.iTime) + 1, Bars(I_sShown)};
    sEntry.strLink = base::Text("<a href=\"#s", strNumber, "\" title=\"", strTitle, "\">", strHead,
                                strObjects.empty() ? strTitle : strObjects, "</a>");
    sEntry.strSection = base::Text(
        "<section id=\"s", strNumber, "\"><h2>", strHead, strTitle, "</h2>\n",
        Lane(sEntry.vecBars, sEntry.iFirst, sEntry.iLast, "steps of " + sEntry.strName),
        Axis(sEntry.iFirst, sEntry.iLast), FactList(sSession), Table(I_sShown), "</section>\n");
    sEntry.uBytes = sEntry.strSection.size();
    for (const BAR &sBar : sEntry.vecBars) sEntry.uBytes += sizeof sBar + sBar.strTitle.size();

    uBytes += sEntry.uBytes;
    deqEntries.push_back(std::move(sEntry));
    while (deqEntries.size() > MOST_SESSIONS || (uBytes > PAGE_BYTES && deqEntries.size() > 1))
    {
        uBytes -= deqEntries.front().uBytes;
        deqEntries.pop_front();
        uLeftOut++;
    }
}

void CPage::Write(std::string_view I_svText)
{
    sOutput.Write(I_svText.data(), I_svText.size());
}

void CPage::WriteOverview()
{
    if (deqEntries.empty()) return;
    const int64_t iFirst = std::ranges::min_element(deqEntries, {}, &ENTRY::iFirst)->iFirst;
    const int64_t iLast = std::ranges::max_element(deqEntries, {}, &ENTRY::iLast)->iLast;
    Write(LEGEND_HTML);
    for (const ENTRY &sEntry : deqEntries)
        Write("<div class=\"row\">" + sEntry.strLink +
              JoinedLane(sEntry.vecBars, iFirst, iLast, sEntry.strName) + "</div>\n");
    Write("<div class=\"row axisrow\"><span></span>" + Axis(iFirst, iLast) + "</div>\n");
}

void CPage::Finish(const std::string &I_strSummary)
{
    Write(HEAD_HTML);
    Write(PAGE_CSS);
    Write("</style></head><body>\n<h1>Sessions of a trace log</h1>\n<p>" + Escape(I_strSummary) +
          "</p>\n");
    if (uLeftOut > 0)
        Write("<p><strong>The picture shows only the newest " +
              Count(deqEntries.size(), "session") + "; " + std::to_string(uLeftOut) +
              " earlier ones are omitted.</strong> Select with --since or --handle.</p>\n");
    WriteOverview();
    for (const ENTRY &sEntry : deqEntries) Write(sEntry.strSection);
    Write("</body></html>\n");
    sOutput.Commit();
}
} // namespace trace
