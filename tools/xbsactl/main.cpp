// xbsactl: the library from the command line, and what an administrator needs around it.
#include <cstdio>
#include <exception>
#include <iostream>

#include "base/base.h"
#include "options.h"

namespace
{
// Help and version are output too: a full disk or a closed pipe is a failure.
int FinishOutput(int I_iExit)
{
    std::cout.flush();
    if (std::cout && fflush(stdout) == 0) return I_iExit;
    fputs("xbsactl: writing standard output failed\n", stderr);
    return base::EXIT_FAILED;
}

int Run(COMMAND_LINE &I_sLine)
{
    const transfer::OPTIONS &sTransfer = I_sLine.sTransfer;
    const std::string strName =
        sTransfer.bAll ? "" : transfer::ManifestName(I_sLine.sConnection, sTransfer.sObject);
    transfer::BeginStatus(I_sLine.strCommand, strName, sTransfer.strStatus);
    CheckOptions(I_sLine);
    return I_sLine.fpRun(I_sLine);
}

// Before the process ends by a signal.
void Stopped(int I_iExit)
{
    check::Stopped();
    transfer::EndStatus(I_iExit);
}

int Main(int argc, char **argv)
{
    base::ReserveStandard();
    COMMAND_LINE sLine;
    base::HidePassword(sLine.sConnection);
    base::WatchSignals({transfer::PrintStatus, transfer::TickStatus, Stopped});

    const std::optional<int> iExit = ParseOptions(argc, argv, sLine);
    return FinishOutput(iExit ? *iExit : Run(sLine));
}

int ExitCode(int argc, char **argv)
{
    try
    {
        return Main(argc, argv);
    } catch (const base::USAGE_ERROR &sError)
    {
        fprintf(stderr, "xbsactl: %s (see xbsactl --help)\n",
                base::Printable(sError.what()).c_str());
        return base::EXIT_USAGE;
    } catch (const std::exception &sError)
    {
        fprintf(stderr, "xbsactl: %s\n", base::Printable(sError.what()).c_str());
        return base::EXIT_FAILED;
    }
}
} // namespace

int main(int argc, char **argv)
{
    const int iExit = ExitCode(argc, argv);
    base::HoldSignals(); // what the status file says is how the process ends
    transfer::EndStatus(iExit);
    return iExit;
}
