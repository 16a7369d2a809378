#include "options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "base/base.h"

namespace
{
constexpr const char *DESCRIPTION =
    "Stores and restores objects on a KORVA backup server or any FTP server that does active\n"
    "mode, through the library libxbsa and in its strict mode; sets the library up, checks the\n"
    "way to the server, and explains what went wrong.";

constexpr const char *FOOTER = R"(Password:
  The first line of --password-file, else the variable XBSA_PASSWORD. User and password
  together have at most 52 bytes and no ":".

Informix sessions:
  Server, job and the rest come from the variables KORVA_SERVER, KORVA_JOB (both needed),
  KORVA_TAPE_SERVER, KORVA_DRIVE, KORVA_POOL and KORVA_COM_TIMEOUT. The object is SPACE@NAME.

Exit codes:
  0  done: the server confirmed the whole object, a restored file is on disk
  1  the operation failed, a query found no match, an object does not verify, a check failed or
     a question was answered with no; the output says why
  2  wrong arguments or settings: nothing was sent
  A signal that stops the tool ends it by that signal. A failed or stopped restore leaves what
  was under the target's name as it was; a failed or stopped store is reset, not completed.

Signals:
  SIGUSR1 prints a line about the progress to standard error, and ends nothing.

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
  xbsactl store dump.sql dump.sql --manifest sums --verify --host 127.0.0.1 --user backup
  xbsactl verify --all --manifest sums --host 127.0.0.1 --user backup
  xbsactl --informix store --space rootdbs level0 root.img
  xbsactl --informix query --space rootdbs --json
  xbsactl --informix restore --space rootdbs level0 root.img --copy-id 1164326400)";

// An empty text would pass for an option that is not there.
CLI::Validator NotEmpty()
{
    return {[](const std::string &I_strText) -> std::string {
                return I_strText.empty() ? "the text is empty" : "";
            },
            ""};
}

void AddServerOptions(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::Option *spInformix =
        I_sApp.add_flag("--informix", X_sLine.sConnection.bInformix,
                        "An Informix session: a KORVA server, by way of its COM utility");
    I_sApp
        .add_option("--host", X_sLine.sConnection.strHost, "The server; port 21 when none is given")
        ->type_name("HOST[:PORT]")
        ->excludes(spInformix);
    I_sApp.add_option("--user", X_sLine.sConnection.strUser, "Login name")
        ->type_name("U")
        ->excludes(spInformix);
    I_sApp
        .add_option("--password-file", X_sLine.sConnection.strPasswordFile,
                    "File whose first line is the password")
        ->type_name("FILE")
        ->excludes(spInformix);
    I_sApp
        .add_option("--path", X_sLine.sConnection.strPath,
                    "Folder on the server, \".\" (where the login leads) when none is given")
        ->type_name("DIR")
        ->excludes(spInformix);
    I_sApp
        .add_option("--space", X_sLine.sTransfer.sObject.strSpace, "Informix: the object's space")
        ->type_name("SPACE")
        ->needs(spInformix);
    I_sApp
        .add_option(
            "--copy-id", X_sLine.sTransfer.sObject.uCopyId,
            "Informix restore: the copy to take, the newest when none is given; verify: the "
            "one of the manifest")
        ->type_name("N")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned>::max()))
        ->needs(spInformix);
}

void AddGeneralOptions(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    I_sApp
        .add_option("--library", X_sLine.sConnection.strLibrary, "The library to drive, see below")
        ->type_name("PATH");
    I_sApp
        .add_option("--timeout", X_sLine.sConnection.uTimeout,
                    "Longest wait for the server's data connection in seconds, 0 = no limit; 300 "
                    "when none is given")
        ->type_name("S")
        ->check(CLI::Range(0, 1000000));
    I_sApp
        .add_option("--trace", X_sLine.strTrace,
                    "Trace of the library: level 2 tells steps, 3 every call; to standard error "
                    "without FILE. Without the option XBSA_TRACE and XBSA_LOGFILE decide")
        ->type_name("LEVEL[:FILE]");
}

using CHECK = decltype(COMMAND_LINE::fpCheck);
using RUN = decltype(COMMAND_LINE::fpRun);

void AddCommand(CLI::App &I_sCommand, COMMAND_LINE &X_sLine, const CHECK &I_fpCheck,
                const RUN &I_fpRun)
{
    I_sCommand.callback([&, I_fpCheck, I_fpRun] {
        X_sLine.strCommand = I_sCommand.get_name();
        X_sLine.fpCheck = I_fpCheck;
        X_sLine.fpRun = I_fpRun;
    });
    I_sCommand.footer("All other options: xbsactl --help");
}

// What a command needs that moves objects.
void CheckTransfer(COMMAND_LINE &X_sLine)
{
    if (!X_sLine.sTransfer.bAll)
        library::CheckObject(X_sLine.sConnection, X_sLine.sTransfer.sObject);
    if (X_sLine.sConnection.bInformix) base::CheckVariables();
    else base::CheckPlain(X_sLine.sConnection);
}

using TRANSFER = void (*)(const base::CONNECTION &, const transfer::OPTIONS &);

RUN Transfer(TRANSFER I_fpTransfer)
{
    return [I_fpTransfer](const COMMAND_LINE &I_sLine) {
        I_fpTransfer(I_sLine.sConnection, I_sLine.sTransfer);
        return base::EXIT_DONE;
    };
}

void AddJson(CLI::App &I_sCommand, bool &X_bJson)
{
    I_sCommand.add_flag("--json", X_bJson, "JSON in place of a table");
}

void AddManifest(CLI::App &I_sCommand, COMMAND_LINE &X_sLine)
{
    I_sCommand
        .add_option("--manifest", X_sLine.sTransfer.strManifest,
                    "File that keeps the SHA-256 of what was stored, in the format of sha256sum")
        ->type_name("FILE")
        ->check(NotEmpty());
}

void AddStatus(CLI::App &I_sCommand, COMMAND_LINE &X_sLine)
{
    I_sCommand
        .add_option("--status", X_sLine.sTransfer.strStatus,
                    "File that tells progress and result in the Prometheus text format")
        ->type_name("FILE")
        ->check(NotEmpty());
}

void AddTransfers(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spStore = I_sApp.add_subcommand("store", "Store FILE or standard input as NAME");
    CLI::App *spRestore =
        I_sApp.add_subcommand("restore", "Restore NAME into FILE or standard output");
    for (CLI::App *spCommand : {spStore, spRestore})
    {
        spCommand->add_option("NAME", X_sLine.sTransfer.sObject.strName, "Name of the object")
            ->required();
        spCommand->add_option("FILE", X_sLine.sTransfer.strFile,
                              "Local file; \"-\" or none: standard input or output");
        AddStatus(*spCommand, X_sLine);
    }
    spStore->add_flag("--verify", X_sLine.sTransfer.bVerify, "Read the object back and compare");
    AddManifest(*spStore, X_sLine);
    AddCommand(*spStore, X_sLine, CheckTransfer, Transfer(transfer::Store));
    AddCommand(*spRestore, X_sLine, CheckTransfer, Transfer(transfer::Restore));
}

void AddQuery(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spQuery =
        I_sApp.add_subcommand("query", "List the newest stored copy of NAME (with --informix)");
    spQuery->add_option("NAME", X_sLine.sTransfer.sObject.strName,
                        "Name of the object, \"%\" and \"_\" are patterns; all when none is given");
    AddJson(*spQuery, X_sLine.sTransfer.bJson);
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        transfer::CheckQuery(sLine.sConnection, sLine.sTransfer);
        CheckTransfer(sLine);
    };
    AddCommand(*spQuery, X_sLine, fpCheck, Transfer(transfer::Query));
}

void AddVerify(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spVerify = I_sApp.add_subcommand(
        "verify", "Read NAME back and compare it with the manifest; nothing is written");
    CLI::Option *spName =
        spVerify->add_option("NAME", X_sLine.sTransfer.sObject.strName, "Name of the object");
    spVerify->add_flag("--all", X_sLine.sTransfer.bAll, "Every object of the manifest")
        ->excludes(spName);
    AddManifest(*spVerify, X_sLine);
    AddStatus(*spVerify, X_sLine);
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        transfer::CheckVerify(sLine.sTransfer);
        CheckTransfer(sLine);
    };
    AddCommand(*spVerify, X_sLine, fpCheck, Transfer(transfer::Verify));
}

void AddCheck(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spCheck =
        I_sApp.add_subcommand("check", "Test the whole way to the server, step by step");
    spCheck
        ->add_option("--informixdir", X_sLine.sCheck.strInformixDir,
                     "Look at the database's set-up in this folder too")
        ->type_name("DIR");
    spCheck
        ->add_option("--onconfig", X_sLine.sCheck.strOnconfig,
                     "Name of its configuration file in DIR/etc (default: the variable ONCONFIG, "
                     "else \"onconfig\")")
        ->type_name("NAME");
    spCheck->add_flag("--nagios", X_sLine.sCheck.bNagios,
                      "Print one line and end with 0, 1, 2 or 3 as monitoring plug-ins do");
    AddJson(*spCheck, X_sLine.sCheck.bJson);
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        if (!sLine.sTransfer.sObject.strSpace.empty())
            throw base::USAGE_ERROR("--space is not for check");
        if (!sLine.sConnection.bInformix) base::CheckPreflight(sLine.sConnection);
    };
    AddCommand(*spCheck, X_sLine, fpCheck, [](const COMMAND_LINE &sLine) {
        return check::Run(sLine.sConnection, sLine.sCheck);
    });
}

void AddTrace(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spTrace =
        I_sApp.add_subcommand("trace", "Summarise the sessions in a trace log, and their errors");
    spTrace->add_option("FILE", X_sLine.sTrace.strFile, "The log; \"-\": standard input")
        ->required();
    spTrace
        ->add_option("--since", X_sLine.sTrace.strSince, "Sessions from this moment of the log on")
        ->type_name("TIME");
    spTrace->add_option("--handle", X_sLine.sTrace.lHandle, "Sessions of this handle alone")
        ->type_name("N")
        ->check(CLI::Range(1L, std::numeric_limits<long>::max()));
    spTrace->add_option("--html", X_sLine.sTrace.strHtml, "Write a page with a timeline, too")
        ->type_name("OUT");
    spTrace
        ->add_option("--bar-act-log", X_sLine.sTrace.strActLog,
                     "Put the messages of the database's activity log beside it")
        ->type_name("FILE");
    AddJson(*spTrace, X_sLine.sTrace.bJson);
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        if (sLine.sTrace.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
    };
    AddCommand(*spTrace, X_sLine, fpCheck, [](const COMMAND_LINE &sLine) {
        trace::Run(sLine.sTrace);
        return base::EXIT_DONE;
    });
}

void AddExplain(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spExplain =
        I_sApp.add_subcommand("explain", "Explain a return code or a message; all without TEXT");
    spExplain->add_option("TEXT", X_sLine.sExplain.vecTexts, "The code, or (part of) the message");
    spExplain->add_flag("--markdown", X_sLine.sExplain.bMarkdown, "As a page of the documentation");
    AddCommand(
        *spExplain, X_sLine, [](COMMAND_LINE &) {},
        [](const COMMAND_LINE &sLine) {
            explain::Run(sLine.sExplain);
            return base::EXIT_DONE;
        });
}

void AddSetup(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App *spSetup =
        I_sApp.add_subcommand("setup", "Hook the library into a database server, or unhook it");
    spSetup->add_option("--informixdir", X_sLine.sSetup.strInformixDir, "The database's folder")
        ->type_name("DIR")
        ->required();
    spSetup
        ->add_option("--onconfig", X_sLine.sSetup.strOnconfig,
                     "Name of the file in DIR/etc; the variable ONCONFIG, else \"onconfig\"")
        ->type_name("NAME");
    CLI::Option *spRotation = spSetup->add_flag("--logrotate", X_sLine.sSetup.bLogrotate,
                                                "Print the rotation of the logs, and end");
    spSetup->add_flag("--dry-run", X_sLine.sSetup.bDryRun, "Print what would change, and end");
    spSetup->add_flag("--yes", X_sLine.sSetup.bYes, "Do not ask");
    spSetup->add_flag("--undo", X_sLine.sSetup.bUndo, "Put back what an earlier run changed")
        ->excludes(spRotation);
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        sLine.sSetup.strLibrary = sLine.sConnection.strLibrary;
    };
    AddCommand(*spSetup, X_sLine, fpCheck,
               [](const COMMAND_LINE &sLine) { return setup::Run(sLine.sSetup); });
}

void AddAll(CLI::App &I_sApp, COMMAND_LINE &X_sLine)
{
    I_sApp.description(DESCRIPTION);
    I_sApp.footer(FOOTER);
    I_sApp.set_version_flag("--version", "xbsactl " XBSACTL_VERSION);
    I_sApp.fallthrough();            // the options may stand behind the command too
    I_sApp.require_subcommand(0, 1); // with 1, a misspelt command would pass for none
    I_sApp.failure_message([](const CLI::App *, const CLI::Error &sError) {
        return "xbsactl: " + base::Printable(sError.what()) + " (see xbsactl --help)\n";
    });
    AddServerOptions(I_sApp, X_sLine);
    AddGeneralOptions(I_sApp, X_sLine);
    AddTransfers(I_sApp, X_sLine);
    AddQuery(I_sApp, X_sLine);
    AddVerify(I_sApp, X_sLine);
    AddCheck(I_sApp, X_sLine);
    AddTrace(I_sApp, X_sLine);
    AddExplain(I_sApp, X_sLine);
    AddSetup(I_sApp, X_sLine);
}

// Nobody should see it twice: the message does not repeat it.
void RefusePassword(int argc, char **argv)
{
    for (int iArgument = 1; iArgument < argc; iArgument++)
    {
        const std::string strArgument = argv[iArgument];
        if (strArgument == "--") return;
        const std::string strOption = strArgument.substr(0, strArgument.find('='));
        if (strOption.compare(0, 6, "--pass") == 0 && strOption != "--password-file")
            throw base::USAGE_ERROR("a password is never an argument, which every account of this "
                                    "machine can read: set XBSA_PASSWORD or give --password-file");
    }
}
} // namespace

std::optional<int> ParseOptions(int argc, char **argv, COMMAND_LINE &X_sLine)
{
    RefusePassword(argc, argv);
    CLI::App sApp("", "xbsactl");
    AddAll(sApp, X_sLine);
    try
    {
        sApp.parse(argc, argv);
    } catch (const CLI::ParseError &sError)
    {
        return sApp.exit(sError) == 0 ? base::EXIT_DONE : base::EXIT_USAGE;
    }
    if (sApp.get_subcommands().empty()) throw base::USAGE_ERROR("no command is given");
    return {};
}

void CheckOptions(COMMAND_LINE &X_sLine)
{
    if (X_sLine.sTransfer.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
    if (X_sLine.sTransfer.sObject.uCopyId != 0 && X_sLine.strCommand != "restore" &&
        X_sLine.strCommand != "verify")
        throw base::USAGE_ERROR("--copy-id is for restore and verify only");
    base::TakeTrace(X_sLine.sConnection, X_sLine.strTrace);
    X_sLine.fpCheck(X_sLine);
}
