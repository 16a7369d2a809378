#include "options.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <sstream>
#include <variant>

namespace
{
constexpr const char *DESCRIPTION =
    "Stores and restores objects on a KORVA backup server or any FTP server that supports active\n"
    "mode, through the library libxbsa in its strict mode; sets the library up, checks the whole\n"
    "path to the server, and explains what went wrong.";

constexpr const char *FOOTER = R"(Password:
  The first line of --password-file, else the variable XBSA_PASSWORD. User and password
  together have at most 52 bytes and no ":".

Settings that stay the same:
  --config FILE, or the variable XBSACTL_CONFIG, names a file with lines such as
  host="backup.example"; options of a command follow a line such as [store]. The variables
  XBSACTL_HOST, XBSACTL_USER, XBSACTL_PASSWORD_FILE, XBSACTL_PATH, XBSACTL_TIMEOUT,
  XBSACTL_LIBRARY, XBSACTL_MANIFEST and XBSACTL_STATUS stand for the options of those names.
  The command line comes before the file, the file before the variables.

Informix sessions:
  Server, job and the rest come from the variables KORVA_SERVER, KORVA_JOB (both needed),
  KORVA_TAPE_SERVER, KORVA_DRIVE, KORVA_POOL and KORVA_COM_TIMEOUT. The object is SPACE@NAME.

Exit codes:
  0  done: the server confirmed the whole object, a restored file is on disk
  1  failed otherwise: an object does not verify, a check failed, the user declined a prompt
  2  wrong arguments or settings: nothing was sent
  3  no match: the server or the manifest has no such object
  4  the server failed or refused, or could not be reached
  5  the COM utility failed or refused, or was not found
  6  a file of this host: input, target, manifest, status, password file, library
  A signal that stops the tool ends it by that signal. A failed or stopped restore leaves what
  was under the target's name as it was; a failed or stopped store is reset, not completed.
  check --nagios ends with 0 (OK), 1 (warning), 2 (critical) or 3 (unknown).

Signals:
  SIGUSR1 prints a line about the progress to standard error, and ends nothing.

Library:
  Without --library: libxbsa.so.1 in ../lib beside the folder of xbsactl, else the search of
  the system's loader (LD_LIBRARY_PATH, ldconfig).

Examples:
  export XBSA_PASSWORD=secret
  xbsactl store dump.sql dump.sql --host backup.example:21 --user dba --path db
  sqlite3 shop.db .dump | xbsactl store shop.sql --host backup.example --user dba
  xbsactl restore dump.sql /tmp/dump.sql --host backup.example --user dba --path db
  xbsactl restore shop.sql --host backup.example --user dba | sqlite3 new.db
  xbsactl restore dump.sql /dev/null --host 127.0.0.1:2121 --user dba --trace 2:xbsa.log
  xbsactl store dump.sql dump.sql --manifest sums --verify --host 127.0.0.1 --user dba
  xbsactl verify --all --manifest sums --host 127.0.0.1 --user dba
  xbsactl --informix store --space rootdbs level0 root.img
  xbsactl --informix query --space rootdbs --json
  xbsactl --informix restore --space rootdbs level0 root.img --copy-id 1164326400)";

using CHECK = decltype(COMMAND_LINE::fpCheck);
using RUN = decltype(COMMAND_LINE::fpRun);
using TRANSFER = void (*)(const base::CONNECTION &, const transfer::OPTIONS &);
using PREPARE = void (*)(const base::CONNECTION &, transfer::OPTIONS &);

struct COMMAND
{
    const char *cpName;
    const char *cpHelp;
    CHECK fpCheck;
    RUN fpRun;
};

// A command that moves objects or lists them. I_fpPrepare checks what belongs to it alone.
COMMAND Transfer(const char *cpName, const char *cpHelp, TRANSFER I_fpRun, PREPARE I_fpPrepare)
{
    const CHECK fpCheck = [I_fpPrepare](COMMAND_LINE &sLine) {
        if (I_fpPrepare != nullptr) I_fpPrepare(sLine.sConnection, sLine.sTransfer);
        if (sLine.sTransfer.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
        if (!sLine.sTransfer.bAll) library::CheckObject(sLine.sConnection, sLine.sTransfer.sObject);
        if (sLine.sConnection.bInformix) base::CheckVariables();
        else base::CheckPlain(sLine.sConnection);
    };
    const RUN fpRun = [I_fpRun](const COMMAND_LINE &sLine) {
        I_fpRun(sLine.sConnection, sLine.sTransfer);
        return base::EXIT_DONE;
    };
    return {cpName, cpHelp, fpCheck, fpRun};
}

void CheckCheck(COMMAND_LINE &X_sLine)
{
    if (!X_sLine.sTransfer.sObject.strSpace.empty())
        throw base::USAGE_ERROR("--space is not for check");
    if (!X_sLine.sConnection.bInformix) base::CheckPreflight(X_sLine.sConnection);
}

std::vector<COMMAND> Commands()
{
    return {Transfer("store", "Store FILE or standard input as NAME", transfer::Store, nullptr),
            Transfer("restore", "Restore NAME into FILE or standard output", transfer::Restore,
                     transfer::CheckRestore),
            Transfer("query", "List the newest stored copy of NAME (with --informix)",
                     transfer::Query, transfer::CheckQuery),
            Transfer("verify", "Read NAME back and compare it with the manifest; write nothing",
                     transfer::Verify, transfer::CheckVerify),
            {"check", "Test the whole path to the server, step by step", CheckCheck,
             [](const COMMAND_LINE &sLine) { return check::Run(sLine.sConnection, sLine.sCheck); }},
            {"trace", "Summarise the sessions in a trace log, and their errors",
             [](COMMAND_LINE &sLine) {
                 if (sLine.sTrace.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
             },
             [](const COMMAND_LINE &sLine) {
                 trace::Run(sLine.sTrace);
                 return base::EXIT_DONE;
             }},
            {"explain", "Explain a return code or a message; all without TEXT",
             [](COMMAND_LINE &) {},
             [](const COMMAND_LINE &sLine) {
                 explain::Run(sLine.sExplain);
                 return base::EXIT_DONE;
             }},
            {"setup", "Hook the library into a database server, or unhook it",
             [](COMMAND_LINE &sLine) { sLine.sSetup.strLibrary = sLine.sConnection.strLibrary; },
             [](const COMMAND_LINE &sLine) { return setup::Run(sLine.sSetup); }}};
}

struct OPTION
{
    const char *cpCommands; // that have it; "" for all
    const char *cpName;
    const char *cpType; // what it takes; "" for a flag or a positional argument
    std::variant<bool *, std::string *, unsigned *, long *, std::vector<std::string> *> sValue;
    const char *cpHelp;
    const char *cpVariable = ""; // that stands for it
};

std::vector<OPTION> Options(COMMAND_LINE &X_sLine)
{
    base::CONNECTION &sConnection = X_sLine.sConnection;
    transfer::OPTIONS &sTransfer = X_sLine.sTransfer;
    check::OPTIONS &sCheck = X_sLine.sCheck;
    trace::OPTIONS &sTrace = X_sLine.sTrace;
    setup::OPTIONS &sSetup = X_sLine.sSetup;
    const char *cpOnconfig =
        "Name its configuration file in DIR/etc (default: ONCONFIG, else \"onconfig\")";
    const char *cpJson = "Print JSON instead of text";
    return {
        {"", "--informix", "", &sConnection.bInformix,
         "Open an Informix session: a KORVA server, over its COM utility"},
        {"", "--host", "HOST[:PORT]", &sConnection.strHost, "Name the server (default port: 21)",
         "XBSACTL_HOST"},
        {"", "--user", "U", &sConnection.strUser, "Log in as U", "XBSACTL_USER"},
        {"", "--password-file", "FILE", &sConnection.strPasswordFile,
         "Take the password from the first line of FILE", "XBSACTL_PASSWORD_FILE"},
        {"", "--path", "DIR", &sConnection.strPath,
         "Use this folder on the server (default: where the login leads)", "XBSACTL_PATH"},
        {"", "--space", "SPACE", &sTransfer.sObject.strSpace, "Informix: name the object's space"},
        {"", "--copy-id", "N", &sTransfer.sObject.uCopyId,
         "Informix: restore or verify this copy (default: the newest; verify: the manifest's)"},
        {"", "--library", "PATH", &sConnection.strLibrary, "Drive this library, see below",
         "XBSACTL_LIBRARY"},
        {"", "--timeout", "S", &sConnection.uTimeout,
         "Wait at most S seconds for the server's data connection; 0 is no limit (default: 300)",
         "XBSACTL_TIMEOUT"},
        {"", "--trace", "LEVEL[:FILE]", &X_sLine.strTrace,
         "Write the library's trace: 2 steps, 3 every call; without FILE to standard error "
         "(default: XBSA_TRACE and XBSA_LOGFILE)"},
        {"store restore query verify", "NAME", "", &sTransfer.sObject.strName,
         "Name of the object; for query \"%\" and \"_\" are patterns (default: all)"},
        {"store restore", "FILE", "", &sTransfer.strFile,
         "Local file; \"-\" or none: standard input or output"},
        {"store restore verify", "--status", "FILE", &sTransfer.strStatus,
         "Write progress and result to FILE in the Prometheus text format (default: off)",
         "XBSACTL_STATUS"},
        {"store verify", "--manifest", "FILE", &sTransfer.strManifest,
         "Keep the SHA-256 of what was stored in FILE, in the format of sha256sum",
         "XBSACTL_MANIFEST"},
        {"store", "--verify", "", &sTransfer.bVerify, "Read the object back and compare"},
        {"verify", "--all", "", &sTransfer.bAll, "Verify every object of the manifest"},
        {"store restore query verify", "--json", "", &sTransfer.bJson, cpJson},
        {"check", "--informixdir", "DIR", &sCheck.strInformixDir,
         "Check the set-up of the database in DIR, too"},
        {"check", "--onconfig", "NAME", &sCheck.strOnconfig, cpOnconfig},
        {"check", "--nagios", "", &sCheck.bNagios,
         "Print one line and end with 0, 1, 2 or 3 as monitoring plug-ins do"},
        {"check", "--json", "", &sCheck.bJson, cpJson},
        {"trace", "FILE", "", &sTrace.strFile, "The log; \"-\": standard input"},
        {"trace", "--since", "TIME", &sTrace.strSince,
         "Show sessions from this moment of the log on"},
        {"trace", "--handle", "N", &sTrace.lHandle, "Show sessions of this handle only"},
        {"trace", "--html", "OUT", &sTrace.strHtml, "Write a page with a timeline, too"},
        {"trace", "--bar-act-log", "FILE", &sTrace.strActLog,
         "Put the messages of the database's activity log beside it"},
        {"trace", "--json", "", &sTrace.bJson, cpJson},
        {"explain", "TEXT", "", &X_sLine.sExplain.vecTexts, "The code, or (part of) the message"},
        {"explain", "--markdown", "", &X_sLine.sExplain.bMarkdown,
         "Print a page of the documentation"},
        {"setup", "--informixdir", "DIR", &sSetup.strInformixDir, "Name the database's folder"},
        {"setup", "--onconfig", "NAME", &sSetup.strOnconfig, cpOnconfig},
        {"setup", "--logrotate", "", &sSetup.bLogrotate, "Print the rotation of the logs, and end"},
        {"setup", "--dry-run", "", &sSetup.bDryRun, "Print what would change, and end"},
        {"setup", "--yes", "", &sSetup.bYes, "Do not ask"},
        {"setup", "--undo", "", &sSetup.bUndo, "Put back what an earlier run changed"}};
}

// The parser's own names of types are hidden.
void AddOption(CLI::App &X_sApp, const OPTION &I_sOption)
{
    std::visit(
        [&](auto *spValue) {
            if constexpr (std::is_same_v<decltype(spValue), bool *>)
                X_sApp.add_flag(I_sOption.cpName, *spValue, I_sOption.cpHelp);
            else
                X_sApp.add_option(I_sOption.cpName, *spValue, I_sOption.cpHelp)
                    ->type_name(I_sOption.cpType)
                    ->envname(I_sOption.cpVariable);
        },
        I_sOption.sValue);
}

void AddCommands(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    for (const COMMAND &sCommand : Commands())
    {
        CLI::App *spCommand = X_sApp.add_subcommand(sCommand.cpName, sCommand.cpHelp);
        spCommand->callback([&X_sLine, sCommand] {
            X_sLine.strCommand = sCommand.cpName;
            X_sLine.fpCheck = sCommand.fpCheck;
            X_sLine.fpRun = sCommand.fpRun;
        });
        spCommand->footer("All other options: xbsactl --help");
    }
    for (const OPTION &sOption : Options(X_sLine))
    {
        std::istringstream sCommands(sOption.cpCommands);
        if (*sOption.cpCommands == '\0') AddOption(X_sApp, sOption);
        for (std::string strCommand; sCommands >> strCommand;)
            AddOption(*X_sApp.get_subcommand(strCommand), sOption);
    }
}

// Options that depend on each other, and limits.
void AddRules(CLI::App &X_sApp, bool I_bInformix)
{
    const auto fpRange = [](auto iFirst, auto iLast) {
        return CLI::Range(iFirst, iLast).description("");
    };
    // An empty text would pass for an option that is not there.
    const CLI::Validator sNotEmpty(
        [](const std::string &strText) { return strText.empty() ? "the text is empty" : ""; }, "");
    for (const char *cpName : {"--host", "--user", "--password-file", "--path"})
    {
        CLI::Option *spOption = X_sApp.get_option(cpName)->excludes("--informix");
        if (I_bInformix) spOption->envname(""); // the variable is for other runs
    }
    for (const char *cpName : {"--space", "--copy-id"})
        X_sApp.get_option(cpName)->needs("--informix");
    X_sApp.get_option("--copy-id")->check(fpRange(1U, std::numeric_limits<unsigned>::max()));
    X_sApp.get_option("--timeout")->check(fpRange(0, 1000000));
    CLI::App &sTrace = *X_sApp.get_subcommand("trace");
    sTrace.get_option("--handle")->check(fpRange(1L, std::numeric_limits<long>::max()));
    sTrace.get_option("FILE")->required();
    for (const char *cpCommand : {"store", "restore", "verify"})
    {
        CLI::App &sCommand = *X_sApp.get_subcommand(cpCommand);
        sCommand.get_option("--status")->check(sNotEmpty);
        if (sCommand.get_option_no_throw("--manifest") != nullptr)
            sCommand.get_option("--manifest")->check(sNotEmpty);
        sCommand.get_option("NAME")->required(std::string(cpCommand) != "verify");
    }
    X_sApp.get_subcommand("verify")->get_option("--all")->excludes("NAME");
    CLI::App &sSetup = *X_sApp.get_subcommand("setup");
    sSetup.get_option("--informixdir")->required();
    sSetup.get_option("--undo")->excludes("--logrotate");
}

void AddAll(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    const char *cpConfig = getenv("XBSACTL_CONFIG");
    X_sApp.description(DESCRIPTION);
    X_sApp.footer(FOOTER);
    X_sApp.set_version_flag("--version", "xbsactl " XBSACTL_VERSION);
    X_sApp.fallthrough();            // the options may follow the command, too
    X_sApp.require_subcommand(0, 1); // with 1, a misspelt command would pass for none
    AddCommands(X_sApp, X_sLine);
    AddRules(X_sApp, X_sLine.sConnection.bInformix);
    X_sApp
        .set_config("--config", cpConfig != nullptr ? cpConfig : "",
                    "Read options from FILE (default: the variable XBSACTL_CONFIG)",
                    cpConfig != nullptr && *cpConfig != '\0')
        ->type_name("FILE");
    X_sApp.allow_config_extras(false);
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

// Whether one letter was changed, added or left out, or two changed places.
bool IsSlip(std::string_view I_svTyped, std::string_view I_svMeant)
{
    size_t uSame = 0;
    while (uSame < I_svTyped.size() && uSame < I_svMeant.size() &&
           I_svTyped[uSame] == I_svMeant[uSame])
        uSame++;
    const std::string strTyped(I_svTyped.substr(uSame));
    const std::string strMeant(I_svMeant.substr(uSame));
    if (strTyped.empty() || strMeant.empty()) return strTyped.size() + strMeant.size() <= 1;
    const std::string strSwapped = {strTyped[std::min<size_t>(1, strTyped.size() - 1)],
                                    strTyped[0]};
    return strTyped.substr(1) == strMeant.substr(1) || strTyped.substr(1) == strMeant ||
           strTyped == strMeant.substr(1) ||
           (strTyped.size() > 1 && strSwapped + strTyped.substr(2) == strMeant);
}

// The parser would name all arguments, the last one first.
std::string UnknownCommand(const CLI::App &I_sApp)
{
    const std::vector<std::string> vecRest = I_sApp.remaining();
    if (!I_sApp.get_subcommands().empty() || vecRest.empty() || vecRest[0].compare(0, 1, "-") == 0)
        return "";
    std::string strText = "there is no command \"" + vecRest[0] + "\"";
    for (const CLI::App *spCommand : I_sApp.get_subcommands({}))
        if (IsSlip(vecRest[0], spCommand->get_name()))
            return strText + ": did you mean \"" + spCommand->get_name() + "\"?";
    return strText;
}
} // namespace

std::optional<int> ParseOptions(int argc, char **argv, COMMAND_LINE &X_sLine)
{
    RefusePassword(argc, argv);
    X_sLine.sConnection.bInformix =
        std::find(argv, argv + argc, std::string("--informix")) != argv + argc;
    CLI::App sApp("", "xbsactl");
    AddAll(sApp, X_sLine);
    try
    {
        sApp.parse(argc, argv);
    } catch (const CLI::ExtrasError &sError)
    {
        const std::string strText = UnknownCommand(sApp);
        throw base::USAGE_ERROR(strText.empty() ? sError.what() : strText);
    } catch (const CLI::ConfigError &sError)
    {
        throw base::USAGE_ERROR("--config: " + std::string(sError.what()) +
                                "; a password is never in that file");
    } catch (const CLI::ParseError &sError)
    {
        if (sError.get_exit_code() != 0) throw base::USAGE_ERROR(sError.what());
        return sApp.exit(sError); // help and version
    }
    if (sApp.get_subcommands().empty()) throw base::USAGE_ERROR("no command is given");
    return {};
}

void CheckOptions(COMMAND_LINE &X_sLine)
{
    if (X_sLine.sTransfer.sObject.uCopyId != 0 && X_sLine.strCommand != "restore" &&
        X_sLine.strCommand != "verify")
        throw base::USAGE_ERROR("--copy-id is for restore and verify only");
    base::TakeTrace(X_sLine.sConnection, X_sLine.strTrace);
    X_sLine.fpCheck(X_sLine);
}
