#include "options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "base/errors.h"

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
        .add_option(
            "--copy-id", I_sSettings.uCopyId,
            "Informix restore: the copy to take, the newest when none is given; verify: the "
            "one of the manifest")
        ->type_name("N")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned>::max()))
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

void AddCommand(CLI::App &I_sCommand, SETTINGS &I_sSettings, COMMAND I_eCommand)
{
    I_sCommand.callback([&I_sSettings, I_eCommand] { I_sSettings.eCommand = I_eCommand; });
    I_sCommand.footer("All other options: xbsactl --help");
}

void AddJson(CLI::App &I_sCommand, SETTINGS &I_sSettings)
{
    I_sCommand.add_flag("--json", I_sSettings.bJson, "JSON in place of a table");
}

void AddManifest(CLI::App &I_sCommand, SETTINGS &I_sSettings)
{
    I_sCommand
        .add_option("--manifest", I_sSettings.strManifest,
                    "File that keeps the SHA-256 of what was stored, in the format of sha256sum")
        ->type_name("FILE")
        ->check(NotEmpty());
}

void AddStatus(CLI::App &I_sCommand, SETTINGS &I_sSettings)
{
    I_sCommand
        .add_option("--status", I_sSettings.strStatus,
                    "File that tells progress and result in the Prometheus text format")
        ->type_name("FILE")
        ->check(NotEmpty());
}

void AddTransfers(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spStore = I_sApp.add_subcommand("store", "Store FILE or standard input as NAME");
    CLI::App *spRestore =
        I_sApp.add_subcommand("restore", "Restore NAME into FILE or standard output");
    for (CLI::App *spCommand : {spStore, spRestore})
    {
        spCommand->add_option("NAME", I_sSettings.strName, "Name of the object")->required();
        spCommand->add_option("FILE", I_sSettings.strFile,
                              "Local file; \"-\" or none: standard input or output");
        AddStatus(*spCommand, I_sSettings);
    }
    spStore->add_flag("--verify", I_sSettings.bVerify, "Read the object back and compare");
    AddManifest(*spStore, I_sSettings);
    AddCommand(*spStore, I_sSettings, COMMAND::STORE);
    AddCommand(*spRestore, I_sSettings, COMMAND::RESTORE);
}

void AddQuery(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spQuery =
        I_sApp.add_subcommand("query", "List the newest stored copy of NAME (with --informix)");
    spQuery->add_option("NAME", I_sSettings.strName,
                        "Name of the object, \"%\" and \"_\" are patterns; all when none is given");
    AddJson(*spQuery, I_sSettings);
    AddCommand(*spQuery, I_sSettings, COMMAND::QUERY);
}

void AddVerify(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spVerify = I_sApp.add_subcommand(
        "verify", "Read NAME back and compare it with the manifest; nothing is written");
    CLI::Option *spName = spVerify->add_option("NAME", I_sSettings.strName, "Name of the object");
    spVerify->add_flag("--all", I_sSettings.bAll, "Every object of the manifest")->excludes(spName);
    AddManifest(*spVerify, I_sSettings);
    AddStatus(*spVerify, I_sSettings);
    AddCommand(*spVerify, I_sSettings, COMMAND::VERIFY);
}

void AddCheck(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spCheck =
        I_sApp.add_subcommand("check", "Test the whole way to the server, step by step");
    spCheck
        ->add_option("--informixdir", I_sSettings.strInformixDir,
                     "Look at the database's set-up in this folder too")
        ->type_name("DIR");
    AddJson(*spCheck, I_sSettings);
    AddCommand(*spCheck, I_sSettings, COMMAND::CHECK);
}

void AddTrace(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spTrace =
        I_sApp.add_subcommand("trace", "Tell the sessions of a trace log, and their errors");
    spTrace->add_option("FILE", I_sSettings.strFile, "The log; \"-\": standard input")->required();
    spTrace->add_option("--since", I_sSettings.strSince, "Sessions from this moment of the log on")
        ->type_name("TIME");
    spTrace->add_option("--handle", I_sSettings.lHandle, "Sessions of this handle alone")
        ->type_name("N")
        ->check(CLI::Range(1L, std::numeric_limits<long>::max()));
    spTrace->add_option("--html", I_sSettings.strHtml, "Write a page with a timeline, too")
        ->type_name("OUT");
    spTrace
        ->add_option("--bar-act-log", I_sSettings.strActLog,
                     "Put the messages of the database's activity log beside it")
        ->type_name("FILE");
    AddCommand(*spTrace, I_sSettings, COMMAND::TRACE);
}

void AddExplain(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spExplain =
        I_sApp.add_subcommand("explain", "Explain a return code or a message; all without TEXT");
    spExplain->add_option("TEXT", I_sSettings.vecTexts, "The code, or (part of) the message");
    spExplain->add_flag("--markdown", I_sSettings.bMarkdown, "As a page of the documentation");
    AddCommand(*spExplain, I_sSettings, COMMAND::EXPLAIN);
}

void AddSetup(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    CLI::App *spSetup =
        I_sApp.add_subcommand("setup", "Hook the library into a database server, or unhook it");
    spSetup->add_option("--informixdir", I_sSettings.strInformixDir, "The database's folder")
        ->type_name("DIR")
        ->required();
    spSetup
        ->add_option("--onconfig", I_sSettings.strOnconfig,
                     "Name of the file in DIR/etc; the variable ONCONFIG, else \"onconfig\"")
        ->type_name("NAME");
    CLI::Option *spRotation = spSetup->add_flag("--logrotate", I_sSettings.bLogrotate,
                                                "Print the rotation of the logs, and end");
    spSetup->add_flag("--dry-run", I_sSettings.bDryRun, "Print what would change, and end");
    spSetup->add_flag("--yes", I_sSettings.bYes, "Do not ask");
    spSetup->add_flag("--undo", I_sSettings.bUndo, "Put back what an earlier run changed")
        ->excludes(spRotation);
    AddCommand(*spSetup, I_sSettings, COMMAND::SETUP);
}

void AddAll(CLI::App &I_sApp, SETTINGS &I_sSettings)
{
    I_sApp.description(DESCRIPTION);
    I_sApp.footer(FOOTER);
    I_sApp.set_version_flag("--version", "xbsactl " XBSACTL_VERSION);
    I_sApp.fallthrough();            // the options may stand behind the command too
    I_sApp.require_subcommand(0, 1); // with 1, a misspelt command would pass for none
    I_sApp.failure_message([](const CLI::App *, const CLI::Error &sError) {
        return "xbsactl: " + Printable(sError.what()) + " (see xbsactl --help)\n";
    });
    AddServerOptions(I_sApp, I_sSettings);
    AddGeneralOptions(I_sApp, I_sSettings);
    AddTransfers(I_sApp, I_sSettings);
    AddQuery(I_sApp, I_sSettings);
    AddVerify(I_sApp, I_sSettings);
    AddCheck(I_sApp, I_sSettings);
    AddTrace(I_sApp, I_sSettings);
    AddExplain(I_sApp, I_sSettings);
    AddSetup(I_sApp, I_sSettings);
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
            throw USAGE_ERROR("a password is never an argument, which every account of this "
                              "machine can read: set XBSA_PASSWORD or give --password-file");
    }
}
} // namespace

std::optional<int> options_Parse(int argc, char **argv, SETTINGS &I_sSettings)
{
    RefusePassword(argc, argv);
    CLI::App sApp("", "xbsactl");
    AddAll(sApp, I_sSettings);
    try
    {
        sApp.parse(argc, argv);
    } catch (const CLI::ParseError &sError)
    {
        return sApp.exit(sError) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (sApp.get_subcommands().empty()) throw USAGE_ERROR("no command is given");
    return {};
}
