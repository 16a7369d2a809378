#include "trace/actlog.h"

#include <algorithm>

#include "trace/lines.h"
#include "trace/text.h"

namespace
{
constexpr size_t LONGEST_MESSAGE = 1000; // with its continuation lines
constexpr size_t MOST_BYTES = 24U << 20U;
constexpr int64_t BEFORE = 60; // seconds around a session in which a message belongs to it still
constexpr int64_t AFTER = 2;

void SkipBlanks(std::string_view &X_svText)
{
    while (!X_svText.empty() && (X_svText[0] == ' ' || X_svText[0] == '\t'))
        X_svText.remove_prefix(1);
}

// Returns false for a line that is no message of its own.
bool Parse(std::string_view I_svLine, ACT_MESSAGE &O_sMessage)
{
    SkipBlanks(I_svLine);
    if (!lines_ParseStamp(I_svLine, O_sMessage.iTime)) return false;
    I_svLine.remove_prefix(STAMP_LENGTH);
    SkipBlanks(I_svLine);
    O_sMessage.lProcess = static_cast<long>(lines_TakeNumber(I_svLine));
    SkipBlanks(I_svLine);
    const size_t uBefore = I_svLine.size();
    lines_TakeNumber(I_svLine); // the parent
    if (O_sMessage.lProcess == 0 || I_svLine.size() == uBefore) return false;
    SkipBlanks(I_svLine);
    O_sMessage.strText = text_Clean(I_svLine);
    return true;
}

} // namespace

CActivityLog::CActivityLog(const std::string &I_strFile)
{
    if (I_strFile.empty()) return;
    CLineReader sReader(I_strFile);
    LOG_LINE sLine;
    while (sReader.Next(sLine))
    {
        ACT_MESSAGE sMessage;
        if (Parse(sLine.svText, sMessage)) Add(sMessage);
        else if (!deqMessages.empty() && !sLine.svText.empty() &&
                 deqMessages.back().strText.size() < LONGEST_MESSAGE)
        {
            const std::string strMore = " " + text_Clean(sLine.svText);
            deqMessages.back().strText += strMore;
            uBytes += strMore.size();
        }
    }
    Index();
}

void CActivityLog::Add(const ACT_MESSAGE &I_sMessage)
{
    deqMessages.push_back(I_sMessage);
    uBytes += sizeof(ACT_MESSAGE) + I_sMessage.strText.size();
    while (uBytes > MOST_BYTES)
    {
        uBytes -= sizeof(ACT_MESSAGE) + deqMessages.front().strText.size();
        deqMessages.pop_front();
        uDropped++;
    }
}

void CActivityLog::Index()
{
    const auto fpEarlier = [](const ACT_MESSAGE &I_sOne, const ACT_MESSAGE &I_sOther) {
        return I_sOne.iTime < I_sOther.iTime;
    };
    std::stable_sort(deqMessages.begin(), deqMessages.end(), fpEarlier);
    for (size_t uPlace = 0; uPlace < deqMessages.size(); uPlace++)
        mapProcesses[deqMessages[uPlace].lProcess].push_back(uPlace);
}

std::vector<ACT_MESSAGE> CActivityLog::TakeFor(const TRACE_SESSION &I_sSession)
{
    std::vector<ACT_MESSAGE> vecFound;
    for (const long lHandle : I_sSession.setHandles)
    {
        const auto spProcess = mapProcesses.find(lHandle);
        if (spProcess == mapProcesses.end()) continue;
        const std::vector<size_t> &vecPlaces = spProcess->second;
        const auto fpBefore = [&](size_t I_uPlace, int64_t I_iTime) {
            return deqMessages[I_uPlace].iTime < I_iTime;
        };
        auto spPlace = std::lower_bound(vecPlaces.begin(), vecPlaces.end(),
                                        I_sSession.iFirst - BEFORE, fpBefore);
        for (; spPlace != vecPlaces.end(); ++spPlace)
        {
            ACT_MESSAGE &sMessage = deqMessages[*spPlace];
            if (sMessage.iTime > I_sSession.iLast + AFTER) break;
            if (!sMessage.bUsed) vecFound.push_back(sMessage);
            sMessage.bUsed = true;
        }
    }
    return vecFound;
}

uint64_t CActivityLog::Unused() const
{
    uint64_t uUnused = 0;
    for (const ACT_MESSAGE &sMessage : deqMessages) uUnused += sMessage.bUsed ? 0 : 1;
    return uUnused;
}

uint64_t CActivityLog::Dropped() const
{
    return uDropped;
}
