// Traces the utility's answer without the password that it may contain.
#include <cstdio>
#include <cstring>

#include "com/com.h"
#include "trace/trace.h"

static const char szHostSpecKey[] = "tape_server";

void DumpTraceAdapter(char *cpDumpLine)
{
    char szLine[512];
    snprintf(szLine, sizeof szLine, "Dumping memory: [%s]", cpDumpLine);
    COM_trace(szLine);
}

// The fourth item of a host text and everything after it. The key is found in any letter case and
// anywhere in the line, because rejected lines are traced too.
char *com_FindPassword(char *cpLine)
{
    char *cpPassword = strcasestr(cpLine, szHostSpecKey);
    for (int iColon = 0; iColon < 3 && cpPassword != nullptr; iColon++)
    {
        cpPassword = strchr(cpPassword, ':');
        if (cpPassword != nullptr) cpPassword++;
    }
    return cpPassword;
}

// One "*" for each byte, so that the offsets in the dump stay. The answer may contain NULs, so each
// piece between NULs and line ends is searched.
static void MaskPasswords(char *cpAnswer, unsigned int uiLength)
{
    char *cpEnd = cpAnswer + uiLength;
    for (char *cpLine = cpAnswer; cpLine < cpEnd;)
    {
        size_t uLine = strcspn(cpLine, "\r\n");
        char cEnd = cpLine[uLine];
        cpLine[uLine] = '\0';
        char *cpPassword = com_FindPassword(cpLine);
        if (cpPassword != nullptr) memset(cpPassword, '*', strlen(cpPassword));
        cpLine[uLine] = cEnd;
        cpLine += uLine + 1;
    }
}

void com_DumpAnswer(const char *cpAnswer, unsigned int uiLength)
{
    char *cpCopy = static_cast<char *>(x_Malloc(uiLength + 1));
    if (cpCopy == nullptr) return;
    memcpy(cpCopy, cpAnswer, uiLength);
    cpCopy[uiLength] = '\0';
    MaskPasswords(cpCopy, uiLength);
    x_Dump(reinterpret_cast<unsigned char *>(cpCopy), uiLength, DumpTraceAdapter);
    x_Free(cpCopy);
}
