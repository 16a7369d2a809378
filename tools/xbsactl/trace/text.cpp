#include "trace/parts.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <strings.h>

namespace trace
{
namespace
{
constexpr size_t LONGEST_TEXT = 300;

std::string ValidText(std::string_view I_svText)
{
    std::string strValid;
    while (!I_svText.empty())
    {
        const size_t uLength = base::SequenceLength(I_svText);
        if (strValid.size() + uLength > LONGEST_TEXT) return strValid + "...";
        if (uLength == 0) strValid += '?';
        else strValid += I_svText.substr(0, uLength);
        I_svText.remove_prefix(uLength == 0 ? 1 : uLength);
    }
    return strValid;
}

// Hides the rest of the text after "PASS " and the value after "pass=". The library hides
// passwords itself, but for that of the user "sms"; a server may say one back.
std::string WithoutPassword(const std::string &I_strText)
{
    for (size_t uPlace = 0; uPlace + 5 <= I_strText.size(); uPlace++)
    {
        const char cNext = I_strText[uPlace + 4];
        if (strncasecmp(&I_strText[uPlace], "pass", 4) != 0 || (cNext != ' ' && cNext != '='))
            continue;
        if (uPlace > 0 && isalnum(static_cast<unsigned char>(I_strText[uPlace - 1])) != 0) continue;
        return I_strText.substr(0, uPlace + 5) + "********";
    }
    return I_strText;
}

std::string TimeText(int64_t I_iTime, const char *cpForm)
{
    const time_t lTime = I_iTime;
    tm sTime = {};
    std::array<char, 64> szText{};
    strftime(szText.data(), szText.size(), cpForm, gmtime_r(&lTime, &sTime));
    return szText.data();
}
} // namespace

std::string Clean(std::string_view I_svText)
{
    return WithoutPassword(ValidText(base::Printable(std::string(I_svText))));
}

std::string Duration(int64_t I_iSeconds)
{
    if (I_iSeconds < 0) return "unknown (clock set back)";
    if (I_iSeconds == 0) return "<1 s";
    if (I_iSeconds < 120) return std::to_string(I_iSeconds) + " s";
    return std::to_string(I_iSeconds / 3600) + TimeText(I_iSeconds, ":%M:%S h");
}

std::string Rate(uint64_t I_uBytes, int64_t I_iSeconds)
{
    if (I_iSeconds < 0 || I_uBytes == 0) return "";
    const bool bBound = I_iSeconds < 2;
    const double dRate =
        static_cast<double>(I_uBytes) / static_cast<double>(bBound ? I_iSeconds + 1 : I_iSeconds);
    std::array<char, 64> szText{};
    snprintf(szText.data(), szText.size(), dRate < 1e6 ? "%s %.1f kB/s" : "%s %.1f MB/s",
             bBound ? "more than" : "about", dRate / (dRate < 1e6 ? 1e3 : 1e6));
    return szText.data();
}

std::string Clock(int64_t I_iTime, bool I_bDay)
{
    return TimeText(I_iTime, I_bDay ? "%m-%d %H:%M:%S" : "%H:%M:%S");
}

std::string Stamp(int64_t I_iTime)
{
    return TimeText(I_iTime, STAMP_FORM);
}

std::optional<int64_t> ParseTime(const std::string &I_strText, const char *cpForm)
{
    tm sTime = {};
    sTime.tm_year = 70;
    sTime.tm_mday = 1;
    const char *cpEnd = strptime(I_strText.c_str(), cpForm, &sTime);
    if (cpEnd != I_strText.c_str() + I_strText.size()) return std::nullopt;
    return timegm(&sTime);
}

std::string Count(uint64_t I_uNumber, const char *cpThing)
{
    return std::to_string(I_uNumber) + " " + cpThing + (I_uNumber == 1 ? "" : "s");
}
} // namespace trace
