// Texts of a log made fit to be shown, and numbers as people read them.
#ifndef XBSACTL_TRACE_TEXT_H
#define XBSACTL_TRACE_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace trace
{
// Valid UTF-8 of bounded length without control characters, and with nothing of what follows PASS:
// safe on a terminal and in a page.
std::string Clean(std::string_view I_svText);

// The clock of a log has whole seconds: what took none of them took "<1 s".
std::string Duration(int64_t I_iSeconds);

// Bytes per second, or the bound that whole seconds allow: a difference of 1 may be nearly 2.
std::string Rate(uint64_t I_uBytes, int64_t I_iSeconds);

std::string Clock(int64_t I_iTime, bool I_bDay); // "17:46:34", or "11-24 17:46:34"
std::string Stamp(int64_t I_iTime);              // "2026-11-24 17:46:34"

std::string Count(uint64_t I_uNumber, const char *cpThing); // "1 object", "2 objects"
} // namespace trace

#endif
