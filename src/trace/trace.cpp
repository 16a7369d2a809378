// Sends messages to the caller's sink, the log and standard error.
#include "trace/trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "record/record.h"
#include "trace/log.h"
#include "util/util.h"

void i_TraceLine(const char *cpFormat, ...)
{
    char szLocal[XBSA_TRACE_SIZE]; // for calls before the buffer exists
    char *cpLine = sGlobal.cpTraceBuffer != nullptr ? sGlobal.cpTraceBuffer : szLocal;

    va_list vaArguments;
    va_start(vaArguments, cpFormat);
    vsnprintf(cpLine, XBSA_TRACE_SIZE, cpFormat, vaArguments);
    va_end(vaArguments);
    ie_trace(cpLine);
}

void ie_trace(const char *cpMessage)
{
    int iError = errno; // a trace must not change the errno of the call before it
    if (cpMessage == nullptr) cpMessage = "";
    if (sGlobal.vpExternalTraceFunc != nullptr)
    {
        sGlobal.vpExternalTraceFunc(const_cast<char *>(cpMessage));
    }
    if (sGlobal.ucXBSATraceLevel & (TRACE_TO_STDERR | TRACE_TO_LOG)) i_trace(cpMessage);
    if (sGlobal.cpTraceBuffer != nullptr) memset(sGlobal.cpTraceBuffer, 0, XBSA_TRACE_SIZE);
    errno = iError;
}

void COM_trace(const char *cpCOMTraceMessage)
{
    if (i_Verbosity() >= TRACE_STEPS) ie_trace(cpCOMTraceMessage);
}

// The beginning of each line. It is composed once per second, because a trace of every block uses
// it thousands of times. Returns its length.
static size_t StampLine(char *cpLine)
{
    static const char szFormat[] = " %Y-%m-%d %H:%M:%S: Trace: (QAB library) ";
    TRACE_STATE *spTrace = &sPrivate.sTrace;
    time_t lNow = time(nullptr);
    if (lNow != spTrace->lStamped)
    {
        struct tm sNow = {};
        localtime_r(&lNow, &sNow);
        spTrace->uStamp = strftime(spTrace->szStamp, sizeof spTrace->szStamp, szFormat, &sNow);
        spTrace->lStamped = lNow;
    }
    memcpy(cpLine, spTrace->szStamp, spTrace->uStamp);
    return spTrace->uStamp;
}

// A line that does not fit is cut and still ends with a newline. Returns its length.
static size_t ComposeLine(char *cpLine, const char *cpMessage)
{
    size_t uLength = StampLine(cpLine);
    x_CopyText(cpLine + uLength, XBSA_TRACE_SIZE - 1 - uLength,
               cpMessage); // without the newline
    uLength += strlen(cpLine + uLength);
    while (cpLine[uLength - 1] == '\n' || cpLine[uLength - 1] == '\r') uLength--;
    cpLine[uLength++] = '\n';
    return uLength;
}

static void WriteLog(const char *cpLine, size_t uLength)
{
    if (!i_IsLogOpen()) return;
    const APPENDED *spOwn = &sPrivate.sTrace.sLog;
    if (sGlobal.hLogFile == spOwn->hFile) x_Append(spOwn, cpLine, uLength);
    else x_WriteHeld(sGlobal.hLogFile, cpLine, uLength);
}

void i_trace(const char *cpTraceMessage)
{
    char szLine[XBSA_TRACE_SIZE];
    size_t uLength = ComposeLine(szLine, cpTraceMessage != nullptr ? cpTraceMessage : "");

    if (sGlobal.ucXBSATraceLevel & TRACE_TO_STDERR) x_WriteHeld(STDERR_FILENO, szLine, uLength);
    if (sGlobal.ucXBSATraceLevel & TRACE_TO_LOG) WriteLog(szLine, uLength);
}

int i_CopyField(const char *cpWhat, char *cpField, size_t uSize, const char *cpText)
{
    int iCut = x_CopyText(cpField, uSize, cpText);
    if (iCut == 1) TRACE("%s: Value too long, cut to %zu characters.", cpWhat, uSize - 1);
    return iCut;
}

unsigned char i_LevelToLog(const char *cpText)
{
    return static_cast<unsigned char>(x_ToLong(cpText, nullptr, 10) | TRACE_TO_LOG);
}
