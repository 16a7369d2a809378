// xbsactl: the library from the command line, and what an administrator needs around it.
#include <cstdio>
#include <exception>
#include <iostream>

#include "base/errors.h"
#include "base/files.h"
#include "base/settings.h"
#include "base/stop.h"
#include "check/check.h"
#include "explain/explain.h"
#include "options.h"
#include "setup/setup.h"
#include "trace/trace.h"
#include "transfer/query.h"
#include "transfer/status.h"
#include "transfer/transfer.h"
#include "transfer/verify.h"

namespace
{
// Help and version are output too: a full disk or a closed pipe is a failure.
int FinishOutput(int I_iExit)
{
    std::cout.flush();
    if (std::cout && fflush(stdout) == 0) return I_iExit;
    fputs("xbsactl: writing standard output failed\n", stderr);
    return EXIT_FAILED;
}

int Run(SETTINGS &I_sSettings)
{
    status_Begin(I_sSettings);
    settings_Check(I_sSettings);
    switch (I_sSettings.eCommand)
    {
    case COMMAND::STORE:
        transfer_Store(I_sSettings);
        break;
    case COMMAND::RESTORE:
        transfer_Restore(I_sSettings);
        break;
    case COMMAND::QUERY:
        query_Run(I_sSettings);
        break;
    case COMMAND::VERIFY:
        return verify_Run(I_sSettings);
    case COMMAND::CHECK:
        return check_Run(I_sSettings);
    case COMMAND::TRACE:
        tracelog_Run(I_sSettings);
        break;
    case COMMAND::EXPLAIN:
        explain_Run(I_sSettings);
        break;
    case COMMAND::SETUP:
        return setup_Run(I_sSettings);
    }
    return EXIT_DONE;
}

// Before the process ends by a signal.
void Stopped(int I_iExit)
{
    check_Stopped();
    status_End(I_iExit);
}

int Main(int argc, char **argv)
{
    files_ReserveStandard();
    SETTINGS sSettings;
    settings_HidePassword(sSettings);
    stop_Watch({status_Print, status_Tick, Stopped});

    const std::optional<int> iExit = options_Parse(argc, argv, sSettings);
    return FinishOutput(iExit ? *iExit : Run(sSettings));
}

int ExitCode(int argc, char **argv)
{
    try
    {
        return Main(argc, argv);
    } catch (const USAGE_ERROR &sError)
    {
        fprintf(stderr, "xbsactl: %s (see xbsactl --help)\n", Printable(sError.what()).c_str());
        return EXIT_USAGE;
    } catch (const std::exception &sError)
    {
        fprintf(stderr, "xbsactl: %s\n", Printable(sError.what()).c_str());
        return EXIT_FAILED;
    }
}
} // namespace

int main(int argc, char **argv)
{
    const int iExit = ExitCode(argc, argv);
    stop_Never(); // what the status file says is how the process ends
    status_End(iExit);
    return iExit;
}
