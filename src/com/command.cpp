// The command line of each step.
#include "com/com.h"

// The arguments of "%.*s" for a field that may lack its terminator.
#define FIELD(field) static_cast<int>(sizeof(field)), (field)

// An option with its value, if there is a value.
static void AppendOptional(COM_LINE *spLine, const char *cpOption, int iSize, const char *cpValue)
{
    if (x_IsEmptyString(cpValue)) return;
    com_AppendText(spLine, cpOption);
    com_AppendArgument(spLine, "%.*s", iSize, cpValue);
}

static void AppendServer(COM_LINE *spLine, const STUCT_COM_INPUT *spInput)
{
    com_AppendText(spLine, " -C ");
    com_AppendArgument(spLine, "%.*s", FIELD(spInput->szKORVAServer));
}

static void AppendJob(COM_LINE *spLine, const STUCT_COM_INPUT *spInput)
{
    com_AppendText(spLine, " -j ");
    com_AppendArgument(spLine, "%.*s", FIELD(spInput->szJobName));
    com_AppendText(spLine, " -s ");
}

static void AppendObject(COM_LINE *spLine, const BSA_ObjectName *spName)
{
    com_AppendArgument(spLine, "%.*s@%.*s", FIELD(spName->objectSpaceName),
                       FIELD(spName->pathName));
}

// What follows the saveset in every open-job command. The utility has always received two blanks
// before the object.
static void AppendJobEnd(COM_RUN *spRun)
{
    const STUCT_COM_INPUT *spInput = spRun->spInput;
    COM_LINE *spLine = &spRun->sLine;
    com_AppendText(spLine, " -I informix");
    AppendOptional(spLine, " -S ", FIELD(spInput->szKORVATapeServer));
    AppendOptional(spLine, " -d ", FIELD(spInput->szDrive));
    AppendOptional(spLine, " -m ", FIELD(spInput->szPool));
    AppendOptional(spLine, " -W ", FIELD(spInput->szCOMTimeOut));
    com_AppendText(spLine, " --  ");
    AppendObject(spLine, &sGlobal.sObject.sBSA_Object.objectName);
}

static void AppendStatus(COM_LINE *spLine)
{
    com_AppendText(spLine, " -I informix -i ");
    com_AppendArgument(spLine, "%d", sGlobal.sObject.sSMS.iOpStatus);
}

void com_BeginLine(COM_RUN *spRun)
{
    spRun->sLine.szText[0] = '\0';
    spRun->sLine.uLength = 0;
    spRun->sLine.bFits = true;
    com_AppendArgument(&spRun->sLine, "%s", spRun->szExe);
    com_AppendText(&spRun->sLine, " ");
    if (spRun->spStep != nullptr) com_AppendText(&spRun->sLine, spRun->spStep->cpOption);
}

void com_BuildOpenSession(COM_RUN *spRun)
{
    com_AppendText(&spRun->sLine, " open");
    AppendServer(&spRun->sLine, spRun->spInput);
    com_AppendText(&spRun->sLine, " -I informix");
}

static void AppendOpenJob(COM_RUN *spRun)
{
    com_AppendText(&spRun->sLine, " ");
    com_AppendArgument(&spRun->sLine, "openjob:%.*s", FIELD(spRun->spInput->szSessionID));
    AppendServer(&spRun->sLine, spRun->spInput);
    AppendJob(&spRun->sLine, spRun->spInput);
}

void com_BuildOpenWriteJob(COM_RUN *spRun)
{
    AppendOpenJob(spRun);
    com_AppendArgument(&spRun->sLine, "%.*s", FIELD(spRun->spInput->szSavesetID));
    AppendJobEnd(spRun);
}

void com_BuildOpenReadJob(COM_RUN *spRun)
{
    AppendOpenJob(spRun);
    com_AppendArgument(&spRun->sLine, "%u", sGlobal.sObject.sBSA_Object.copyId.right);
    AppendJobEnd(spRun);
}

void com_BuildCloseJob(COM_RUN *spRun)
{
    const STUCT_COM_INPUT *spInput = spRun->spInput;
    COM_LINE *spLine = &spRun->sLine;
    const char *cpAt = spInput->szRestoreID[0] != '\0' ? "@" : "";
    com_AppendText(spLine, " ");
    com_AppendArgument(spLine, "closejob:%.*s", FIELD(spInput->szSessionID));
    AppendServer(spLine, spInput);
    AppendJob(spLine, spInput);
    com_AppendArgument(spLine, "%.*s%s%.*s", FIELD(spInput->szSavesetID), cpAt,
                       FIELD(spInput->szRestoreID));
    AppendStatus(spLine);
}

void com_BuildCloseSession(COM_RUN *spRun)
{
    com_AppendText(&spRun->sLine, " ");
    com_AppendArgument(&spRun->sLine, "close:%.*s", FIELD(spRun->spInput->szSessionID));
    AppendServer(&spRun->sLine, spRun->spInput);
    AppendStatus(&spRun->sLine);
}

void com_BuildQuery(COM_RUN *spRun)
{
    AppendServer(&spRun->sLine, spRun->spInput);
    com_AppendText(&spRun->sLine, " -I informix");
    AppendJob(&spRun->sLine, spRun->spInput);
    com_AppendText(&spRun->sLine, "NULL -- ");
    AppendObject(&spRun->sLine, &sGlobal.sQueryDescriptor.objectName);
}
