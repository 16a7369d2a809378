// Names of tasks and steps for the trace.
#include "util/util.h"
#include "xbsa_session.h"

enum
{
    KEYWORD_SIZE = 64,
    TABLE_END = -1
};

static const MsgTbl asTaskNames[] = {{COM_OPEN_WRITE, "COM_OPEN_WRITE"},
                                     {COM_CLOSE_WRITE, "COM_CLOSE_WRITE"},
                                     {COM_OPEN_READ, "COM_OPEN_READ"},
                                     {COM_CLOSE_READ, "COM_CLOSE_READ"},
                                     {COM_INFO, "COM_INFO"},
                                     {COM_REMOVE, "COM_REMOVE"},
                                     {TABLE_END, "UNKNOWN"}};

static const MsgTbl asStepNames[] = {{COM_STEP_INIT, "COM_STEP_INIT"},
                                     {COM_STEP_OPEN_SESSION, "COM_STEP_OPEN_SESSION"},
                                     {COM_STEP_OPEN_JOB, "COM_STEP_OPEN_JOB"},
                                     {COM_STEP_CLOSE_JOB, "COM_STEP_CLOSE_JOB"},
                                     {COM_STEP_CLOSE_SESSION, "COM_STEP_CLOSE_SESSION"},
                                     {TABLE_END, "UNKNOWN"}};

static char *CopyKeyword(char *cpKeyword, const MsgTbl *spRow, int iValue)
{
    while (spRow->iFlag != TABLE_END && spRow->iFlag != iValue) spRow++;
    x_CopyText(cpKeyword, KEYWORD_SIZE, spRow->cpFlagName);
    return cpKeyword;
}

char *com_task_keyword(ENUM_COM_TASK I_enumCOMTask)
{
    static char szKeyword[KEYWORD_SIZE];
    return CopyKeyword(szKeyword, asTaskNames, static_cast<int>(I_enumCOMTask));
}

char *com_step_keyword(int I_iStep)
{
    static char szKeyword[KEYWORD_SIZE];
    return CopyKeyword(szKeyword, asStepNames, I_iStep);
}
