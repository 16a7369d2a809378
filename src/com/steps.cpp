// The steps of each task, and what a step writes into the record before its command line is built.
#include <cstdio>
#include <ctime>

#include "com/com.h"
#include "record/record.h"
#include "trace/trace.h"

static bool PrepareSession(COM_RUN *spRun)
{
    spRun->spInput->iOpenJobStarted = 0;
    return true;
}

// The saveset of a backup is named after the second when its job is opened.
static bool PrepareWriteJob(COM_RUN *spRun)
{
    STUCT_COM_INPUT *spCOM = spRun->spInput;
    spCOM->iOpenJobStarted = 1;
    snprintf(spCOM->szSavesetID, sizeof spCOM->szSavesetID, "%ld",
             static_cast<long>(time(nullptr)));
    TRACE("com_intf: Saveset ID: [%s]", spCOM->szSavesetID);
    return true;
}

static bool PrepareReadJob(COM_RUN *spRun)
{
    spRun->spInput->iOpenJobStarted = 1;
    TRACE("com_intf: OPEN_JOB (restore): Saveset ID: [%u]",
          sGlobal.sObject.sBSA_Object.copyId.right);
    return true;
}

// A job that never opened is not closed.
static bool PrepareCloseJob(COM_RUN *spRun)
{
    if (spRun->spInput->iOpenJobStarted == 0)
    {
        spRun->spStep = com_FindStep(spRun->eTask, COM_STEP_CLOSE_SESSION);
    }
    return true;
}

// The entry for the result, empty until the answer names a match. The saveset of an earlier answer
// must not pass for this answer's.
static bool PrepareQuery(COM_RUN *spRun)
{
    spRun->spInput->szSavesetID[0] = '\0';
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

static const COM_STEP asSteps[] = {
    {COM_OPEN_WRITE, COM_STEP_OPEN_SESSION, "-b", PrepareSession, com_BuildOpenSession,
     COM_STEP_OPEN_JOB},
    {COM_OPEN_WRITE, COM_STEP_OPEN_JOB, "-b", PrepareWriteJob, com_BuildOpenWriteJob,
     COM_STEP_INIT},
    {COM_OPEN_READ, COM_STEP_OPEN_SESSION, "-r", PrepareSession, com_BuildOpenSession,
     COM_STEP_OPEN_JOB},
    {COM_OPEN_READ, COM_STEP_OPEN_JOB, "-r", PrepareReadJob, com_BuildOpenReadJob, COM_STEP_INIT},
    {COM_CLOSE_WRITE, COM_STEP_CLOSE_JOB, "-b", PrepareCloseJob, com_BuildCloseJob,
     COM_STEP_CLOSE_SESSION},
    {COM_CLOSE_WRITE, COM_STEP_CLOSE_SESSION, "-b", nullptr, com_BuildCloseSession, COM_STEP_INIT},
    {COM_CLOSE_READ, COM_STEP_CLOSE_JOB, "-r", PrepareCloseJob, com_BuildCloseJob,
     COM_STEP_CLOSE_SESSION},
    {COM_CLOSE_READ, COM_STEP_CLOSE_SESSION, "-r", nullptr, com_BuildCloseSession, COM_STEP_INIT},
    {COM_INFO, COM_STEP_INIT, "-q", PrepareQuery, com_BuildQuery, COM_STEP_INIT},
    {COM_REMOVE, COM_STEP_INIT, "", nullptr, nullptr, COM_STEP_INIT},
};

const COM_STEP *com_FindStep(ENUM_COM_TASK eTask, int iStep)
{
    for (const COM_STEP &sStep : asSteps)
    {
        if (sStep.eTask != eTask) continue;
        if (iStep == COM_STEP_INIT || sStep.iStep == iStep) return &sStep;
    }
    return nullptr;
}
