// Texts of a log made fit to be shown, and numbers as people read them.
#ifndef XBSACTL_TRACELOG_TEXT_H
#define XBSACTL_TRACELOG_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

// Valid UTF-8 of bounded length without control characters, and with nothing of what stands behind
// PASS: safe on a terminal and in a page.
std::string text_Clean(std::string_view I_svText);

// The clock of a log has whole seconds: what took none of them took "<1 s".
std::string text_Duration(int64_t I_iSeconds);

// Bytes a second, or the bound that whole seconds allow to give: a difference of 1 may be nearly 2.
std::string text_Rate(uint64_t I_uBytes, int64_t I_iSeconds);

std::string text_Clock(int64_t I_iTime, bool I_bDay); // "17:46:34", or "11-24 17:46:34"

std::string text_Count(uint64_t I_uNumber, const char *cpThing); // "1 object", "2 objects"

#endif
