#include "trace/lines.h"

#include <charconv>
#include <cstring>
#include <fstream>

#include "base/base.h"

namespace
{
constexpr size_t BUFFER_SIZE = 1 << 18;
constexpr size_t LONGEST_LINE = 4096; // more than the library ever writes
constexpr size_t TAIL_SIZE = 1 << 20; // of a file that is searched for its last stamp
constexpr std::string_view FORM = "dddd-dd-dd dd:dd:dd";
constexpr std::string_view MARK = ": Trace: (QAB library) ";

bool IsDigit(char cChar)
{
    return cChar >= '0' && cChar <= '9';
}

// Tells whether the text is written as the form says, where "d" is a digit.
bool HasForm(std::string_view I_svText, std::string_view I_svForm)
{
    for (size_t uChar = 0; uChar < I_svForm.size(); uChar++)
    {
        const bool bFits =
            I_svForm[uChar] == 'd' ? IsDigit(I_svText[uChar]) : I_svText[uChar] == I_svForm[uChar];
        if (!bFits) return false;
    }
    return true;
}

int64_t Part(std::string_view I_svStamp, size_t I_uPlace, size_t I_uDigits)
{
    int64_t iValue = 0;
    for (const char cDigit : I_svStamp.substr(I_uPlace, I_uDigits))
        iValue = iValue * 10 + cDigit - '0';
    return iValue;
}

// Days since 1970-01-01 of the Gregorian calendar, with years that begin in March.
int64_t Days(int64_t I_iYear, int64_t I_iMonth, int64_t I_iDay)
{
    const int64_t iYear = I_iMonth > 2 ? I_iYear : I_iYear - 1;
    const int64_t iMonth = (I_iMonth + 9) % 12;
    return iYear * 365 + iYear / 4 - iYear / 100 + iYear / 400 + (iMonth * 153 + 2) / 5 + I_iDay -
           719469;
}

std::string_view WithoutReturn(std::string_view I_svLine)
{
    while (!I_svLine.empty() && I_svLine.back() == '\r') I_svLine.remove_suffix(1);
    return I_svLine;
}
} // namespace

bool lines_ParseStamp(std::string_view I_svText, int64_t &O_iTime)
{
    if (I_svText.size() < STAMP_LENGTH || !HasForm(I_svText, FORM)) return false;
    const int64_t iMonth = Part(I_svText, 5, 2);
    const int64_t iDay = Part(I_svText, 8, 2);
    const int64_t iHour = Part(I_svText, 11, 2);
    const int64_t iMinute = Part(I_svText, 14, 2);
    const int64_t iSecond = Part(I_svText, 17, 2);
    if (iMonth < 1 || iMonth > 12 || iDay < 1 || iDay > 31) return false;
    if (iHour > 23 || iMinute > 59 || iSecond > 60) return false;
    O_iTime =
        Days(Part(I_svText, 0, 4), iMonth, iDay) * 86400 + iHour * 3600 + iMinute * 60 + iSecond;
    return true;
}

uint64_t lines_TakeNumber(std::string_view &X_svText)
{
    uint64_t uNumber = 0;
    const char *cpStart = X_svText.data();
    const auto sResult = std::from_chars(cpStart, cpStart + X_svText.size(), uNumber);
    X_svText.remove_prefix(static_cast<size_t>(sResult.ptr - cpStart));
    return uNumber;
}

std::string lines_Moment(const std::string &I_strText)
{
    std::string strMoment = I_strText;
    const bool bDay = strMoment.size() >= 10 && HasForm(strMoment, FORM.substr(0, 10));
    const size_t uSkipped = bDay ? 0 : 11; // characters of the form that are left out
    const std::string strWhole = "2000-01-01 00:00:00";
    if (bDay && strMoment.size() > 10 && strMoment[10] == 'T') strMoment[10] = ' ';

    const size_t uEnd = uSkipped + strMoment.size();
    const bool bPart = uEnd == 10 || uEnd == 13 || uEnd == 16 || uEnd == 19;
    const bool bForm = bPart && HasForm(strMoment, FORM.substr(uSkipped, strMoment.size()));
    if (bForm) strMoment += strWhole.substr(uEnd);
    int64_t iTime = 0;
    if (!bForm || (!bDay && uEnd < 16) ||
        !lines_ParseStamp(strWhole.substr(0, uSkipped) + strMoment, iTime))
        throw base::USAGE_ERROR(
            "--since: \"" + base::Printable(I_strText) +
            "\" is no moment like \"2026-11-24 17:00\", \"2026-11-24\" or \"17:00\"");
    return strMoment;
}

std::string lines_LastStamp(const std::string &I_strFile)
{
    std::ifstream sFile(I_strFile, std::ios::binary | std::ios::ate);
    if (!sFile) throw base::SystemFailure("\"" + base::Printable(I_strFile) + "\"");
    const std::streamoff iSize = sFile.tellg();
    std::string strTail(
        std::min(TAIL_SIZE, static_cast<size_t>(std::max<std::streamoff>(iSize, 0))), '\0');
    sFile.seekg(iSize - static_cast<std::streamoff>(strTail.size()));
    sFile.read(strTail.data(), static_cast<std::streamsize>(strTail.size()));

    for (size_t uMark = strTail.rfind(MARK); uMark != std::string::npos && uMark >= STAMP_LENGTH;
         uMark = strTail.rfind(MARK, uMark - 1))
    {
        int64_t iTime = 0;
        std::string strStamp = strTail.substr(uMark - STAMP_LENGTH, STAMP_LENGTH);
        if (lines_ParseStamp(strStamp, iTime)) return strStamp;
    }
    if (strTail.empty()) return "0000-00-00 00:00:00";
    throw base::FAILURE("no time stamp at the end of the log: give --since with a day");
}

CLineReader::CLineReader(const std::string &I_strFile) : sInput(I_strFile), vecBuffer(BUFFER_SIZE)
{
}

// What is left of the buffer moves to its start.
void CLineReader::Refill()
{
    const size_t uRest = uFilled - uPlace;
    if (uRest > 0) memmove(vecBuffer.data(), vecBuffer.data() + uPlace, uRest);
    const size_t uRoom = vecBuffer.size() - uRest;
    const size_t uRead = sInput.Read(vecBuffer.data() + uRest, uRoom);
    bLast = uRead < uRoom;
    uPlace = 0;
    uFilled = uRest + uRead;
}

bool CLineReader::NextRaw(std::string_view &O_svLine)
{
    for (;;)
    {
        const char *cpStart = vecBuffer.data() + uPlace;
        const size_t uRest = uFilled - uPlace;
        const void *vpEnd = memchr(cpStart, '\n', uRest);
        const bool bCut = vpEnd == nullptr && uRest >= LONGEST_LINE;
        if (vpEnd == nullptr && !bCut && !bLast)
        {
            if (bSkipping) uPlace = uFilled;
            Refill();
            continue;
        }
        if (vpEnd == nullptr && uRest == 0 && bLast) return false;

        const size_t uLength =
            vpEnd == nullptr ? uRest
                             : static_cast<size_t>(static_cast<const char *>(vpEnd) - cpStart);
        uPlace += vpEnd == nullptr ? uLength : uLength + 1;
        const bool bRest = bSkipping;
        bWhole = vpEnd != nullptr || bCut;
        bSkipping = vpEnd == nullptr;
        if (bRest) continue;
        O_svLine = std::string_view(cpStart, std::min(uLength, LONGEST_LINE));
        return true;
    }
}

bool CLineReader::Next(LOG_LINE &O_sLine)
{
    std::string_view svLine;
    if (!NextRaw(svLine)) return false;
    svLine = WithoutReturn(svLine);
    O_sLine = LOG_LINE{};
    O_sLine.uNumber = ++uLines;
    O_sLine.svText = svLine;
    O_sLine.bWhole = bWhole;
    if (svLine.size() < 1 + STAMP_LENGTH + MARK.size() || svLine[0] != ' ') return true;
    if (svLine.substr(1 + STAMP_LENGTH, MARK.size()) != MARK) return true;

    const std::string_view svStamp = svLine.substr(1, STAMP_LENGTH);
    if (svStamp != strStamp)
    {
        if (!lines_ParseStamp(svStamp, iStampTime)) return true;
        strStamp = svStamp;
    }
    O_sLine.bTrace = true;
    O_sLine.iTime = iStampTime;
    O_sLine.svStamp = svStamp;
    O_sLine.svText = svLine.substr(1 + STAMP_LENGTH + MARK.size());
    return true;
}
