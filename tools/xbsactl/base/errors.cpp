#include "base/base.h"

#include <algorithm>
#include <array>
#include <locale>

namespace base
{
namespace
{
bool IsControl(char I_cChar)
{
    return static_cast<unsigned char>(I_cChar) < ' ' || I_cChar == '\x7f';
}

// Returns how many bytes the first character has; 0 when the text does not begin with a character.
// Older decoders accept surrogates, and XML does not allow the last two characters.
size_t Decode(std::string_view I_svText, char32_t &X_cPoint)
{
    using UTF8 = std::codecvt<char32_t, char8_t, std::mbstate_t>;
    static const UTF8 &sUtf8 = std::use_facet<UTF8>(std::locale::classic());
    const auto *const cpText = reinterpret_cast<const char8_t *>(I_svText.data());
    const char8_t *cpRest = cpText;
    char32_t *cpEnd = &X_cPoint;
    std::mbstate_t sState{};
    sUtf8.in(sState, cpText, cpText + I_svText.size(), cpRest, &X_cPoint, &X_cPoint + 1, cpEnd);
    const bool bSurrogate = X_cPoint >= 0xD800 && X_cPoint <= 0xDFFF;
    if (cpEnd != &X_cPoint && !bSurrogate && X_cPoint != 0xFFFE && X_cPoint != 0xFFFF)
        return static_cast<size_t>(cpRest - cpText);
    X_cPoint = static_cast<unsigned char>(I_svText[0]);
    return 0;
}

// What a terminal interprets: controls, and the marks that change the direction of a line.
bool IsCommand(char32_t I_cPoint)
{
    constexpr std::array<std::pair<char32_t, char32_t>, 6> RANGES = {{{0, 0x1F},
                                                                      {0x7F, 0x9F},
                                                                      {0x61C, 0x61C},
                                                                      {0x200E, 0x200F},
                                                                      {0x202A, 0x202E},
                                                                      {0x2066, 0x2069}}};
    return std::ranges::any_of(RANGES, [I_cPoint](const auto &sRange) {
        return I_cPoint >= sRange.first && I_cPoint <= sRange.second;
    });
}
} // namespace

bool HasControlCharacter(const std::string &I_strText)
{
    return std::ranges::any_of(I_strText, IsControl);
}

std::string Visible(const std::string &I_strText, bool I_bUtf8)
{
    std::string strVisible;
    std::string_view svLeft = I_strText;
    while (!svLeft.empty())
    {
        char32_t cPoint = 0;
        const size_t uLength = Decode(svLeft, cPoint);
        const std::string_view svNext = svLeft.substr(0, std::max<size_t>(1, uLength));
        if (IsCommand(cPoint) || (I_bUtf8 && uLength == 0)) strVisible += '?';
        else strVisible += svNext;
        svLeft.remove_prefix(svNext.size());
    }
    return strVisible;
}

std::string Printable(std::string I_strText, bool I_bUtf8)
{
    while (!I_strText.empty() && (IsControl(I_strText.back()) || I_strText.back() == ' '))
        I_strText.pop_back();
    return Visible(I_strText, I_bUtf8);
}

std::string Wrapped(std::string I_strText, size_t I_uWidth, size_t I_uIndent)
{
    for (size_t uLine = 0; I_strText.size() - uLine > I_uWidth; uLine += 1 + I_uIndent)
    {
        const size_t uBlank = I_strText.rfind(' ', uLine + I_uWidth);
        if (uBlank == std::string::npos || uBlank <= uLine) break; // one long word
        I_strText.replace(uBlank, 1, "\n" + std::string(I_uIndent, ' '));
        uLine = uBlank;
    }
    return I_strText;
}

std::optional<std::string> After(const std::string &I_strText, std::string_view I_svBegin)
{
    if (!I_strText.starts_with(I_svBegin)) return std::nullopt;
    return I_strText.substr(I_svBegin.size());
}

std::string Masked(std::string I_strText, const std::string &I_strSecret)
{
    const std::string strMask = "********";
    for (const std::string &strSecret : {I_strSecret, Printable(I_strSecret)})
    {
        size_t uAt = strSecret.empty() ? std::string::npos : I_strText.find(strSecret);
        for (; uAt != std::string::npos; uAt = I_strText.find(strSecret, uAt + strMask.size()))
            I_strText.replace(uAt, strSecret.size(), strMask);
    }
    return I_strText;
}
} // namespace base
