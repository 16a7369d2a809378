// Hex dump for the trace.
#include <cstdio>
#include <cstring>

#include "xbsa_session.h"

enum
{
    COLUMNS = 16
};

// Bytes that would move the cursor or ring the bell. Other control characters are shown unchanged.
static bool IsUnprintable(unsigned char ucByte)
{
    return ucByte == 0 || (ucByte >= 7 && ucByte <= 10) || ucByte == 13;
}

// One line of up to COLUMNS bytes, padded to the full width.
static void DumpLine(const unsigned char *ucpBytes, unsigned int uCount, BSA_TraceFunc fpTrace)
{
    char szHex[COLUMNS * 3 + 1];
    char szText[COLUMNS + 1];
    for (size_t uColumn = 0; uColumn < COLUMNS; uColumn++)
    {
        bool bByte = uColumn < uCount;
        unsigned char ucByte = bByte ? ucpBytes[uColumn] : ' ';
        if (bByte) snprintf(szHex + uColumn * 3, 4, "%02X ", static_cast<unsigned int>(ucByte));
        else memcpy(szHex + uColumn * 3, "   ", 4);
        szText[uColumn] = IsUnprintable(ucByte) ? '.' : static_cast<char>(ucByte);
    }
    szText[COLUMNS] = '\0';

    char szLine[sizeof szHex + sizeof szText];
    snprintf(szLine, sizeof szLine, "%s %s", szHex, szText);
    if (fpTrace != nullptr) fpTrace(szLine);
    else printf("%s\n", szLine);
}

void x_Dump(unsigned char *data, unsigned int length, BSA_TraceFunc fpTrace)
{
    while (length > 0)
    {
        unsigned int uCount = length < COLUMNS ? length : static_cast<unsigned int>(COLUMNS);
        DumpLine(data, uCount, fpTrace);
        data += uCount;
        length -= uCount;
    }
}
