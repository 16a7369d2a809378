#include "util/util.h"

#include <climits>
#include <cstring>

int x_CopyText(char *cpTarget, size_t uSize, const char *cpText, size_t uMaxLength)
{
    size_t uLength = strnlen(cpText, uMaxLength);
    int iCut = uLength >= uSize;
    if (iCut) uLength = uSize - 1;
    memmove(cpTarget, cpText, uLength);
    cpTarget[uLength] = '\0';
    return iCut;
}

int x_CopyText(char *cpTarget, size_t uSize, const char *cpText)
{
    return x_CopyText(cpTarget, uSize, cpText, strlen(cpText));
}

int x_Number(const char *cpText)
{
    long lNumber = x_ToLong(cpText, nullptr, 10);
    if (lNumber > INT_MAX) return INT_MAX;
    if (lNumber < INT_MIN) return INT_MIN;
    return static_cast<int>(lNumber);
}

bool x_HasControl(const char *cpText)
{
    for (; *cpText != '\0'; cpText++)
    {
        unsigned char ucByte = static_cast<unsigned char>(*cpText);
        if (ucByte < ' ' || ucByte == 127) return true;
    }
    return false;
}

char *x_SkipSpaces(char *cpText)
{
    while (*cpText == ' ') cpText++;
    return cpText;
}
