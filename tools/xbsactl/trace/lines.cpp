#include "trace/parts.h"

#include <charconv>
#include <ctime>
#include <limits>

namespace trace
{
namespace
{
constexpr size_t BUFFER_SIZE = 1 << 18;
constexpr size_t DAY_LENGTH = 10;
constexpr const char *STAMP_FORM = "%Y-%m-%d %H:%M:%S";
constexpr std::string_view MARK = ": Trace: (QAB library) ";

std::string FormStamp(const tm &I_sTime)
{
    std::array<char, 64> szText{};
    strftime(szText.data(), szText.size(), STAMP_FORM, &I_sTime);
    return szText.data();
}

// The text as a stamp when all of it has this form.
std::string StampOf(const std::string &I_strText, const char *cpForm)
{
    tm sTime = {};
    sTime.tm_mday = 1;
    const char *cpEnd = strptime(I_strText.c_str(), cpForm, &sTime);
    return cpEnd == nullptr || *cpEnd != '\0' ? "" : FormStamp(sTime);
}

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

bool ParseStamp(std::string_view I_svText, int64_t &O_iTime)
{
    const std::string strStamp(I_svText.substr(0, STAMP_LENGTH));
    if (StampOf(strStamp, STAMP_FORM) != strStamp || strStamp.empty()) return false;
    tm sTime = {};
    strptime(strStamp.c_str(), STAMP_FORM, &sTime);
    O_iTime = timegm(&sTime);
    return true;
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

CInputBuffer::CInputBuffer(const std::string &I_strFile) : sInput(I_strFile), vecBuffer(BUFFER_SIZE)
{
}

CInputBuffer::int_type CInputBuffer::underflow()
{
    char *cpStart = vecBuffer.data();
    setg(cpStart, cpStart, cpStart + sInput.Read(cpStart, vecBuffer.size()));
    return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

CLineReader::CLineReader(const std::string &I_strFile) : sBuffer(I_strFile), sStream(&sBuffer)
{
    sStream.exceptions(std::ios::badbit); // what reading throws goes on to our caller
}

bool CLineReader::Next(LOG_LINE &O_sLine)
{
    sStream.getline(szLine.data(), static_cast<std::streamsize>(szLine.size()));
    auto uLength = static_cast<size_t>(sStream.gcount());
    if (uLength == 0) return false;
    O_sLine = LOG_LINE{};
    O_sLine.uNumber = ++uLines;
    O_sLine.bWhole = !sStream.eof();
    if (O_sLine.bWhole && sStream.fail()) // too long
    {
        sStream.clear();
        sStream.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    else if (O_sLine.bWhole) uLength--; // its end
    while (uLength > 0 && szLine[uLength - 1] == '\r') uLength--;
    const std::string_view svLine(szLine.data(), uLength);
    O_sLine.svText = svLine;
    if (uLength < 1 + STAMP_LENGTH + MARK.size() || svLine[0] != ' ' ||
        svLine.substr(1 + STAMP_LENGTH, MARK.size()) != MARK)
        return true;

    const std::string_view svStamp = svLine.substr(1, STAMP_LENGTH);
    if (svStamp != strStamp && !ParseStamp(svStamp, iStampTime)) return true;
    strStamp = svStamp;
    O_sLine.bTrace = true;
    O_sLine.iTime = iStampTime;
    O_sLine.svStamp = svStamp;
    O_sLine.svText = svLine.substr(1 + STAMP_LENGTH + MARK.size());
    return true;
}
} // namespace trace
