#include "base/base.h"

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
    return FileFailure(I_strWhat + ": " + std::generic_category().message(iError));
}

FAILURE FileFailure(const std::string &I_strText)
{
    return FAILURE(I_strText, EXIT_FILE);
}

std::string Hex(const unsigned char *ucpBytes, size_t I_uLength)
{
    std::string strHex;
    for (const unsigned char *ucpByte = ucpBytes; ucpByte < ucpBytes + I_uLength; ucpByte++)
        strHex.append({"0123456789abcdef"[*ucpByte >> 4], "0123456789abcdef"[*ucpByte & 15]});
    return strHex;
}

bool HasControlCharacter(const std::string &I_strText)
{
    return std::any_of(I_strText.begin(), I_strText.end(), IsControl);
}

// The second byte decides: it is what tells overlong forms, surrogates and too large ones apart.
size_t SequenceLength(std::string_view I_svText)
{
    constexpr struct
    {
        unsigned uFirst, uLast; // of the first byte
        unsigned uLow, uHigh;   // of the second
        size_t uLength;
    } SEQUENCES[] = {
        {0x00, 0x7F, 0, 0, 1},       {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
        {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
        {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4}};
    const auto fpByte = [&](size_t I_uPlace) {
        return I_uPlace < I_svText.size() ? static_cast<unsigned char>(I_svText[I_uPlace]) : 0U;
    };
    for (const auto &sSequence : SEQUENCES)
    {
        if (fpByte(0) < sSequence.uFirst || fpByte(0) > sSequence.uLast) continue;
        if (sSequence.uLength == 1) return 1;
        if (fpByte(1) < sSequence.uLow || fpByte(1) > sSequence.uHigh) return 0;
        for (size_t uPlace = 2; uPlace < sSequence.uLength; uPlace++)
            if ((fpByte(uPlace) & 0xC0) != 0x80) return 0;
        const bool bCharacter = I_svText.substr(0, 2) != "\xEF\xBF" || fpByte(2) <= 0xBD; // of XML
        return bCharacter ? sSequence.uLength : 0;
    }
    return 0;
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
