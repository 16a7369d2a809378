// The COM utility: sessions and jobs on the backup server, and the search for copies.
//
// Promises: every value from the utility, the caller or the environment reaches the utility as one
// argument with exactly its bytes. A line that does not fit is not run. At most 32 KiB of an answer
// are read, and no password in it is traced. No child process remains.
// Needs: record, trace, util.
//
//   open session  ->  open job         a task of two steps runs the utility twice in one call; the
//   close job     ->  close session    second run uses what the first answer left in the record
//   query, remove                      one step
//
//   com_intf.cpp   runs a task, step by step
//   steps.cpp      the table of steps, and what a step writes into the record before it runs
//   command.cpp    the command line of a step: reads the record, writes nothing
//   line.cpp       quoting
//   find.cpp, run.cpp, dump.cpp, parse.cpp, hostspec.cpp, keywords.cpp
#ifndef COM_COM_H
#define COM_COM_H

#include <csignal>
#include <cstdio>

#include "xbsa_session.h"

// Ends every command line, because only the utility's standard output counts.
#define COM_REDIRECTION " 2>/dev/null"

// A command line being built. Once a part has not fit, the line stays invalid.
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
        COM_RUN *spRun); // writes into the record; false if the step cannot be run. May be null
    void (*fpBuild)(COM_RUN *spRun); // appends the arguments to sLine. May be null
    int iNext;                       // step after a positive answer; COM_STEP_INIT for none
} COM_STEP;

// One call of com_intf.
struct COM_RUN
{
    ENUM_COM_TASK eTask;
    STUCT_COM_INPUT *spInput;
    const COM_STEP *spStep;        // null: no such task, or no input
    char szExe[XBSA_COM_CMD_SIZE]; // path of the utility
    COM_LINE sLine;                // command line of this pass
    char *bypBuff;                 // the answer, and one byte for a terminator
    unsigned int uiAnswerLen;      // bytes in bypBuff
    FILE *spaPipe[2];              // of the last pass; before it, of the first
    int iPipes;                    // pipes in spaPipe
    sigset_t sOldSet;              // mask to restore
    bool bMasked;                  // sOldSet is filled
    int iNumQueryLines;            // next entry of spQueryResult
    int iRet;                      // result of the call
};

// --- Steps (steps.cpp) ---

// The row of a step; COM_STEP_INIT means the first step of the task. Null if there is no such task.
const COM_STEP *com_FindStep(ENUM_COM_TASK eTask, int iStep);

// --- Command lines (command.cpp, line.cpp) ---

void com_BuildOpenSession(COM_RUN *spRun);
void com_BuildOpenWriteJob(COM_RUN *spRun);
void com_BuildOpenReadJob(COM_RUN *spRun);
void com_BuildCloseJob(COM_RUN *spRun);
void com_BuildCloseSession(COM_RUN *spRun);
void com_BuildQuery(COM_RUN *spRun);

// Begins the line with the path of the utility and a blank, even if no argument follows.
void com_BeginLine(COM_RUN *spRun);

// Appends a text unchanged.
void com_AppendText(COM_LINE *spLine, const char *cpText);

// Appends one argument, quoted for the shell unless all its characters are harmless.
void com_AppendArgument(COM_LINE *spLine, const char *cpFormat, ...)
    __attribute__((format(printf, 2, 3)));

// --- The run (run.cpp, dump.cpp) ---

// Runs the command line and reads the answer. Returns false if it could not be run.
bool com_RunUtility(COM_RUN *spRun);

// Closes the pipes and restores the signal mask.
void com_FinishRun(COM_RUN *spRun);

// Traces an answer as a hex dump with masked passwords.
void com_DumpAnswer(const char *cpAnswer, unsigned int uiLength);

// Where the password in a line of an answer begins; null if there is none.
char *com_FindPassword(char *cpLine);

#endif
