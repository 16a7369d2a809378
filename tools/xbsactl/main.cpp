// xbsactl: stores and restores objects through libxbsa, as a database's backup tool would.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <iostream>
#include <limits>

#include "errors.h"
#include "files.h"
#include "query.h"
#include "settings.h"
#include "stop.h"
#include "transfer.h"

namespace
{
constexpr const char *DESCRIPTION =
    "Stores and restores objects on a KORVA backup server or any FTP server that does active\n"
    "mode, through the library libxbsa and in its strict mode.";

constexpr const char *FOOTER = R"(Password:
  The first line of --password-file, else the variable XBSA_PASSWORD. User and password
  together have at most 52 bytes and no ":".

Informix sessions:
  Server, job and the rest come from the variables KORVA_SERVER, KORVA_JOB (both needed),
  KORVA_TAPE_SERVER, KORVA_DRIVE, KORVA_POOL and KORVA_COM_TIMEOUT. The object is SPACE@NAME.

Exit codes:
  0  done: the server confirmed the whole object, a restored file is on disk
  1  the operation failed or a query found no match; one line on standard error says why
  2  wrong arguments or settings: nothing was sent
  A signal that stops the tool ends it by that signal. A failed or stopped restore leaves what
  was under the target's name as it was; a failed or stopped store is reset, not completed.

Library:
  Without --library: libxbsa.so.1 in ../lib beside the folder of xbsactl, else the search of
  the system's loader (LD_LIBRARY_PATH, ldconfig).

Examples:
  export XBSA_PASSWORD=secret
  xbsactl store dump.sql dump.sql --host backup.example:21 --user backup --path /db
  sqlite3 shop.db .dump | xbsactl store shop.sql --host backup.example --user backup
  xbsactl restore dump.sql /tmp/dump.sql --host backup.example --user backup --path /db
  xbsactl restore shop.sql --host backup.example --user backup | sqlite3 new.db
  xbsactl restore dump.sql /dev/null --host 127.0.0.1:2121 --user backup --trace 2:xbsa.log
  xbsactl --informix store --space rootdbs level0 root.img
  xbsactl --informix query --space rootdbs --json
  xbsactl --informix restore --space rootdbs level0 root.img --copy-id 1164326400)";

void AddServerOptions(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::Option *spInformix =
        I_sApp.add_flag("--informix", I_sSettings.bInformix,
                        "An Informix session: a KORVA server, by way of its COM utility");
    I_sApp.add_option("--host", I_sSettings.strHost, "The server; port 21 when none is given")
        ->type_name("HOST[:PORT]")
        ->excludes(spInformix);
    I_sApp.add_option("--user", I_sSettings.strUser, "Login name")
        ->type_name("U")
        ->excludes(spInformix);
    I_sApp
        .add_option("--password-file", I_sSettings.strPasswordFile,
                    "File whose first line is the password")
        ->type_name("FILE")
        ->excludes(spInformix);
    I_sApp
        .add_option("--path", I_sSettings.strPath,
                    "Folder on the server, \".\" (where the login leads) when none is given")
        ->type_name("DIR")
        ->excludes(spInformix);
    I_sApp.add_option("--space", I_sSettings.strSpace, "Informix: the object's space")
        ->type_name("SPACE")
        ->needs(spInformix);
    I_sApp
        .add_option("--copy-id", I_sSettings.uCopyId,
                    "Informix restore: the copy to take; the newest when none is given")
        ->type_name("N")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned>::max()))
        ->needs(spInformix);
    I_sApp.add_flag("--json", I_sSettings.bJson, "Informix query: JSON in place of a table")
        ->needs(spInformix);
}

void AddGeneralOptions(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    I_sApp.add_option("--library", I_sSettings.strLibrary, "The library to drive, see below")
        ->type_name("PATH");
    I_sApp
        .add_option("--timeout", I_sSettings.uTimeout,
                    "Longest wait for the server's data connection in seconds, 0 = no limit; 300 "
                    "when none is given")
        ->type_name("S")
        ->check(CLI::Range(0, 1000000));
    I_sApp
        .add_option("--trace", I_sSettings.strTrace,
                    "Trace of the library: level 2 tells steps, 3 every call; to standard error "
                    "without FILE. Without the option XBSA_TRACE and XBSA_LOGFILE decide")
        ->type_name("LEVEL[:FILE]");
}

void AddCommands(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    I_sApp.fallthrough(); // the options may stand behind the command too
    I_sApp.require_subcommand(1);
    CLI::App *spStore = I_sApp.add_subcommand("store", "Store FILE or standard input as NAME");
    CLI::App *spRestore =
        I_sApp.add_subcommand("restore", "Restore NAME into FILE or standard output");
    for (CLI::App *spCommand : {spStore, spRestore})
    {
        spCommand->add_option("NAME", I_sSettings.strName, "Name of the object")->required();
        spCommand->add_option("FILE", I_sSettings.strFile,
                              "Local file; \"-\" or none: standard input or output");
        spCommand->footer("All other options: xbsactl --help");
    }
    CLI::App *spQuery =
        I_sApp.add_subcommand("query", "List the newest stored copy of NAME (with --informix)");
    spQuery->add_option("NAME", I_sSettings.strName,
                        "Name of the object, \"%\" and \"_\" are patterns; all when none is given");
    spQuery->footer("All other options: xbsactl --help");
    spStore->callback([&I_sSettings] { I_sSettings.eCommand = COMMAND::STORE; });
    spRestore->callback([&I_sSettings] { I_sSettings.eCommand = COMMAND::RESTORE; });
    spQuery->callback([&I_sSettings] { I_sSettings.eCommand = COMMAND::QUERY; });
}

// Help and version are output too: a full disk or a closed pipe is a failure.
int FinishOutput(int I_iExit)
{
    std::cout.flush();
    if (std::cout && fflush(stdout) == 0) return I_iExit;
    fputs("xbsactl: writing standard output failed\n", stderr);
    return EXIT_FAILED;
}

void Run(SETTINGS &I_sSettings)
{
    settings_Check(I_sSettings);
    if (I_sSettings.eCommand == COMMAND::STORE) transfer_Store(I_sSettings);
    if (I_sSettings.eCommand == COMMAND::RESTORE) transfer_Restore(I_sSettings);
    if (I_sSettings.eCommand == COMMAND::QUERY) query_Run(I_sSettings);
}

int Main(int argc, char **argv)
{
    files_ReserveStandard();
    stop_Watch();

    SETTINGS sSettings;
    CLI::App sApp(DESCRIPTION, "xbsactl");
    sApp.set_version_flag("--version", "xbsactl " XBSACTL_VERSION);
    AddServerOptions(sApp, sSettings);
    AddGeneralOptions(sApp, sSettings);
    AddCommands(sApp, sSettings);
    sApp.footer(FOOTER);
    try
    {
        sApp.parse(argc, argv);
    } catch (const CLI::ParseError &sError)
    {
        return FinishOutput(sApp.exit(sError) == 0 ? EXIT_DONE : EXIT_USAGE);
    }
    Run(sSettings);
    return FinishOutput(EXIT_DONE);
}
} // namespace

int main(int argc, char **argv)
{
    try
    {
        return Main(argc, argv);
    } catch (const USAGE_ERROR &sError)
    {
        fprintf(stderr, "xbsactl: %s (see xbsactl --help)\n", sError.what());
        return EXIT_USAGE;
    } catch (const std::exception &sError)
    {
        fprintf(stderr, "xbsactl: %s\n", sError.what());
        return EXIT_FAILED;
    }
}
