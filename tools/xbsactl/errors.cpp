#include "errors.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace
{
bool IsControl(char I_cChar)
{
    return static_cast<unsigned char>(I_cChar) < ' ' || I_cChar == '\x7f';
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

std::string Printable(std::string I_strText)
{
    while (!I_strText.empty() && (IsControl(I_strText.back()) || I_strText.back() == ' '))
        I_strText.pop_back();
    std::replace_if(I_strText.begin(), I_strText.end(), IsControl, '?');
    return I_strText;
}
