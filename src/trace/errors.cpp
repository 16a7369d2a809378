// Composes texts for system and socket errors.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "record/record.h"
#include "trace/messages.h"
#include "trace/trace.h"
#include "util/util.h"

// Kinds of number that the formatters accept.
enum
{
    ERR_NONE = 0,
    ERR_TABLE = 1,     // SysErrorTxt: number of the message table
    ERR_SYSTEM = 2,    // SysErrorTxt: errno
    ERR_SOCKET = 3,    // SysErrorTxt: errno
    SYSERR_SYSTEM = 1, // syserrtxt: errno
    SYSERR_EMPTY = 2,  // syserrtxt: always an empty text
    SYSERR_SOCKET = 4, // syserrtxt: errno
    SYSERR_NAME = 5    // syserrtxt: name service error
};

unsigned long GetSockErrCode()
{
    return static_cast<unsigned long>(errno);
}

static const char *FindMessage(const MsgTbl *spRow, unsigned long ulNumber)
{
    for (; spRow->iFlag != 0; spRow++)
    {
        if (static_cast<unsigned long>(spRow->iFlag) == ulNumber) return spRow->cpFlagName;
    }
    return nullptr;
}

// Appends what fits into a text of uSize bytes.
static void AppendText(char *cpTarget, size_t uSize, const char *cpText)
{
    size_t uLength = strlen(cpTarget);
    x_CopyText(cpTarget + uLength, uSize - uLength, cpText);
}

static void AppendDescription(char *cpTarget, size_t uSize, unsigned long ulNumber,
                              const char *cpDescription)
{
    if (ulNumber != 0) AppendText(cpTarget, uSize, " ");
    AppendText(cpTarget, uSize, cpDescription);
}

static const char *SystemText(unsigned long ulNumber, int iErrFlag)
{
    const char *cpText = nullptr;
    if (iErrFlag == ERR_SYSTEM || iErrFlag == ERR_SOCKET)
    {
        cpText = strerror(static_cast<int>(ulNumber));
        if (cpText[0] != '\0') return cpText;
        iErrFlag = ERR_TABLE;
    }
    if (iErrFlag == ERR_TABLE) cpText = FindMessage(asSocketMessages, ulNumber);
    return cpText != nullptr ? cpText : "";
}

// Leaves the description empty when there is no format.
static void FormatDescription(char *cpTarget, size_t uSize, const char *cpFormat,
                              va_list vaArguments)
{
    cpTarget[0] = '\0';
    if (cpFormat != nullptr) vsnprintf(cpTarget, uSize, cpFormat, vaArguments);
}

static void KeepFirst(char (&szKept)[XBSA_TRACE_SIZE], const char *cpText)
{
    if (szKept[0] == '\0') x_CopyText(szKept, sizeof szKept, cpText);
}

// Composes the text and sets the last message if it is empty. Returns a static text.
static char *MakeErrorText(unsigned long dwSysErrCode, int iErrFlag, const char *cpAddDesc,
                           va_list vaArguments)
{
    static char szText[XBSA_TRACE_SIZE];
    char szDescription[XBSA_TRACE_SIZE];
    FormatDescription(szDescription, sizeof szDescription, cpAddDesc, vaArguments);

    szText[0] = '\0';
    if (dwSysErrCode != 0) AppendText(szText, sizeof szText, SystemText(dwSysErrCode, iErrFlag));
    if (cpAddDesc != nullptr)
    {
        AppendDescription(szText, sizeof szText, dwSysErrCode, szDescription);
    }

    KeepFirst(sGlobal.sSession.szLastMessage, szText);
    if (sPrivate.spJournal != nullptr) KeepFirst(sPrivate.spJournal->szError, szText);
    return szText;
}

char *SysErrorTxt(unsigned long dwSysErrCode, int iErrFlag, const char *cpAddDesc, ...)
{
    va_list vaArguments;
    va_start(vaArguments, cpAddDesc);
    char *cpText = MakeErrorText(dwSysErrCode, iErrFlag, cpAddDesc, vaArguments);
    va_end(vaArguments);
    return cpText;
}

int i_Fail(const char *cpFunction, unsigned long ulError, const char *cpFormat, ...)
{
    va_list vaArguments;
    va_start(vaArguments, cpFormat);
    const char *cpText = MakeErrorText(ulError, ERR_SOCKET, cpFormat, vaArguments);
    va_end(vaArguments);
    TRACE("%s: %s", cpFunction, cpText);
    return -1;
}

void i_KeepMessage(unsigned long ulError, const char *cpFormat, ...)
{
    va_list vaArguments;
    va_start(vaArguments, cpFormat);
    MakeErrorText(ulError, ERR_SOCKET, cpFormat, vaArguments);
    va_end(vaArguments);
}

// The text of a number for syserrtxt; null to drop the description too. Socket errors (4) become
// errno values first, so no number reaches their table.
static const char *SecondSystemText(unsigned long ulNumber, int iErrFlag)
{
    switch (iErrFlag)
    {
    case SYSERR_SYSTEM:
    case SYSERR_SOCKET:
    {
        const char *cpText = strerror(static_cast<int>(ulNumber));
        return cpText[0] != '\0' ? cpText : nullptr;
    }
    case SYSERR_EMPTY:
        return nullptr;
    case SYSERR_NAME:
        return FindMessage(asNameMessages, ulNumber);
    default:
        return "";
    }
}

// Replaces trailing blanks and line ends with one full stop, unless the text is empty.
static void CloseSentence(char *cpText, size_t uSize)
{
    size_t uLength = strlen(cpText);
    while (uLength > 0 && strchr(" \n\r", cpText[uLength - 1]) != nullptr) uLength--;
    cpText[uLength] = '\0';
    if (uLength > 0 && cpText[uLength - 1] != '.') AppendText(cpText, uSize, ".");
}

char *syserrtxt(unsigned long ulSysErrCode, int iErrFlag, const char *cpAddDesc, ...)
{
    static char szText[512];
    char szDescription[256];
    va_list vaArguments;
    va_start(vaArguments, cpAddDesc);
    FormatDescription(szDescription, sizeof szDescription, cpAddDesc, vaArguments);
    va_end(vaArguments);

    szText[0] = '\0';
    if (ulSysErrCode != 0 && iErrFlag != ERR_NONE)
    {
        const char *cpSystem = SecondSystemText(ulSysErrCode, iErrFlag);
        if (cpSystem == nullptr) return szText;
        AppendText(szText, sizeof szText, cpSystem);
        CloseSentence(szText, sizeof szText);
    }
    if (cpAddDesc != nullptr)
    {
        AppendDescription(szText, sizeof szText, ulSysErrCode, szDescription);
    }
    return szText;
}
