#include "trace/parts.h"

#include <sstream>

namespace trace
{
namespace
{
constexpr size_t LONGEST_MESSAGE = 1000; // with its continuation lines
constexpr size_t MOST_BYTES = 24U << 20U;
constexpr int64_t BEFORE = 60; // seconds around a session in which a message belongs to it still
constexpr int64_t AFTER = 2;
} // namespace

// Nothing for a line that is not a message of its own.
std::optional<CActivityLog::MESSAGE> CActivityLog::Parse(std::string_view I_svLine)
{
    std::istringstream sWords{std::string(I_svLine)};
    std::string strDay;
    std::string strClock;
    std::string strText;
    MESSAGE sMessage;
    long lParent = 0;
    if (!(sWords >> strDay >> strClock >> sMessage.lProcess >> lParent)) return std::nullopt;
    const std::optional<int64_t> iTime = ParseTime(strDay + " " + strClock);
    if (!iTime || sMessage.lProcess <= 0) return std::nullopt;
    std::getline(sWords >> std::ws, strText);
    sMessage.iTime = *iTime;
    sMessage.strText = Clean(strText);
    return sMessage;
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
    if (I_sMessage.lProcess == 0) return; // what came before the first one
    mapMessages.emplace(I_sMessage.iTime, I_sMessage);
    uBytes += I_sMessage.Size();
    for (; uBytes > MOST_BYTES; uDropped++)
    {
        uBytes -= mapMessages.begin()->second.Size();
        mapMessages.erase(mapMessages.begin());
    }
}

std::vector<STEP> CActivityLog::TakeFor(const SESSION &I_sSession)
{
    std::vector<STEP> vecFound;
    auto spNext = mapMessages.lower_bound(I_sSession.sFirst.iTime - BEFORE);
    while (spNext != mapMessages.end() && spNext->first <= I_sSession.sLast.iTime + AFTER)
    {
        const auto spMessage = spNext++;
        const auto &[lProcess, iTime, strText] = spMessage->second;
        if (!I_sSession.setHandles.contains(lProcess)) continue;
        const std::string strWho = I_sSession.IsMixed() ? std::to_string(lProcess) + ": " : "";
        vecFound.push_back({KIND::DATABASE, iTime, strWho + strText});
        mapMessages.erase(spMessage);
    }
    return vecFound;
}
} // namespace trace
