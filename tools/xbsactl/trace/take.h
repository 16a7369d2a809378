// One line on its way into a session.
#ifndef XBSACTL_TRACE_TAKE_H
#define XBSACTL_TRACE_TAKE_H

#include "trace/lines.h"
#include "trace/session.h"
#include "trace/text.h"

namespace trace
{
struct TAKE
{
    SESSION &sSession;
    PROGRESS &sProgress;
    const LOG_LINE &sLine;
    std::string_view svRest; // what follows the words that the line was known by

    std::string Rest() const
    {
        return Clean(svRest);
    }
    bool RestIs(std::string_view I_svStart) const
    {
        return StartsWith(svRest, I_svStart);
    }

    // A step begins; one that goes on still is kept as not ended.
    void Begin(KIND I_eKind, const std::string &I_strText) const;
    void End(const std::string &I_strResult, bool I_bFailed = false) const;
    void Add(KIND I_eKind, const std::string &I_strText, bool I_bFailed = false) const; // at once

    void BeginData(const char *cpVerb) const;
    void EndData() const;
    void GiveUpData() const; // if it goes on

    void Return() const; // a call has returned the code
    void NoteError(bool I_bWeak) const;
    void SetSign() const; // the line cannot come here
};

// The lines that take more than that.
void TakeCommand(const TAKE &I_sTake); // of the COM utility
void TakeAnswer(const TAKE &I_sTake);  // a line of it
void TakePath(const TAKE &I_sTake, const char *cpWhat);
void TakeReply(const TAKE &I_sTake);
void TakeTransferReply(const TAKE &I_sTake);
void TakeClosingReply(const TAKE &I_sTake);
void TakeOpened(const TAKE &I_sTake, const char *cpVerb);
void TakeBlock(const TAKE &I_sTake, const char *cpVerb);
bool IsRefusal(std::string_view I_svReply); // 4xx, 5xx
} // namespace trace

#endif
