// The command line: every command, its options and help.
#ifndef XBSACTL_OPTIONS_H
#define XBSACTL_OPTIONS_H

#include <functional>
#include <optional>
#include <string>

#include "check/check.h"
#include "explain/explain.h"
#include "setup/setup.h"
#include "trace/trace.h"
#include "transfer/transfer.h"

struct COMMAND_LINE
{
    std::string strCommand;
    std::string strTrace; // --trace, before it is taken apart
    base::CONNECTION sConnection;
    transfer::OPTIONS sTransfer;
    check::OPTIONS sCheck;
    trace::OPTIONS sTrace;
    explain::OPTIONS sExplain;
    setup::OPTIONS sSetup;
    std::function<void(COMMAND_LINE &)> fpCheck; // what the parser did not; throws USAGE_ERROR
    std::function<int(const COMMAND_LINE &)> fpRun;
};

// Returns the exit code when nothing is left to do, after help and after an error.
std::optional<int> ParseOptions(int argc, char **argv, COMMAND_LINE &X_sLine);

// Checks all that the parser did not. Throws USAGE_ERROR, or FAILURE for the password file.
void CheckOptions(COMMAND_LINE &X_sLine);

#endif
