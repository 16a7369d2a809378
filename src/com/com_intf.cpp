// Performs one task of the COM utility: one or two runs and their answers.
#include <cstring>

#include "com/com.h"
#include "record/record.h"
#include "trace/trace.h"

static void FailTask(COM_RUN *spRun)
{
    sGlobal.sObject.sSMS.iOpStatus = OP_STATUS_FAILED;
    spRun->iRet = -1;
}

static bool IsOpen(ENUM_COM_TASK eTask)
{
    return eTask == COM_OPEN_WRITE || eTask == COM_OPEN_READ;
}

static bool IsClose(ENUM_COM_TASK eTask)
{
    return eTask == COM_CLOSE_WRITE || eTask == COM_CLOSE_READ;
}

// An opening must not keep the names of an earlier object: with an answer that has none, this
// object would overwrite that one.
static void ForgetEarlierNames(ENUM_COM_TASK eTask, STUCT_COM_INPUT *spInput)
{
    if (!IsOpen(eTask) || spInput == nullptr) return;
    sGlobal.sObject.sSMS.szName[0] = '\0';
    spInput->szRestoreID[0] = '\0';
    if (eTask == COM_OPEN_WRITE) spInput->szSavesetID[0] = '\0';
}

// A truncated line could name another job, so it is not run.
static void RefuseLongLine(COM_RUN *spRun)
{
    TRACE("com_intf: Command line too long, not run: [%.200s...]", spRun->sLine.szText);
    i_KeepMessage(0, "The command line of the COM utility is too long.");
    FailTask(spRun);
}

// A utility that ends without output counts as success, except in strict mode. After a close no
// query would find the backup, and after an open the backup would have no job.
static void FailUnanswered(COM_RUN *spRun)
{
    const bool bClose = IsClose(spRun->eTask);
    if (!sPrivate.bStrict || spRun->iRet != 0 || !(bClose || IsOpen(spRun->eTask))) return;
    if (bClose) i_KeepMessage(0, "The COM utility did not answer when the job was closed.");
    else i_KeepMessage(0, "The COM utility did not open a job.");
    FailTask(spRun);
}

// Returns true if the answer was accepted and the task may continue.
static bool TakeAnswer(COM_RUN *spRun)
{
    if (spRun->iRet != 0 || spRun->uiAnswerLen == 0)
    {
        TRACE("com_intf: COM answer not received.");
        FailUnanswered(spRun);
        return false;
    }
    spRun->bypBuff[spRun->uiAnswerLen] = '\0';
    TRACE("com_intf: Dumping COM interface answer:");
    if (i_Verbosity() >= TRACE_STEPS) com_DumpAnswer(spRun->bypBuff, spRun->uiAnswerLen);
    TRACE("com_intf: Parsing COM answer ...");
    int iParsed = parse_com_answer(spRun->bypBuff, spRun->uiAnswerLen);
    TRACE("com_intf: parse_com_answer return: [%d].", iParsed);
    sPrivate.bAnswered = iParsed == 0;
    if (sPrivate.bAnswered) return true;
    i_KeepMessage(0, "The COM utility refused the request, or its answer is invalid.");
    FailTask(spRun);
    return false;
}

// Returns true if the task needs another pass.
static bool TakeNextStep(COM_RUN *spRun)
{
    if (spRun->spStep->iNext == COM_STEP_INIT) return false;
    spRun->spStep = com_FindStep(spRun->eTask, spRun->spStep->iNext);
    return true;
}

// In strict mode a session that did not open has no id, so that the following close does not name
// an earlier one. Each job is closed once.
static void ForgetEndedJob(const COM_RUN *spRun)
{
    if (!sPrivate.bStrict || spRun->spInput == nullptr) return;
    bool bSession = spRun->spStep != nullptr && spRun->spStep->iStep == COM_STEP_OPEN_SESSION;
    if (bSession && spRun->iRet != 0) spRun->spInput->szSessionID[0] = '\0';
    if (IsClose(spRun->eTask)) spRun->spInput->iOpenJobStarted = 0;
}

// Builds the command line of this pass. An unknown task, or one without an input, runs the utility
// without arguments and fails. Returns false if the pass cannot be run.
static bool MakeCommand(COM_RUN *spRun)
{
    const bool bValid = spRun->spStep != nullptr;
    if (bValid)
    {
        if (spRun->spStep->iStep != COM_STEP_INIT)
            TRACE("com_intf: COM interface step: [%d - %s].", static_cast<int>(spRun->eTask),
                  com_step_keyword(spRun->spStep->iStep));
        if (spRun->spStep->fpPrepare != nullptr && !spRun->spStep->fpPrepare(spRun)) return false;
    }
    com_BeginLine(spRun);
    if (bValid && spRun->spStep->fpBuild != nullptr) spRun->spStep->fpBuild(spRun);
    if (bValid) return true;

    TRACE("com_intf: Invalid input mode: [%d].", static_cast<int>(spRun->eTask));
    spRun->iRet = 1;
    return true;
}

static bool RunPass(COM_RUN *spRun)
{
    if (!MakeCommand(spRun)) return false;
    if (!spRun->sLine.bFits)
    {
        RefuseLongLine(spRun);
        return false;
    }
    if (!com_RunUtility(spRun))
    {
        spRun->iRet = 1;
        return false;
    }
    return TakeAnswer(spRun) && TakeNextStep(spRun);
}

static int RunTask(COM_RUN *spRun)
{
    unsigned int uiExeSize = sizeof spRun->szExe;
    TRACE("com_intf: Searching COM Interface utility...");
    const bool bFound = find_com_intf(spRun->szExe, &uiExeSize) == 0;
    if (bFound)
    {
        TRACE("com_intf: COM utility executable: [%s]", spRun->szExe);
        while (RunPass(spRun))
        {
        }
        com_FinishRun(spRun);
        TRACE("com_intf: <<<<< Exiting COM section >>>>>");
    }
    ForgetEndedJob(spRun);
    return bFound ? spRun->iRet : 1;
}

static COM_RUN *NewRun(ENUM_COM_TASK eTask, STUCT_COM_INPUT *spInput)
{
    COM_RUN *spRun = static_cast<COM_RUN *>(x_Malloc(sizeof(COM_RUN)));
    if (spRun == nullptr) return nullptr;
    memset(spRun, 0, sizeof *spRun);
    spRun->eTask = eTask;
    spRun->spInput = spInput;
    spRun->spStep = spInput != nullptr ? com_FindStep(eTask, COM_STEP_INIT) : nullptr;
    return spRun;
}

int com_intf(ENUM_COM_TASK I_enumCOMTask, STUCT_COM_INPUT *I_spCOMInput)
{
    TRACE("com_intf: >>>>> Entering COM section <<<<<");
    TRACE("com_intf: Input MODE: [%d - %s].", static_cast<int>(I_enumCOMTask),
          com_task_keyword(I_enumCOMTask));
    ForgetEarlierNames(I_enumCOMTask, I_spCOMInput);
    sPrivate.bAnswered = false;

    COM_RUN *spRun = NewRun(I_enumCOMTask, I_spCOMInput);
    char *bypBuff = static_cast<char *>(x_Malloc(XBSA_COM_ANSWER + 1));
    int iRet = 1;
    if (spRun != nullptr && bypBuff != nullptr)
    {
        spRun->bypBuff = bypBuff;
        iRet = RunTask(spRun);
    }
    x_Free(bypBuff);
    x_Free(spRun);
    return iRet;
}
