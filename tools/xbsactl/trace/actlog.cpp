#include "trace/parts.h"

#include <algorithm>
#include <sstream>
#include <tuple>

namespace trace
{
namespace
{
constexpr size_t LONGEST_MESSAGE = 1000; // with its continuation lines
constexpr size_t MOST_BYTES = 24U << 20U;
constexpr int64_t BEFORE = 60; // seconds around a session in which a message belongs to it still
constexpr int64_t AFTER = 2;
} // namespace

// Returns false for a line that is not a message of its own.
bool CActivityLog::Parse(std::string_view I_svLine, MESSAGE &O_sMessage)
{
    std::istringstream sWords{std::string(I_svLine)};
    std::string strDay;
    std::string strClock;
    long lParent = 0;
    if (!(sWords >> strDay >> strClock >> O_sMessage.lProcess >> lParent)) return false;
    const std::optional<int64_t> iTime = ParseTime(strDay + " " + strClock);
    if (!iTime || O_sMessage.lProcess <= 0) return false;
    O_sMessage.iTime = *iTime;
    std::getline(sWords >> std::ws, O_sMessage.strText);
    O_sMessage.strText = Clean(O_sMessage.strText);
    return true;
}

CActivityLog::CActivityLog(const std::string &I_strFile)
{
    if (I_strFile.empty()) return;
    CLineReader sReader(I_strFile);
    while (const LOG_LINE *spLine = sReader.Next())
    {
        MESSAGE sMessage;
        if (Parse(spLine->svText, sMessage)) Add(sMessage);
        else if (!deqMessages.empty() && !spLine->svText.empty() &&
                 deqMessages.back().strText.size() < LONGEST_MESSAGE)
        {
            const std::string strMore = " " + Clean(spLine->svText);
            deqMessages.back().strText += strMore;
            uBytes += strMore.size();
        }
    }
    std::stable_sort(
        deqMessages.begin(), deqMessages.end(), [](const MESSAGE &sOne, const MESSAGE &sOther) {
            return std::tie(sOne.lProcess, sOne.iTime) < std::tie(sOther.lProcess, sOther.iTime);
        });
}

void CActivityLog::Add(const MESSAGE &I_sMessage)
{
    deqMessages.push_back(I_sMessage);
    uUnused++;
    uBytes += sizeof(MESSAGE) + I_sMessage.strText.size();
    while (uBytes > MOST_BYTES)
    {
        uBytes -= sizeof(MESSAGE) + deqMessages.front().strText.size();
        deqMessages.pop_front();
        uUnused--;
        uDropped++;
    }
}

std::vector<STEP> CActivityLog::TakeFor(const SESSION &I_sSession)
{
    std::vector<STEP> vecFound;
    for (const long lHandle : I_sSession.setHandles)
    {
        const auto fpBefore = [lHandle](const MESSAGE &sMessage, int64_t iTime) {
            return std::tie(sMessage.lProcess, sMessage.iTime) < std::tie(lHandle, iTime);
        };
        for (auto spMessage = std::lower_bound(deqMessages.begin(), deqMessages.end(),
                                               I_sSession.sFirst.iTime - BEFORE, fpBefore);
             spMessage != deqMessages.end() && spMessage->lProcess == lHandle &&
             spMessage->iTime <= I_sSession.sLast.iTime + AFTER;
             ++spMessage)
        {
            if (std::exchange(spMessage->bUsed, true)) continue;
            uUnused--;
            const std::string strWho = I_sSession.IsMixed() ? std::to_string(lHandle) + ": " : "";
            vecFound.push_back({KIND::DATABASE, spMessage->iTime, strWho + spMessage->strText});
        }
    }
    std::stable_sort(vecFound.begin(), vecFound.end(), [](const STEP &sOne, const STEP &sOther) {
        return sOne.iStart < sOther.iStart;
    });
    return vecFound;
}
} // namespace trace
