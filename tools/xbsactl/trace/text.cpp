#include "trace/parts.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace trace
{
namespace
{
constexpr size_t LONGEST_TEXT = 300;

// Hides the rest of the text after "PASS " and the value after "pass=". The library itself hides
// passwords, except that of the user "sms"; a server may repeat one.
std::string WithoutPassword(const std::string &I_strText)
{
    const char *cpText = I_strText.c_str();
    const char *cpPass = strcasestr(cpText, "pass");
    for (; cpPass != nullptr; cpPass = strcasestr(cpPass + 1, "pass"))
    {
        if (cpPass[4] != ' ' && cpPass[4] != '=') continue;
        if (cpPass != cpText && isalnum(static_cast<unsigned char>(cpPass[-1])) != 0) continue;
        return std::string(cpText, cpPass + 5) + "********";
    }
    return I_strText;
}
} // namespace

std::string Clean(std::string_view I_svText)
{
    std::string strText = base::Printable(std::string(I_svText), true);
    if (strText.size() > LONGEST_TEXT)
    {
        size_t uEnd = LONGEST_TEXT;
        while ((strText[uEnd] & 0xC0) == 0x80) uEnd--; // not inside a character
        strText.replace(uEnd, std::string::npos, "...");
    }
    return WithoutPassword(strText);
}

std::string Duration(int64_t I_iSeconds)
{
    if (I_iSeconds < 0) return "unknown (clock set back)";
    if (I_iSeconds == 0) return "<1 s";
    if (I_iSeconds < 120) return std::to_string(I_iSeconds) + " s";
    return std::to_string(I_iSeconds / 3600) + Stamp(I_iSeconds, ":%M:%S h");
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
    return Stamp(I_iTime, I_bDay ? "%m-%d %H:%M:%S" : "%H:%M:%S");
}

std::string Stamp(int64_t I_iTime, const char *cpForm)
{
    const time_t lTime = I_iTime;
    tm sTime = {};
    std::array<char, 64> szText{};
    strftime(szText.data(), szText.size(), cpForm, gmtime_r(&lTime, &sTime));
    return szText.data();
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
