#include "trace/picture.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>

#include "trace/text.h"

namespace
{
constexpr double LANE_WIDTH = 1000; // units of the picture
constexpr int LANE_HEIGHT = 24;
constexpr double THINNEST = 3;

const char *ClassOf(STEP_KIND I_eKind)
{
    if (I_eKind == STEP_KIND::UTILITY) return "utility";
    return I_eKind == STEP_KIND::DATA ? "data" : "control";
}

// Deals out places within each second to all that begins or ends in it.
class CSpread
{
  public:
    void Announce(int64_t I_iTime)
    {
        mapEvents[I_iTime].uAll++;
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

std::string StepTitle(const STEP &I_sStep)
{
    std::string strTitle = text_Clock(I_sStep.iStart, false) + " ";
    if (I_sStep.eKind == STEP_KIND::DATA) strTitle += text_Count(I_sStep.uBytes, "byte") + " ";
    strTitle += I_sStep.strText;
    if (!I_sStep.strResult.empty()) strTitle += ": " + I_sStep.strResult;
    return strTitle +
           (I_sStep.bEnded ? ", " + text_Duration(I_sStep.iEnd - I_sStep.iStart) : ", not ended");
}

void AddSteps(std::vector<BAR> &X_vecBars, const std::vector<STEP> &I_vecSteps)
{
    CSpread sSpread;
    for (const STEP &sStep : I_vecSteps)
    {
        if (!session_HasDuration(sStep)) continue;
        sSpread.Announce(sStep.iStart);
        sSpread.Announce(sStep.iEnd);
    }
    for (const STEP &sStep : I_vecSteps)
    {
        if (!session_HasDuration(sStep)) continue;
        BAR sBar;
        sBar.cpClass = ClassOf(sStep.eKind);
        sBar.bFailed = sStep.bFailed;
        sBar.dStart = sSpread.Place(sStep.iStart);
        sBar.dEnd = std::max(sBar.dStart, sSpread.Place(sStep.iEnd));
        sBar.strTitle = picture_Escape(StepTitle(sStep));
        X_vecBars.push_back(sBar);
    }
}

// One bar for what cannot or need not be told apart.
void AddWhole(std::vector<BAR> &X_vecBars, const TRACE_SESSION &I_sSession, const char *cpClass,
              const char *cpTitle)
{
    BAR sBar;
    sBar.cpClass = cpClass;
    sBar.dStart = static_cast<double>(I_sSession.iFirst);
    sBar.dEnd = static_cast<double>(I_sSession.iLast + 1);
    sBar.bFailed = !session_IsMixed(I_sSession) && !I_sSession.strError.empty();
    sBar.strTitle = cpTitle;
    X_vecBars.push_back(sBar);
}

std::vector<BAR> Joined(const std::vector<BAR> &I_vecBars, double I_dGap)
{
    std::vector<BAR> vecJoined;
    for (const BAR &sBar : I_vecBars)
    {
        BAR *spLast = vecJoined.empty() ? nullptr : &vecJoined.back();
        if (spLast != nullptr && strcmp(spLast->cpClass, sBar.cpClass) == 0 &&
            spLast->bFailed == sBar.bFailed && sBar.dStart - spLast->dEnd < I_dGap)
        {
            spLast->dEnd = std::max(spLast->dEnd, sBar.dEnd);
            spLast->uSteps++;
            spLast->strTitle = text_Count(spLast->uSteps, "step") + ": " + sBar.cpClass;
        }
        else vecJoined.push_back(sBar);
    }
    return vecJoined;
}

// Data and failures stand out.
int Height(const BAR &I_sBar)
{
    if (I_sBar.bFailed || strcmp(I_sBar.cpClass, "data") == 0) return 18;
    return strcmp(I_sBar.cpClass, "control") == 0 ? 6 : 12;
}

std::string Rectangle(const BAR &I_sBar, double I_dFrom, double I_dScale)
{
    const double dWidth = std::max((I_sBar.dEnd - I_sBar.dStart) * I_dScale, THINNEST);
    const double dPlace = std::min((I_sBar.dStart - I_dFrom) * I_dScale, LANE_WIDTH - dWidth);
    const int iHeight = Height(I_sBar);
    std::array<char, 160> szText{};
    snprintf(szText.data(), szText.size(),
             "<rect class=\"%s%s\" x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\"><title>",
             I_sBar.cpClass, I_sBar.bFailed ? " bad" : "", std::max(dPlace, 0.0),
             (LANE_HEIGHT - iHeight) / 2, dWidth, iHeight);
    return szText.data() + I_sBar.strTitle + "</title></rect>";
}
} // namespace

std::string picture_Escape(const std::string &I_strText)
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

std::vector<BAR> picture_Bars(const TRACE_SESSION &I_sSession,
                              const std::vector<ACT_MESSAGE> &I_vecMessages)
{
    std::vector<BAR> vecBars;
    if (session_IsMixed(I_sSession))
        AddWhole(vecBars, I_sSession, "mixed", "lines of several processes");
    else if (I_sSession.bReplies) AddWhole(vecBars, I_sSession, "control", "replies of the server");
    else AddSteps(vecBars, session_Steps(I_sSession));
    for (const ACT_MESSAGE &sMessage : I_vecMessages)
    {
        BAR sBar;
        sBar.cpClass = "database";
        sBar.dStart = sBar.dEnd = static_cast<double>(sMessage.iTime);
        sBar.strTitle =
            picture_Escape(text_Clock(sMessage.iTime, false) + " database: " + sMessage.strText);
        vecBars.push_back(sBar);
    }
    return vecBars;
}

std::string picture_Lane(const std::vector<BAR> &I_vecBars, double I_dFrom, double I_dTo,
                         bool I_bJoin, const std::string &I_strTitle)
{
    const double dScale = LANE_WIDTH / std::max(I_dTo - I_dFrom, 1.0);
    std::string strLane = "<svg class=\"lane\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 "
                          "1000 24\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"" +
                          picture_Escape(I_strTitle) + "\">";
    for (const BAR &sBar : I_bJoin ? Joined(I_vecBars, 1 / dScale) : I_vecBars)
        strLane += Rectangle(sBar, I_dFrom, dScale);
    return strLane + "</svg>";
}
