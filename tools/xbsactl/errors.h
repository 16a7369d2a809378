// The two ways in which the tool fails, and texts that are safe on a terminal.
#ifndef XBSACTL_ERRORS_H
#define XBSACTL_ERRORS_H

#include <stdexcept>
#include <string>

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

// The text with "?" for each control character and none at its end: a server's reply must not
// make two lines of one, nor command the terminal.
std::string Printable(std::string I_strText);

#endif
