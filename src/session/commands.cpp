// Builds the list of command lines that opens a transfer.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "session/session.h"
#include "trace/trace.h"
#include "util/util.h"

enum
{
    BLOCK_UNIT = 1024,
    BLOCK_DEFAULT = 65536,
    LINE_END = 2 // CR LF, appended when the line is sent
};

// A line break in a value would start another command.
static int CheckValue(const char *cpWhat, const char *cpValue)
{
    if (!x_HasControl(cpValue)) return 0;
    return i_Fail("xbsa_open", 0, "Control character in %s refused.", cpWhat);
}

static int CheckValues(int iMode)
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    int iRet = CheckValue("user name", spSMS->szUser);
    if (iRet == 0) iRet = CheckValue("password", spSMS->szPass);
    if (iRet == 0) iRet = CheckValue("path", spSMS->szPath);
    if (iRet == 0) iRet = CheckValue("object name", spSMS->szName);
    if (iRet == 0 && iMode == STOR_MODE) iRet = CheckValue("tape", spSMS->szTape);
    return iRet;
}

// A line that does not fit is refused, because a truncated name is another object's name.
__attribute__((format(printf, 2, 3))) static int MakeLine(char *cpSlot, const char *cpFormat, ...)
{
    va_list vaArguments;
    va_start(vaArguments, cpFormat);
    int iLength = vsnprintf(cpSlot, XBSA_REPLY_SIZE, cpFormat, vaArguments);
    va_end(vaArguments);
    if (static_cast<size_t>(iLength) < XBSA_REPLY_SIZE - LINE_END) return 0;

    return i_Fail("xbsa_open", 0, "Command too long: %.4s", cpSlot);
}

static unsigned int BlockSizeKB()
{
    int iBlocks = sGlobal.sObject.sSMS.iTCPBufsiz / BLOCK_UNIT;
    return static_cast<unsigned int>(iBlocks < 1 ? BLOCK_DEFAULT / BLOCK_UNIT : iBlocks);
}

static int MakeTransferLine(char *cpSlot, int iMode)
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    bool bLong = strncmp(spSMS->szPath, "SMS", 3) == 0;
    unsigned int uTapeID = static_cast<unsigned int>(spSMS->ulTapeID);
    unsigned int uSegment = static_cast<unsigned int>(spSMS->ulSegmentNum);

    if (iMode == STOR_MODE && bLong)
    {
        return MakeLine(cpSlot, "STOR %s:%s:%s:%u:%s:%u", spSMS->szName, "QAB", "none", uTapeID,
                        spSMS->szTape, BlockSizeKB());
    }
    if (iMode == STOR_MODE) return MakeLine(cpSlot, "STOR %s", spSMS->szName);
    if (bLong)
    {
        return MakeLine(cpSlot, "RETR %s:%u:%u:%u:%u:%s", spSMS->szName, 0U, 0U, uTapeID, uSegment,
                        "none");
    }
    return MakeLine(cpSlot, "RETR %s", spSMS->szName);
}

int xbsa_prepare_commands(char **cpaCommands, int iMode)
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    int iRet = CheckValues(iMode);
    if (iRet == 0) iRet = MakeLine(cpaCommands[SLOT_USER], "USER %s", spSMS->szUser);
    if (iRet == 0) iRet = MakeLine(cpaCommands[SLOT_PASS], "PASS %s", spSMS->szPass);
    if (iRet == 0) iRet = MakeLine(cpaCommands[SLOT_TYPE], "TYPE I");
    if (iRet == 0) iRet = MakeLine(cpaCommands[SLOT_CWD], "CWD %s", spSMS->szPath);
    if (iRet == 0) iRet = MakeTransferLine(cpaCommands[SLOT_TRANSFER], iMode);
    if (iRet == 0) iRet = MakeLine(cpaCommands[SLOT_QUIT], "QUIT");
    return iRet;
}
