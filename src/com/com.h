// The COM utility: sessions and jobs on the backup server, and the look-up of copies.
//
// Promises: every value that the utility, the caller or the environment named reaches the utility as one
// argument with exactly its bytes; a line that does not fit is not run; at most 32 KiB of an answer are
// read, and no password in it is traced; no child is left behind.
// Needs: record, trace, util.
//
//   open session  ->  open job         a task of two steps: two runs of the utility in one call, the
//   close job     ->  close session    second with what the answer to the first has left in the record
//   query, remove                      one step
//
//   com_intf.cpp   runs a task, step by step
//   steps.cpp      the table of steps, and what a step writes into the record before it is run
//   command.cpp    the command line of a step: reads the record, writes nothing
//   line.cpp       quoting
//   find.cpp, run.cpp, dump.cpp, parse.cpp, hostspec.cpp, keywords.cpp
#ifndef COM_COM_H
#define COM_COM_H

#include <csignal>
#include <cstdio>

#include "xbsa_session.h"

// Ends every command line: only what the utility prints on standard output counts.
#define COM_REDIRECTION " 2>/dev/null"

// A command line in the making. Once something did not fit it stays unfit.
typedef struct
{
    char szText[XBSA_COM_CMD_SIZE];
    size_t uLength;
    bool bFits;
} COM_LINE;

struct COM_RUN;

// One run of the utility.
typedef struct
{
    ENUM_COM_TASK eTask;
    int iStep;            // COM_STEP_ value
    const char *cpOption; // first argument
    bool (*fpPrepare)(
        COM_RUN *spRun); // writes into the record; false: the step cannot be run. May be null
    void (*fpBuild)(COM_RUN *spRun); // appends the arguments to sLine. May be null
    int iNext;                       // step after a positive answer; COM_STEP_INIT for none
} COM_STEP;

// One call of com_intf.
struct COM_RUN
{
    ENUM_COM_TASK eTask;
    STUCT_COM_INPUT *spInput;
    const COM_STEP *spStep;        // null: no such task, or nothing to make it from
    char szExe[XBSA_COM_CMD_SIZE]; // path of the utility
    COM_LINE sLine;                // what this pass runs
    char *bypBuff;                 // the answer and one byte for a terminator
    unsigned int uiAnswerLen;      // bytes in bypBuff
    FILE *spaPipe[2];              // of the last pass and, before it, of the first one
    int iPipes;                    // pipes in spaPipe
    sigset_t sOldSet;              // mask to put back
    bool bMasked;                  // sOldSet is filled
    int iNumQueryLines;            // next entry of spQueryResult
    int iRet;                      // result of the call
};

// --- Steps (steps.cpp) ---

// The row of a step; COM_STEP_INIT means the first step of the task. Null for no such task.
const COM_STEP *com_FindStep(ENUM_COM_TASK eTask, int iStep);

// --- Command lines (command.cpp, line.cpp) ---

void com_BuildOpenSession(COM_RUN *spRun);
void com_BuildOpenWriteJob(COM_RUN *spRun);
void com_BuildOpenReadJob(COM_RUN *spRun);
void com_BuildCloseJob(COM_RUN *spRun);
void com_BuildCloseSession(COM_RUN *spRun);
void com_BuildQuery(COM_RUN *spRun);

// Begins the line with the path of the utility and a blank, which is there even without an argument.
void com_BeginLine(COM_RUN *spRun);

// Appends a text as it is.
void com_AppendText(COM_LINE *spLine, const char *cpText);

// Appends one argument, quoted for the shell unless all of it is harmless.
void com_AppendArgument(COM_LINE *spLine, const char *cpFormat, ...)
    __attribute__((format(printf, 2, 3)));

// --- The run (run.cpp, dump.cpp) ---

// Runs the command line and reads the answer. Returns false when it could not be run.
bool com_RunUtility(COM_RUN *spRun);

// Closes the pipes and puts the signal mask back.
void com_FinishRun(COM_RUN *spRun);

// Traces an answer as a hex dump, a password in it masked.
void com_DumpAnswer(const char *cpAnswer, unsigned int uiLength);

// Where the password in a line of an answer begins; null when it holds none.
char *com_FindPassword(char *cpLine);

#endif
