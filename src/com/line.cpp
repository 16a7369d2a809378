// Composes a command line so that the shell passes each argument to the utility unchanged.
#include <cstdarg>
#include <cstring>

#include "com/com.h"

static void AppendByte(COM_LINE *spLine, char cByte)
{
    // the redirection must fit after every line
    if (spLine->uLength + sizeof COM_REDIRECTION >= sizeof spLine->szText) spLine->bFits = false;
    if (!spLine->bFits) return;
    spLine->szText[spLine->uLength++] = cByte;
    spLine->szText[spLine->uLength] = '\0';
}

void com_AppendText(COM_LINE *spLine, const char *cpText)
{
    for (; *cpText != '\0'; cpText++) AppendByte(spLine, *cpText);
}

// Names from the utility or the caller may contain anything: a session id of "1;reboot" must reach
// the utility as these eight characters.
static void AppendQuoted(COM_LINE *spLine, const char *cpText)
{
    AppendByte(spLine, '\'');
    for (; *cpText != '\0'; cpText++)
    {
        if (*cpText == '\'') com_AppendText(spLine, "'\\'");
        AppendByte(spLine, *cpText);
    }
    AppendByte(spLine, '\'');
}

static bool IsHarmless(const char *cpText)
{
    static const char szHarmless[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                     "abcdefghijklmnopqrstuvwxyz"
                                     "0123456789_@%+=:,./-";
    return cpText[strspn(cpText, szHarmless)] == '\0';
}

void com_AppendArgument(COM_LINE *spLine, const char *cpFormat, ...)
{
    char szArgument[XBSA_COM_CMD_SIZE];
    va_list vaArguments;
    va_start(vaArguments, cpFormat);
    int iLength = vsnprintf(szArgument, sizeof szArgument, cpFormat, vaArguments);
    va_end(vaArguments);

    if (static_cast<size_t>(iLength) >= sizeof szArgument) spLine->bFits = false;
    else if (IsHarmless(szArgument)) com_AppendText(spLine, szArgument);
    else AppendQuoted(spLine, szArgument);
}
