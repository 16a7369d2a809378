// Interprets the lines of a reply. A code is the first three characters.
//
//   "226 done"              one line, complete
//   "230-Hello" ... "230 "  several lines, until one begins with the same code and a blank
//   "4..." and "5..."       negative
#include "stpc/stpc.h"

#include <cstring>

#include "trace/trace.h"

bool stpc_IsReply(const char *szReply, const char *cpCode)
{
    return strncmp(szReply, cpCode, REPLY_CODE) == 0;
}

bool stpc_IsNegative(const char *szReply)
{
    return szReply[0] == '4' || szReply[0] == '5';
}

bool stpc_EndsReply(const char *szLine, char *szOpenCode)
{
    if (strnlen(szLine, REPLY_CODE) == REPLY_CODE && szLine[REPLY_CODE] == '-')
    {
        memcpy(szOpenCode, szLine, REPLY_CODE);
        szOpenCode[REPLY_CODE] = '\0';
        return false;
    }
    if (szOpenCode[0] == '\0') return true;
    if (!stpc_IsReply(szLine, szOpenCode)) return false;
    szOpenCode[0] = '\0';
    return true;
}

int stpc_ReadLine(int SControl, char *szReply)
{
    memset(szReply, 0, XBSA_REPLY_SIZE + 1);
    return stpc_recv(SControl, szReply, XBSA_REPLY_SIZE, 0);
}

void stpc_TraceReply(const char *cpFunction, const char *cpLabel, const char *szReply)
{
    if (i_Verbosity() == 0) return;
    const char *cpShown = i_MaskReply(szReply);
    TRACE_REPLY("LOGIN REPLY: %s", cpShown);
    TRACE("%s: %s: %s", cpFunction, cpLabel, cpShown);
}

int stpc_ReadAnswer(int SControl, const char *cpFunction, char *szReply)
{
    if (stpc_ReadLine(SControl, szReply) == -1)
    {
        return i_Fail(cpFunction, GetSockErrCode(), "stpc_recv() failed.");
    }
    stpc_TraceReply(cpFunction, "Received message", szReply);
    return 0;
}
