#include "trace/picture.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

#include "trace/text.h"

namespace trace
{
namespace
{
constexpr double LANE_WIDTH = 1000; // units of the picture
constexpr int LANE_HEIGHT = 24;
constexpr double THINNEST = 3;

// Deals out places within each second to all that begins or ends in it.
class CSpread
{
  public:
    explicit CSpread(const std::vector<STEP> &I_vecSteps)
    {
        for (const STEP &sStep : I_vecSteps)
            for (const int64_t iTime : {sStep.iStart, sStep.iEnd})
                if (sStep.HasDuration()) mapEvents[iTime].uAll++;
    }

    double Place(int64_t I_iTime)
    {
        EVENTS &sEvents = mapEvents[I_iTime];
        sEvents.uPlaced++;
        return static_cast<double>(I_iTime) +
               static_cast<double>(sEvents.uPlaced) / static_cast<double>(sEvents.uAll + 1);
    }

  private:
    struct EVENTS
    {
        uint64_t uAll = 0;
        uint64_t uPlaced = 0;
    };
    std::map<int64_t, EVENTS> mapEvents;
};

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

// One bar for what cannot or need not be told apart.
BAR Whole(const SESSION &I_sSession)
{
    BAR sBar;
    sBar.strClass = I_sSession.IsMixed() ? "mixed" : "control";
    sBar.strTitle = I_sSession.IsMixed() ? "lines of several processes" : "replies of the server";
    sBar.dStart = static_cast<double>(I_sSession.sFirst.iTime);
    sBar.dEnd = static_cast<double>(I_sSession.sLast.iTime + 1);
    sBar.bFailed = !I_sSession.IsMixed() && I_sSession.sError.sPlace.uLine != 0;
    return sBar;
}

// Data and failures stand out.
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
} // namespace

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

std::vector<BAR> Bars(const SHOWN &I_sShown)
{
    const SESSION &sSession = I_sShown.sSession;
    const bool bWhole = sSession.IsMixed() || sSession.eOrigin == ORIGIN::REPLIES;
    std::vector<BAR> vecBars;
    if (bWhole) vecBars.push_back(Whole(sSession));
    CSpread sSpread(I_sShown.vecSteps);
    for (const STEP &sStep : I_sShown.vecSteps)
    {
        const bool bDatabase = sStep.eKind == KIND::DATABASE;
        if (!bDatabase && (bWhole || !sStep.HasDuration())) continue;
        BAR sBar;
        sBar.strClass = KindName(sStep.eKind);
        sBar.bFailed = sStep.bFailed;
        sBar.dStart = bDatabase ? static_cast<double>(sStep.iStart) : sSpread.Place(sStep.iStart);
        sBar.dEnd = bDatabase ? sBar.dStart : std::max(sBar.dStart, sSpread.Place(sStep.iEnd));
        sBar.strTitle = Title(sStep);
        vecBars.push_back(sBar);
    }
    return vecBars;
}

std::string Lane(const std::vector<BAR> &I_vecBars, double I_dFrom, double I_dTo,
                 const std::string &I_strTitle)
{
    std::string strLane = "<svg class=\"lane\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 "
                          "1000 24\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"" +
                          Escape(I_strTitle) + "\">";
    for (const BAR &sBar : I_vecBars)
        strLane += Rectangle(sBar, I_dFrom, LANE_WIDTH / std::max(I_dTo - I_dFrom, 1.0));
    return strLane + "</svg>";
}

std::string JoinedLane(const std::vector<BAR> &I_vecBars, double I_dFrom, double I_dTo,
                       const std::string &I_strTitle)
{
    const double dGap = std::max(I_dTo - I_dFrom, 1.0) / LANE_WIDTH;
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
    return Lane(vecJoined, I_dFrom, I_dTo, I_strTitle);
}
} // namespace trace
