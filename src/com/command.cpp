// The command line of each task and step.
#include <ctime>

#include "com/com.h"
#include "record/record.h"
#include "trace/trace.h"

// An option with its value, when there is a value.
static void AppendOptional(COM_LINE *spLine, const char *cpOption, const char *cpValue)
{
    if (x_IsEmptyString(cpValue)) return;
    com_AppendText(spLine, cpOption);
    com_AppendArgument(spLine, "%s", cpValue);
}

static void AppendServer(COM_LINE *spLine, const char *cpServer)
{
    com_AppendText(spLine, " -C ");
    com_AppendArgument(spLine, "%s", cpServer);
}

static void AppendJob(COM_LINE *spLine, const char *cpJob)
{
    com_AppendText(spLine, " -j ");
    com_AppendArgument(spLine, "%s", cpJob);
    com_AppendText(spLine, " -s ");
}

// What follows the saveset of every open-job command. The two blanks before the object are what
// the utility has always been given.
static void AppendJobEnd(COM_RUN *spRun)
{
    const STUCT_COM_INPUT *spInput = spRun->spInput;
    const BSA_ObjectName *spName = &sGlobal.sObject.sBSA_Object.objectName;
    COM_LINE *spLine = &spRun->sLine;
    com_AppendText(spLine, " -I informix");
    AppendOptional(spLine, " -S ", spInput->szKORVATapeServer);
    AppendOptional(spLine, " -d ", spInput->szDrive);
    AppendOptional(spLine, " -m ", spInput->szPool);
    AppendOptional(spLine, " -W ", spInput->szCOMTimeOut);
    com_AppendText(spLine, " --  ");
    com_AppendArgument(spLine, "%.*s@%.*s", static_cast<int>(sizeof spName->objectSpaceName),
                       spName->objectSpaceName, static_cast<int>(sizeof spName->pathName),
                       spName->pathName);
}

static void TraceStep(const COM_RUN *spRun)
{
    TRACE("com_intf: COM interface step: [%d - %s].", static_cast<int>(spRun->eTask),
          com_step_keyword(spRun->iStep));
}

static void BuildOpenSession(COM_RUN *spRun, const char *cpDirection)
{
    spRun->spInput->iOpenJobStarted = 0;
    com_AppendText(&spRun->sLine, cpDirection);
    com_AppendText(&spRun->sLine, " open");
    AppendServer(&spRun->sLine, spRun->spInput->szKORVAServer);
    com_AppendText(&spRun->sLine, " -I informix");
}

static void AppendOpenJob(COM_RUN *spRun, const char *cpDirection)
{
    com_AppendText(&spRun->sLine, cpDirection);
    com_AppendText(&spRun->sLine, " ");
    com_AppendArgument(&spRun->sLine, "openjob:%s", spRun->spInput->szSessionID);
    AppendServer(&spRun->sLine, spRun->spInput->szKORVAServer);
    AppendJob(&spRun->sLine, spRun->spInput->szJobName);
}

// The saveset of a backup is named by the second at which its job is opened.
static void BuildOpenWriteJob(COM_RUN *spRun)
{
    STUCT_COM_INPUT *spCOM = spRun->spInput;
    spCOM->iOpenJobStarted = 1;
    snprintf(spCOM->szSavesetID, sizeof spCOM->szSavesetID, "%ld",
             static_cast<long>(time(nullptr)));
    TRACE("com_intf: Saveset ID: [%s]", spCOM->szSavesetID);
    AppendOpenJob(spRun, "-b");
    com_AppendArgument(&spRun->sLine, "%s", spCOM->szSavesetID);
    AppendJobEnd(spRun);
}

static void BuildOpenReadJob(COM_RUN *spRun)
{
    BSA_UInt32 uCopy = sGlobal.sObject.sBSA_Object.copyId.right;
    spRun->spInput->iOpenJobStarted = 1;
    TRACE("com_intf: OPEN_JOB (restore): Saveset ID: [%u]", uCopy);
    AppendOpenJob(spRun, "-r");
    com_AppendArgument(&spRun->sLine, "%u", uCopy);
    AppendJobEnd(spRun);
}

static void BuildOpen(COM_RUN *spRun, bool bWrite)
{
    if (spRun->iStep == COM_STEP_INIT) spRun->iStep = COM_STEP_OPEN_SESSION;
    TraceStep(spRun);
    if (spRun->iStep == COM_STEP_OPEN_SESSION) BuildOpenSession(spRun, bWrite ? "-b" : "-r");
    else if (bWrite) BuildOpenWriteJob(spRun);
    else BuildOpenReadJob(spRun);
}

static void AppendStatus(COM_LINE *spLine)
{
    com_AppendText(spLine, " -I informix -i ");
    com_AppendArgument(spLine, "%d", sGlobal.sObject.sSMS.iOpStatus);
}

static void BuildCloseJob(COM_RUN *spRun, const char *cpDirection)
{
    const STUCT_COM_INPUT *spInput = spRun->spInput;
    COM_LINE *spLine = &spRun->sLine;
    com_AppendText(spLine, cpDirection);
    com_AppendArgument(spLine, "closejob:%s", spInput->szSessionID);
    AppendServer(spLine, spInput->szKORVAServer);
    AppendJob(spLine, spInput->szJobName);
    const char *cpAt = spInput->szRestoreID[0] != '\0' ? "@" : "";
    com_AppendArgument(spLine, "%s%s%s", spInput->szSavesetID, cpAt, spInput->szRestoreID);
    AppendStatus(spLine);
}

static void BuildClose(COM_RUN *spRun, const char *cpDirection)
{
    if (spRun->iStep == COM_STEP_INIT) spRun->iStep = COM_STEP_CLOSE_JOB;
    TraceStep(spRun);
    if (spRun->iStep == COM_STEP_CLOSE_JOB && spRun->spInput->iOpenJobStarted == 0)
    {
        spRun->iStep = COM_STEP_CLOSE_SESSION;
    }
    if (spRun->iStep == COM_STEP_CLOSE_JOB)
    {
        BuildCloseJob(spRun, cpDirection);
        return;
    }
    com_AppendText(&spRun->sLine, cpDirection);
    com_AppendArgument(&spRun->sLine, "close:%s", spRun->spInput->szSessionID);
    AppendServer(&spRun->sLine, spRun->spInput->szKORVAServer);
    AppendStatus(&spRun->sLine);
}

// The entry for the result, empty until the answer says what was found. Returns false without
// memory.
static bool AddQueryResult(COM_RUN *spRun)
{
    TRACE("calling malloc() for next spQueryResult");
    BSA_ObjectDescriptor *spObject = qab_NewResult();
    if (spObject == nullptr)
    {
        TRACE("malloc() failed. break.");
        return false;
    }
    sGlobal.spQueryResult[spRun->iNumQueryLines++] = spObject;
    return true;
}

// The saveset of an earlier answer must not pass for this one's.
static bool BuildQuery(COM_RUN *spRun)
{
    const BSA_ObjectName *spName = &sGlobal.sQueryDescriptor.objectName;
    spRun->spInput->szSavesetID[0] = '\0';
    if (!AddQueryResult(spRun)) return false;

    com_AppendText(&spRun->sLine, "-q");
    AppendServer(&spRun->sLine, spRun->spInput->szKORVAServer);
    com_AppendText(&spRun->sLine, " -I informix");
    AppendJob(&spRun->sLine, spRun->spInput->szJobName);
    com_AppendText(&spRun->sLine, "NULL -- ");
    com_AppendArgument(&spRun->sLine, "%.*s@%.*s", static_cast<int>(sizeof spName->objectSpaceName),
                       spName->objectSpaceName, static_cast<int>(sizeof spName->pathName),
                       spName->pathName);
    return true;
}

bool com_BuildCommand(COM_RUN *spRun)
{
    spRun->sLine.szText[0] = '\0';
    spRun->sLine.uLength = 0;
    spRun->sLine.bFits = true;
    com_AppendArgument(&spRun->sLine, "%s", spRun->szExe);
    com_AppendText(&spRun->sLine, " "); // there even when no argument follows
    switch (spRun->spInput != nullptr ? spRun->eTask : static_cast<ENUM_COM_TASK>(0))
    {
    case COM_OPEN_WRITE:
        BuildOpen(spRun, true);
        return true;
    case COM_OPEN_READ:
        BuildOpen(spRun, false);
        return true;
    case COM_CLOSE_WRITE:
        BuildClose(spRun, "-b ");
        return true;
    case COM_CLOSE_READ:
        BuildClose(spRun, "-r ");
        return true;
    case COM_INFO:
        return BuildQuery(spRun);
    case COM_REMOVE:
        return true; // the bare utility
    }
    // without an input no task can be built, so this one counts as invalid too
    TRACE("com_intf: Invalid input mode: [%d].", static_cast<int>(spRun->eTask));
    spRun->iRet = 1;
    return true;
}
