#include "trace/steps.h"

#include <array>

#include "trace/text.h"

namespace
{
// A line that no rule knows is an error when it holds one of these: the library's error texts are
// composed of a function's name, the system's words and its own.
constexpr std::array<std::string_view, 17> ERROR_WORDS = {
    "ailed",    "Fail to",    "xiting",    "NEGATIVE",   "refused",  " too long",
    " to long", "Unable",     "could not", "received.",  "Invalid",  "NULL",
    "is empty", "Unexpected", "to small",  "No account", "too small"};

// No error text begins like these, and many lines do.
constexpr std::array<std::string_view, 10> PLAIN_STARTS = {
    "Start",       "End",         "Calling ",           "sigprocmask()", "Pipe handle",
    "Dumping COM", "Parsing COM", "COM interface step", "<<<<<",         ">>>>>"};

// A value that was cut is told, and the session goes on: what fails afterwards tells more.
constexpr std::array<std::string_view, 3> WEAK_WORDS = {"cut", "xiting", "Unexpected"};

template <size_t COUNT>
bool HoldsOne(std::string_view I_svText, const std::array<std::string_view, COUNT> &I_asWords)
{
    for (const std::string_view svWord : I_asWords)
        if (I_svText.find(svWord) != std::string_view::npos) return true;
    return false;
}

template <size_t COUNT>
bool StartsWithOne(std::string_view I_svText, const std::array<std::string_view, COUNT> &I_asStarts)
{
    for (const std::string_view svStart : I_asStarts)
        if (lines_StartsWith(I_svText, svStart)) return true;
    return false;
}

// The name of the function at the start of the line.
std::string_view FunctionOf(std::string_view I_svText)
{
    size_t uEnd = 0;
    while (uEnd < I_svText.size() && I_svText[uEnd] != ':' && I_svText[uEnd] != '(' &&
           I_svText[uEnd] != ' ')
        uEnd++;
    return I_svText.substr(0, uEnd);
}

std::string_view RestOf(std::string_view I_svText, std::string_view I_svFunction)
{
    I_svText.remove_prefix(I_svFunction.size());
    if (lines_StartsWith(I_svText, "()")) I_svText.remove_prefix(2);
    if (lines_StartsWith(I_svText, ": ")) I_svText.remove_prefix(2);
    return I_svText;
}

// A call begins only after the one before has ended; what belongs to a call comes within it.
void CheckOrder(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sFunction,
                std::string_view I_svRest)
{
    const bool bStart = I_sFunction.uCall != 0 && lines_StartsWith(I_svRest, "Start");
    const unsigned uWithin = bStart ? static_cast<unsigned>(IN_NONE) : I_sFunction.uWithin;
    if ((X_sSession.uCall & (uWithin | IN_UNKNOWN)) == 0) steps_SetSign(X_sSession, I_sLine);
    if (bStart) X_sSession.uCall = I_sFunction.uCall;
}
} // namespace

const FUNCTION *steps_Writer(const LOG_LINE &I_sLine)
{
    return rules_Find(FunctionOf(I_sLine.svText));
}

void steps_SetSign(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine)
{
    X_sSession.strSign = "line " + std::to_string(I_sLine.uNumber) + ", of " +
                         std::string(FunctionOf(I_sLine.svText)) + ", cannot come here";
}

void steps_NoteError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, bool I_bWeak)
{
    if (!X_sSession.strError.empty() && (I_bWeak || !X_sSession.bWeakError)) return;
    X_sSession.strError = text_Clean(I_sLine.svText);
    X_sSession.strErrorStamp = I_sLine.svStamp;
    X_sSession.uErrorLine = I_sLine.uNumber;
    X_sSession.bWeakError = I_bWeak;
}

void steps_Take(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, const FUNCTION &I_sWriter)
{
    const std::string_view svRest = RestOf(I_sLine.svText, I_sWriter.svName);
    CheckOrder(X_sSession, I_sLine, I_sWriter, svRest);
    for (size_t uRule = 0; uRule < I_sWriter.uRules; uRule++)
    {
        const RULE &sRule = I_sWriter.spRules[uRule];
        if (!lines_StartsWith(svRest, sRule.svStart)) continue;
        if (sRule.fpTake != nullptr)
            sRule.fpTake(X_sSession, I_sLine, svRest.substr(sRule.svStart.size()));
        return;
    }
    if (!StartsWithOne(svRest, PLAIN_STARTS) && HoldsOne(svRest, ERROR_WORDS))
        steps_NoteError(X_sSession, I_sLine, HoldsOne(svRest, WEAK_WORDS));
}
