// xbsactl: the library from the command line, and what an administrator needs around it.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>

#include "options.h"

namespace
{
// Help and version are output too: a full disk or a closed pipe is a failure.
int FinishOutput(int I_iExit)
{
    std::cout.flush();
    if (std::cout && fflush(stdout) == 0) return I_iExit;
    fputs("xbsactl: writing standard output failed\n", stderr);
    return base::EXIT_FILE;
}

int Run(COMMAND_LINE &I_sLine)
{
    const transfer::OPTIONS &sTransfer = I_sLine.sTransfer;
    const std::string strName =
        sTransfer.bAll ? "" : transfer::ManifestName(I_sLine.sConnection, sTransfer.sObject);
    transfer::BeginStatus(I_sLine.strCommand, strName, sTransfer.strStatus);
    return RunCommand(I_sLine);
}

// Before the process ends by a signal, or by its time limit.
void Stopped(int I_iExit)
{
    check::Stopped();
    transfer::EndStatus(I_iExit);
}

int Main(int argc, char **argv, COMMAND_LINE &X_sLine)
{
    base::ReserveStandard();
    base::HidePassword(X_sLine.sConnection);
    base::WatchSignals({transfer::PrintStatus, transfer::TickStatus, Stopped});

    const std::optional<int> iExit = ParseOptions(argc, argv, X_sLine);
    return FinishOutput(iExit ? *iExit : Run(X_sLine));
}

// The error, and the hint of the knowledge base. For a monitoring system a wrong option must not
// look like a failed server.
int Report(const std::exception &I_sError, const COMMAND_LINE &I_sLine, bool I_bNagios)
{
    const auto *spFailure = dynamic_cast<const base::FAILURE *>(&I_sError);
    const int iExit = spFailure != nullptr ? spFailure->iExit : base::EXIT_FAILED;
    const std::string strText = base::Printable(I_sError.what());
    const bool bUsage = iExit == base::EXIT_USAGE;
    const bool bFailure = !bUsage && iExit != base::EXIT_NO_MATCH;
    const std::string strHint =
        bFailure ? explain::Advice(strText, I_sLine.sConnection.bInformix).strHint : "";
    const std::string strSee = " (see xbsactl " + I_sLine.strCommand +
                               (I_sLine.strCommand.empty() ? "--help)" : " --help)");
    fprintf(stderr, "xbsactl: %s%s\n", strText.c_str(), bUsage ? strSee.c_str() : "");
    if (!strHint.empty()) fprintf(stderr, "hint: %s\n", base::Printable(strHint).c_str());
    return I_bNagios ? check::NagiosUnknown(strText) : iExit;
}

int ExitCode(int argc, char **argv)
{
    COMMAND_LINE sLine;
    try
    {
        return Main(argc, argv, sLine);
    } catch (const std::exception &sError)
    {
        const bool bNagios = std::find(argv, argv + argc, std::string("--nagios")) != argv + argc;
        return Report(sError, sLine, bNagios);
    }
}
} // namespace

int main(int argc, char **argv)
{
    const int iExit = ExitCode(argc, argv);
    base::HoldStop().release(); // no signal may contradict the status file from here on
    transfer::EndStatus(iExit);
    return iExit;
}
