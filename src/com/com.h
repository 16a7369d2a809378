// Inside of the COM utility interface.
#ifndef COM_COM_H
#define COM_COM_H

#include <csignal>
#include <cstdio>

#include "xbsa_session.h"

// Stands behind every command line: only what the utility prints on standard output counts.
#define COM_REDIRECTION " 2>/dev/null"

// A command line in the making. Once something did not fit it stays unfit.
typedef struct
{
    char szText[XBSA_COM_CMD_SIZE];
    size_t uLength;
    bool bFits;
} COM_LINE;

// One call of com_intf.
typedef struct
{
    ENUM_COM_TASK eTask;
    STUCT_COM_INPUT *spInput;
    int iStep;                     // COM_STEP_ value
    char szExe[XBSA_COM_CMD_SIZE]; // path of the utility
    COM_LINE sLine;                // what this pass runs
    char *bypBuff;                 // the answer and one byte for a terminator
    unsigned int uiAnswerLen;      // bytes in bypBuff
    FILE *haPipe[2];               // of the last pass and, in front of it, of the one before
    int iPipes;                    // pipes in haPipe
    sigset_t sOldSet;              // mask to put back
    bool bMasked;                  // sOldSet is filled
    int iNumQueryLines;            // next entry of spQueryResult
    bool bFound;                   // the utility was found
    int iRet;                      // result of the call
} COM_RUN;

// Appends a text as it is.
void com_AppendText(COM_LINE *spLine, const char *cpText);

// Appends one argument, quoted for the shell unless all of it is harmless.
void com_AppendArgument(COM_LINE *spLine, const char *cpFormat, ...)
    __attribute__((format(printf, 2, 3)));

// Builds the command line of the step; may skip to the next step. Returns false when the pass
// cannot run at all.
bool com_BuildCommand(COM_RUN *spRun);

// Runs the command line and reads the answer. Returns false when it could not be run.
bool com_RunUtility(COM_RUN *spRun);

// Closes the pipes and puts the signal mask back.
void com_Finish(COM_RUN *spRun);

// Traces an answer as a hex dump, a password in it masked.
void com_DumpAnswer(const char *cpAnswer, unsigned int uiLength);

// Where the password in a line of an answer begins; null when it holds none.
char *com_FindPassword(char *cpLine);

#endif
