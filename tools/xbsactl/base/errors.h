// The two ways in which the tool fails, and texts that are safe on a terminal.
#ifndef XBSACTL_ERRORS_H
#define XBSACTL_ERRORS_H

#include <stdexcept>
#include <string>
#include <string_view>

namespace base
{
enum
{
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2
};

// The caller's arguments or settings cannot be used: exit code 2.
struct USAGE_ERROR : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// The operation failed: exit code 1.
struct FAILURE : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// "I_strWhat: text of errno", of the moment of the call.
FAILURE SystemFailure(const std::string &I_strWhat);

bool HasControlCharacter(const std::string &I_strText);

// Length of the valid UTF-8 sequence that begins the text; 0 for none. Overlong forms, surrogates
// and what lies beyond U+10FFFF are not valid.
size_t SequenceLength(std::string_view I_svText);

// The text with "?" for each character that a terminal would obey: controls, those of U+0080 to
// U+009F too, and marks of the writing direction. All that is printed passes through here.
std::string Visible(const std::string &I_strText);

// The same, without controls and blanks at its end: a server's reply in one line.
std::string Printable(std::string I_strText);

// The text with a mask for each place where a peer said the secret back.
std::string Masked(std::string I_strText, const std::string &I_strSecret);
} // namespace base

#endif
