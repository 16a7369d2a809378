// The lines of a log, one at a time: a file of any size takes one buffer.
#ifndef XBSACTL_TRACELOG_LINES_H
#define XBSACTL_TRACELOG_LINES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/base.h"

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

class CLineReader
{
  public:
    explicit CLineReader(const std::string &I_strFile); // "-": standard input

    // Returns false at the end. A line longer than the library writes is cut.
    bool Next(LOG_LINE &O_sLine);

  private:
    bool NextRaw(std::string_view &O_svLine);
    void Refill();

    base::CInput sInput;
    std::vector<char> vecBuffer;
    size_t uPlace = 0;
    size_t uFilled = 0;
    uint64_t uLines = 0;
    bool bLast = false;     // nothing is left to be read
    bool bWhole = true;     // of the last line
    bool bSkipping = false; // the rest of a line that was cut
    std::string strStamp;   // of the last line, and its time
    int64_t iStampTime = 0;
};

// Takes a stamp apart. Returns false when the text does not begin with one.
bool lines_ParseStamp(std::string_view I_svText, int64_t &O_iTime);

inline bool lines_StartsWith(std::string_view I_svText, std::string_view I_svStart)
{
    return I_svText.substr(0, I_svStart.size()) == I_svStart;
}

// The number at the start of the text, 0 when there is none; the text goes on behind it.
uint64_t lines_TakeNumber(std::string_view &X_svText);

// Puts a day and a time of day, or the start of one ("2026-11-24 17", "17:00"), into the form of a
// stamp; a time of day alone stays one. Throws USAGE_ERROR.
std::string lines_Moment(const std::string &I_strText);

// The stamp of the last line of a file that has one. Throws FAILURE when its end has none.
std::string lines_LastStamp(const std::string &I_strFile);

#endif
