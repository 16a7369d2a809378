#include "base/base.h"

#include <algorithm>
#include <array>

namespace base
{
namespace
{
bool IsControl(char I_cChar)
{
    return static_cast<unsigned char>(I_cChar) < ' ' || I_cChar == '\x7f';
}

struct CHARACTER
{
    unsigned uPoint;
    size_t uLength; // bytes; 0: the text begins with none, and uPoint is its first byte
};

CHARACTER Decode(std::string_view I_svText)
{
    constexpr unsigned SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000}; // by length; less is overlong
    const unsigned uFirst = I_svText.empty() ? 0 : static_cast<unsigned char>(I_svText[0]);
    if (uFirst < 0x80) return {uFirst, 1};
    const size_t uLength = uFirst >= 0xF0 ? 4 : uFirst >= 0xE0 ? 3 : 2;
    unsigned uPoint = uFirst & (0x7FU >> uLength);
    bool bValid = uFirst >= 0xC0 && uFirst < 0xF8 && I_svText.size() >= uLength;
    for (size_t uPlace = 1; bValid && uPlace < uLength; uPlace++)
    {
        const auto ucNext = static_cast<unsigned char>(I_svText[uPlace]);
        bValid = (ucNext & 0xC0) == 0x80;
        uPoint = uPoint << 6 | (ucNext & 0x3FU);
    }
    const bool bSurrogate = uPoint >= 0xD800 && uPoint <= 0xDFFF;
    const bool bXml = uPoint != 0xFFFE && uPoint != 0xFFFF; // XML has no such characters
    bValid = bValid && uPoint >= SMALLEST[uLength] && uPoint <= 0x10FFFF && !bSurrogate && bXml;
    return bValid ? CHARACTER{uPoint, uLength} : CHARACTER{uFirst, 0};
}

// What a terminal obeys: controls, and the marks that turn the direction of a line.
bool IsCommand(unsigned I_uPoint)
{
    constexpr std::array<std::pair<unsigned, unsigned>, 6> RANGES = {{{0, 0x1F},
                                                                      {0x7F, 0x9F},
                                                                      {0x61C, 0x61C},
                                                                      {0x200E, 0x200F},
                                                                      {0x202A, 0x202E},
                                                                      {0x2066, 0x2069}}};
    return std::any_of(RANGES.begin(), RANGES.end(), [I_uPoint](const auto &sRange) {
        return I_uPoint >= sRange.first && I_uPoint <= sRange.second;
    });
}
} // namespace

bool HasControlCharacter(const std::string &I_strText)
{
    return std::any_of(I_strText.begin(), I_strText.end(), IsControl);
}

std::string Visible(const std::string &I_strText, bool I_bUtf8)
{
    std::string strVisible;
    std::string_view svLeft = I_strText;
    while (!svLeft.empty())
    {
        const CHARACTER sNext = Decode(svLeft);
        const size_t uLength = std::max<size_t>(1, sNext.uLength);
        if (IsCommand(sNext.uPoint) || (I_bUtf8 && sNext.uLength == 0)) strVisible += '?';
        else strVisible += svLeft.substr(0, uLength);
        svLeft.remove_prefix(uLength);
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
        if (uBlank == std::string::npos || uBlank <= uLine) break; // a word without end
        I_strText.replace(uBlank, 1, "\n" + std::string(I_uIndent, ' '));
        uLine = uBlank;
    }
    return I_strText;
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
