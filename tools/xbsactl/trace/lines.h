// The lines of a log, one at a time: a file of any size takes one buffer.
#ifndef XBSACTL_TRACE_LINES_H
#define XBSACTL_TRACE_LINES_H

#include <array>
#include <cstdint>
#include <istream>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "base/base.h"

namespace trace
{
// The views are good until the next line is asked for.
struct LOG_LINE
{
    uint64_t uNumber = 0;     // from 1
    bool bWhole = true;       // false for the last one when it has no end
    bool bTrace = false;      // a line as the library begins it; else svText is all there is
    int64_t iTime = 0;        // seconds of the local clock, counted as if it were UTC
    std::string_view svStamp; // "2026-11-24 17:46:34"
    std::string_view svText;  // what follows
};

constexpr size_t STAMP_LENGTH = 19;
constexpr size_t LONGEST_LINE = 4096; // more than the library ever writes

class CInputBuffer : public std::streambuf
{
  public:
    explicit CInputBuffer(const std::string &I_strFile);

  protected:
    int_type underflow() override;

  private:
    base::CInput sInput;
    std::vector<char> vecBuffer;
};

class CLineReader
{
  public:
    explicit CLineReader(const std::string &I_strFile); // "-": standard input

    // Returns false at the end. A line longer than the library writes is cut. Throws FAILURE.
    bool Next(LOG_LINE &O_sLine);

  private:
    CInputBuffer sBuffer;
    std::istream sStream;
    std::array<char, LONGEST_LINE + 1> szLine{};
    uint64_t uLines = 0;
    std::string strStamp; // of the last line, and its time
    int64_t iStampTime = 0;
};

// Takes a stamp apart. Returns false when the text does not begin with one.
bool ParseStamp(std::string_view I_svText, int64_t &O_iTime);

bool StartsWith(std::string_view I_svText, std::string_view I_svStart);

// The number at the start of the text, 0 when there is none; the text goes on after it.
uint64_t TakeNumber(std::string_view &X_svText);

// The moment that the user gave ("2026-11-24 17", "17:00") as a stamp; a time of day alone is one
// of the file's last day. Throws USAGE_ERROR, and FAILURE when the file cannot be read.
std::string Moment(const std::string &I_strText, const std::string &I_strFile);
} // namespace trace

#endif
