#include "base/errors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace base
{
namespace
{
bool IsControl(char I_cChar)
{
    return static_cast<unsigned char>(I_cChar) < ' ' || I_cChar == '\x7f';
}

// Of one valid sequence; a byte that begins none stands for itself.
unsigned CodePoint(std::string_view I_svSequence)
{
    const auto ucFirst = static_cast<unsigned char>(I_svSequence[0]);
    if (I_svSequence.size() == 1) return ucFirst;
    unsigned uPoint = ucFirst & (0xFFU >> (I_svSequence.size() + 1));
    for (const char cNext : I_svSequence.substr(1))
        uPoint = uPoint << 6 | (static_cast<unsigned char>(cNext) & 0x3FU);
    return uPoint;
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

FAILURE SystemFailure(const std::string &I_strWhat)
{
    const int iError = errno;
    return FAILURE(I_strWhat + ": " + std::generic_category().message(iError));
}

bool HasControlCharacter(const std::string &I_strText)
{
    return std::any_of(I_strText.begin(), I_strText.end(), IsControl);
}

size_t SequenceLength(std::string_view I_svText)
{
    const auto ucByte = [&](size_t I_uPlace) {
        return I_uPlace < I_svText.size() ? static_cast<unsigned char>(I_svText[I_uPlace]) : 0U;
    };
    const unsigned uFirst = ucByte(0);
    if (uFirst < 0x80) return 1;
    const size_t uLength = uFirst >= 0xF0 ? 4 : uFirst >= 0xE0 ? 3 : 2;
    unsigned uLow = 0x80;
    unsigned uHigh = 0xBF;
    if (uFirst < 0xC2 || uFirst > 0xF4) return 0;
    if (uFirst == 0xE0) uLow = 0xA0;
    if (uFirst == 0xED) uHigh = 0x9F;
    if (uFirst == 0xF0) uLow = 0x90;
    if (uFirst == 0xF4) uHigh = 0x8F;
    if (ucByte(1) < uLow || ucByte(1) > uHigh) return 0;
    if (uFirst == 0xEF && ucByte(1) == 0xBF && ucByte(2) > 0xBD) return 0; // no characters of XML
    for (size_t uPlace = 2; uPlace < uLength; uPlace++)
        if ((ucByte(uPlace) & 0xC0) != 0x80) return 0;
    return uLength;
}

std::string Visible(const std::string &I_strText)
{
    std::string strVisible;
    std::string_view svLeft = I_strText;
    while (!svLeft.empty())
    {
        const size_t uLength = std::max<size_t>(1, SequenceLength(svLeft));
        const std::string_view svNext = svLeft.substr(0, uLength);
        if (IsCommand(CodePoint(svNext))) strVisible += '?';
        else strVisible += svNext;
        svLeft.remove_prefix(uLength);
    }
    return strVisible;
}

std::string Printable(std::string I_strText)
{
    while (!I_strText.empty() && (IsControl(I_strText.back()) || I_strText.back() == ' '))
        I_strText.pop_back();
    return Visible(I_strText);
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
