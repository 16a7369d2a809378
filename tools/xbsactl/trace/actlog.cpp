#include "trace/parts.h"

#include <algorithm>
#include <ctime>
#include <numeric>
#include <sstream>

#include "trace/trace.h"

namespace trace
{
namespace
{
constexpr size_t LONGEST_MESSAGE = 1000; // with its continuation lines
constexpr size_t MOST_BYTES = 32U << 20U;
constexpr size_t OVERHEAD = 120; // bytes that a message takes besides its text
constexpr int64_t BEFORE = 60;   // seconds around a session in which a message belongs to it
constexpr int64_t AFTER = 2;

// As the log's clock shows it, which has no time zone.
int64_t LogTime(int64_t I_iTime)
{
    const time_t lTime = I_iTime;
    struct tm sLocal = {};
    localtime_r(&lTime, &sLocal);
    return timegm(&sLocal);
}
} // namespace

// Nothing for a line that does not begin a message.
std::optional<CActivityLog::MESSAGE> CActivityLog::Parse(std::string_view I_svLine)
{
    std::istringstream sWords{std::string(I_svLine)};
    std::string strDay;
    std::string strClock;
    std::string strText;
    long lProcess = 0;
    long lParent = 0;
    if (!(sWords >> strDay >> strClock >> lProcess >> lParent)) return std::nullopt;
    const std::optional<int64_t> iTime = ParseTime(strDay + " " + strClock);
    if (!iTime || lProcess <= 0) return std::nullopt;
    std::getline(sWords >> std::ws, strText);
    return MESSAGE{{lProcess, *iTime}, Clean(strText)};
}

CActivityLog::CActivityLog(const std::string &I_strFile)
{
    if (I_strFile.empty()) return;
    CLineReader sReader(I_strFile);
    MESSAGE sMessage;
    while (const LOG_LINE *spLine = sReader.Next())
    {
        if (const std::optional<MESSAGE> sNext = Parse(spLine->svText))
            Add(std::exchange(sMessage, *sNext));
        else if (!spLine->svText.empty() && sMessage.strText.size() < LONGEST_MESSAGE)
            sMessage.strText += " " + Clean(spLine->svText);
    }
    Add(sMessage);
}

void CActivityLog::Add(const MESSAGE &I_sMessage)
{
    if (I_sMessage.sKey.first == 0) return; // lines before the first message
    deqOldest.push_back(mapMessages.emplace(I_sMessage.sKey, I_sMessage.strText));
    uBytes += OVERHEAD + I_sMessage.strText.size();
    for (; uBytes > MOST_BYTES; uDropped++)
    {
        uBytes -= OVERHEAD + deqOldest.front()->second.size();
        mapMessages.erase(deqOldest.front());
        deqOldest.pop_front();
    }
}

std::vector<STEP> CActivityLog::TakeFor(const SESSION &I_sSession)
{
    std::vector<STEP> vecFound;
    for (const long lHandle : I_sSession.setHandles)
    {
        const std::string strWho = I_sSession.IsMixed() ? std::to_string(lHandle) + ": " : "";
        auto spNext = mapMessages.lower_bound({lHandle, I_sSession.sFirst.iTime - BEFORE});
        const KEY sLast = {lHandle, I_sSession.sLast.iTime + AFTER};
        for (; spNext != mapMessages.end() && spNext->first <= sLast;
             spNext = mapMessages.erase(spNext))
            vecFound.push_back({KIND::DATABASE, spNext->first.second, strWho + spNext->second});
    }
    std::ranges::stable_sort(vecFound, {}, &STEP::iStart);
    return vecFound;
}

std::vector<std::vector<std::string>> MessagesOf(const std::string &I_strActLog,
                                                 const std::vector<SPAN> &I_vecSpans)
{
    CActivityLog sLog(I_strActLog);
    std::vector<std::vector<std::string>> vecMessages(I_vecSpans.size());
    std::vector<size_t> vecOrder(I_vecSpans.size());
    std::iota(vecOrder.begin(), vecOrder.end(), 0);
    std::ranges::sort(vecOrder, {}, [&](size_t uSpan) { return I_vecSpans[uSpan].iLast; });
    for (const size_t uSpan : vecOrder)
    {
        SESSION sSession;
        sSession.setHandles = {I_vecSpans[uSpan].lProcess};
        sSession.sFirst.iTime = LogTime(I_vecSpans[uSpan].iFirst);
        sSession.sLast.iTime = LogTime(I_vecSpans[uSpan].iLast);
        for (const STEP &sStep : sLog.TakeFor(sSession))
            vecMessages[uSpan].push_back(Clock(sStep.iStart, true) + " " + sStep.strText);
    }
    return vecMessages;
}
} // namespace trace
