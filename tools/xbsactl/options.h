// The command line: every command, its options and help.
#ifndef XBSACTL_OPTIONS_H
#define XBSACTL_OPTIONS_H

#include <optional>
#include <string>

#include "check/check.h"
#include "explain/explain.h"
#include "report/report.h"
#include "setup/setup.h"
#include "trace/trace.h"
#include "transfer/transfer.h"

struct COMMAND_LINE
{
    std::string strCommand;
    std::string strTrace; // --trace, before it is parsed
    base::CONNECTION sConnection;
    transfer::OPTIONS sTransfer;
    check::OPTIONS sCheck;
    trace::OPTIONS sTrace;
    std::vector<std::string> vecExplained; // by explain
    setup::OPTIONS sSetup;
    report::OPTIONS sReport;
    report::TOP_OPTIONS sTop;
    void (*fpRun)(COMMAND_LINE &) = nullptr;
    int iExit = base::EXIT_DONE; // by fpRun
};

// Returns the exit code when nothing remains to do: after help and after an error.
std::optional<int> ParseOptions(int argc, char **argv, COMMAND_LINE &X_sLine);

// Checks what the parser did not, and returns the exit code. Throws FAILURE.
int RunCommand(COMMAND_LINE &X_sLine);

#endif
