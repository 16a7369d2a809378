#include "trace/parts.h"

#include <algorithm>
#include <charconv>

namespace trace
{
namespace
{
constexpr size_t DAY_LENGTH = 10;
constexpr std::string_view MARK = ": Trace: (QAB library) ";

std::string LastDay(const std::string &I_strFile)
{
    if (I_strFile == "-") throw base::USAGE_ERROR("--since needs a day with standard input");
    std::string strDay = "0000-00-00";
    CLineReader sReader(I_strFile);
    for (LOG_LINE sLine; sReader.Next(sLine);)
        if (sLine.bTrace) strDay = sLine.svStamp.substr(0, DAY_LENGTH);
    return strDay;
}
} // namespace

PLACE Place(const LOG_LINE &I_sLine)
{
    return {I_sLine.uNumber, I_sLine.iTime, std::string(I_sLine.svStamp)};
}

bool StartsWith(std::string_view I_svText, std::string_view I_svStart)
{
    return I_svText.substr(0, I_svStart.size()) == I_svStart;
}

uint64_t TakeNumber(std::string_view &X_svText)
{
    uint64_t uNumber = 0;
    const char *cpStart = X_svText.data();
    const auto sResult = std::from_chars(cpStart, cpStart + X_svText.size(), uNumber);
    X_svText.remove_prefix(static_cast<size_t>(sResult.ptr - cpStart));
    return uNumber;
}

std::string Moment(const std::string &I_strText, const std::string &I_strFile)
{
    for (const char *cpForm : {STAMP_FORM, "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M",
                               "%Y-%m-%d %H", "%Y-%m-%dT%H", "%Y-%m-%d"})
        if (std::string strStamp = StampOf(I_strText, cpForm); !strStamp.empty()) return strStamp;
    for (const char *cpForm : {"%H:%M:%S", "%H:%M"})
        if (const std::string strStamp = StampOf(I_strText, cpForm); !strStamp.empty())
            return LastDay(I_strFile) + strStamp.substr(strStamp.find(' '));
    throw base::USAGE_ERROR("--since: \"" + base::Printable(I_strText) +
                            "\" is not a moment such as \"2026-11-24 17:00\", \"2026-11-24\" or "
                            "\"17:00\"");
}

CLineReader::CLineReader(const std::string &I_strFile) : sInput(I_strFile)
{
}

// The bytes of the next line, as many as the library may write. Returns false at the end.
bool CLineReader::ReadLine(bool &O_bWhole)
{
    strLine.clear();
    O_bWhole = false;
    for (bool bAny = false; !O_bWhole; bAny = true)
    {
        if (uPlace == uEnd && uEnd == BUFFER_SIZE)
        {
            uEnd = sInput.Read(vecBuffer.data(), BUFFER_SIZE);
            uPlace = 0;
        }
        if (uPlace == uEnd) return bAny;
        const std::string_view svRest(&vecBuffer[uPlace], uEnd - uPlace);
        const size_t uLength = std::min(svRest.find('\n'), svRest.size());
        O_bWhole = uLength < svRest.size();
        strLine += svRest.substr(0, std::min(uLength, LONGEST_LINE - strLine.size()));
        uPlace += uLength + (O_bWhole ? 1 : 0);
    }
    return true;
}

bool CLineReader::Next(LOG_LINE &O_sLine)
{
    O_sLine = LOG_LINE{};
    if (!ReadLine(O_sLine.bWhole)) return false;
    O_sLine.uNumber = ++uLines;
    std::string_view svLine = strLine;
    while (!svLine.empty() && svLine.back() == '\r') svLine.remove_suffix(1);
    O_sLine.svText = svLine;
    if (!StartsWith(svLine, " ") || svLine.size() < 1 + STAMP_LENGTH ||
        svLine.substr(1 + STAMP_LENGTH, MARK.size()) != MARK)
        return true;

    const std::string_view svStamp = svLine.substr(1, STAMP_LENGTH);
    if (svStamp != strStamp)
    {
        const std::optional<int64_t> iTime = ParseStamp(svStamp);
        if (!iTime) return true;
        iStampTime = *iTime;
        strStamp = svStamp;
    }
    O_sLine.bTrace = true;
    O_sLine.iTime = iStampTime;
    O_sLine.svStamp = svStamp;
    O_sLine.svText = svLine.substr(1 + STAMP_LENGTH + MARK.size());
    return true;
}
} // namespace trace
