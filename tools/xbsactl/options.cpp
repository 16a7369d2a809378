#include "options.h"

#include <CLI/CLI.hpp>
#include <limits>

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

// An empty text would pass for an option that is not there.
CLI::Validator NotEmpty()
{
    return {[](const std::string &I_strText) -> std::string {
                return I_strText.empty() ? "the text is empty" : "";
            },
            ""};
}

// What it takes is shown as one word; the parser's own names of types are hidden.
template <typename VALUE>
CLI::Option *Add(CLI::App &X_sApp, const std::string &I_strName, VALUE &X_sValue,
                 const char *cpType, const std::string &I_strHelp)
{
    return X_sApp.add_option(I_strName, X_sValue, I_strHelp)->type_name(cpType);
}

void AddServerOptions(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    base::CONNECTION &sConnection = X_sLine.sConnection;
    library::OBJECT &sObject = X_sLine.sTransfer.sObject;
    CLI::Option *spInformix =
        X_sApp.add_flag("--informix", sConnection.bInformix,
                        "Open an Informix session: a KORVA server, over its COM utility");
    const struct
    {
        const char *cpName, *cpType, *cpVariable;
        std::string &strValue;
        const char *cpHelp;
    } PLAIN[] = {{"--host", "HOST[:PORT]", "XBSACTL_HOST", sConnection.strHost,
                  "Name the server (default port: 21)"},
                 {"--user", "U", "XBSACTL_USER", sConnection.strUser, "Log in as U"},
                 {"--password-file", "FILE", "XBSACTL_PASSWORD_FILE", sConnection.strPasswordFile,
                  "Take the password from the first line of FILE"},
                 {"--path", "DIR", "XBSACTL_PATH", sConnection.strPath,
                  "Use this folder on the server (default: where the login leads)"}};
    const bool bVariables = !sConnection.bInformix; // those of plain mode may be set for other runs
    for (const auto &sOption : PLAIN)
        Add(X_sApp, sOption.cpName, sOption.strValue, sOption.cpType, sOption.cpHelp)
            ->envname(bVariables ? sOption.cpVariable : "")
            ->excludes(spInformix);
    Add(X_sApp, "--space", sObject.strSpace, "SPACE", "Informix: name the object's space")
        ->needs(spInformix);
    Add(X_sApp, "--copy-id", sObject.uCopyId, "N",
        "Informix: restore or verify this copy (default: the newest; verify: the manifest's)")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned>::max()).description(""))
        ->needs(spInformix);
}

void AddGeneralOptions(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    Add(X_sApp, "--library", X_sLine.sConnection.strLibrary, "PATH",
        "Drive this library, see below")
        ->envname("XBSACTL_LIBRARY");
    Add(X_sApp, "--timeout", X_sLine.sConnection.uTimeout, "S",
        "Wait at most S seconds for the server's data connection; 0 is no limit (default: 300)")
        ->check(CLI::Range(0, 1000000).description(""))
        ->envname("XBSACTL_TIMEOUT");
    Add(X_sApp, "--trace", X_sLine.strTrace, "LEVEL[:FILE]",
        "Write the library's trace: 2 steps, 3 every call; without FILE to standard error "
        "(default: XBSA_TRACE and XBSA_LOGFILE)");
    const char *cpConfig = getenv("XBSACTL_CONFIG");
    X_sApp
        .set_config("--config", cpConfig != nullptr ? cpConfig : "",
                    "Read options from FILE (default: the variable XBSACTL_CONFIG)",
                    cpConfig != nullptr && *cpConfig != '\0')
        ->type_name("FILE");
    X_sApp.allow_config_extras(false);
}

using CHECK = decltype(COMMAND_LINE::fpCheck);
using RUN = decltype(COMMAND_LINE::fpRun);

CLI::App &AddCommand(CLI::App &X_sApp, COMMAND_LINE &X_sLine, const char *cpName,
                     const char *cpHelp, const CHECK &I_fpCheck, const RUN &I_fpRun)
{
    CLI::App *spCommand = X_sApp.add_subcommand(cpName, cpHelp);
    spCommand->callback([=, &X_sLine] {
        X_sLine.strCommand = cpName;
        X_sLine.fpCheck = I_fpCheck;
        X_sLine.fpRun = I_fpRun;
    });
    spCommand->footer("All other options: xbsactl --help");
    return *spCommand;
}

void AddJson(CLI::App &X_sCommand, bool &X_bJson)
{
    X_sCommand.add_flag("--json", X_bJson, "Print JSON instead of text");
}

void AddManifest(CLI::App &X_sCommand, COMMAND_LINE &X_sLine)
{
    Add(X_sCommand, "--manifest", X_sLine.sTransfer.strManifest, "FILE",
        "Keep the SHA-256 of what was stored in FILE, in the format of sha256sum")
        ->check(NotEmpty())
        ->envname("XBSACTL_MANIFEST");
}

void AddStatus(CLI::App &X_sCommand, COMMAND_LINE &X_sLine)
{
    Add(X_sCommand, "--status", X_sLine.sTransfer.strStatus, "FILE",
        "Write progress and result to FILE in the Prometheus text format (default: off)")
        ->check(NotEmpty())
        ->envname("XBSACTL_STATUS");
    AddJson(X_sCommand, X_sLine.sTransfer.bJson);
}

// What a command needs that moves objects.
void CheckTransfer(COMMAND_LINE &X_sLine)
{
    if (X_sLine.sTransfer.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
    if (!X_sLine.sTransfer.bAll)
        library::CheckObject(X_sLine.sConnection, X_sLine.sTransfer.sObject);
    if (X_sLine.sConnection.bInformix) base::CheckVariables();
    else base::CheckPlain(X_sLine.sConnection);
}

CLI::App &AddTransfer(CLI::App &X_sApp, COMMAND_LINE &X_sLine, const char *cpName,
                      const char *cpHelp,
                      void (*I_fpRun)(const base::CONNECTION &, const transfer::OPTIONS &),
                      void (*I_fpCheck)(const base::CONNECTION &, transfer::OPTIONS &))
{
    const CHECK fpCheck = [I_fpCheck](COMMAND_LINE &sLine) {
        I_fpCheck(sLine.sConnection, sLine.sTransfer);
        CheckTransfer(sLine);
    };
    const RUN fpRun = [I_fpRun](const COMMAND_LINE &sLine) {
        I_fpRun(sLine.sConnection, sLine.sTransfer);
        return base::EXIT_DONE;
    };
    return AddCommand(X_sApp, X_sLine, cpName, cpHelp, fpCheck, fpRun);
}

void AddTransfers(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    transfer::OPTIONS &sTransfer = X_sLine.sTransfer;
    const auto fpNothing = [](const base::CONNECTION &, transfer::OPTIONS &) {};
    CLI::App &sStore = AddTransfer(X_sApp, X_sLine, "store", "Store FILE or standard input as NAME",
                                   transfer::Store, fpNothing);
    CLI::App &sRestore =
        AddTransfer(X_sApp, X_sLine, "restore", "Restore NAME into FILE or standard output",
                    transfer::Restore, transfer::CheckRestore);
    for (CLI::App *spCommand : {&sStore, &sRestore})
    {
        spCommand->add_option("NAME", sTransfer.sObject.strName, "Name of the object")->required();
        spCommand->add_option("FILE", sTransfer.strFile,
                              "Local file; \"-\" or none: standard input or output");
        AddStatus(*spCommand, X_sLine);
    }
    sStore.add_flag("--verify", sTransfer.bVerify, "Read the object back and compare");
    AddManifest(sStore, X_sLine);
}

void AddVerify(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    transfer::OPTIONS &sTransfer = X_sLine.sTransfer;
    CLI::App &sVerify = AddTransfer(
        X_sApp, X_sLine, "verify", "Read NAME back and compare it with the manifest; write nothing",
        transfer::Verify, transfer::CheckVerify);
    CLI::Option *spName =
        sVerify.add_option("NAME", sTransfer.sObject.strName, "Name of the object");
    sVerify.add_flag("--all", sTransfer.bAll, "Verify every object of the manifest")
        ->excludes(spName);
    AddManifest(sVerify, X_sLine);
    AddStatus(sVerify, X_sLine);
}

void AddQuery(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App &sQuery = AddTransfer(X_sApp, X_sLine, "query",
                                   "List the newest stored copy of NAME (with --informix)",
                                   transfer::Query, transfer::CheckQuery);
    sQuery.add_option("NAME", X_sLine.sTransfer.sObject.strName,
                      "Name of the object; \"%\" and \"_\" are patterns (default: all)");
    AddJson(sQuery, X_sLine.sTransfer.bJson);
}

void AddCheck(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        if (!sLine.sTransfer.sObject.strSpace.empty())
            throw base::USAGE_ERROR("--space is not for check");
        if (!sLine.sConnection.bInformix) base::CheckPreflight(sLine.sConnection);
    };
    CLI::App &sCheck = AddCommand(
        X_sApp, X_sLine, "check", "Test the whole path to the server, step by step", fpCheck,
        [](const COMMAND_LINE &sLine) { return check::Run(sLine.sConnection, sLine.sCheck); });
    Add(sCheck, "--informixdir", X_sLine.sCheck.strInformixDir, "DIR",
        "Check the set-up of the database in DIR, too");
    Add(sCheck, "--onconfig", X_sLine.sCheck.strOnconfig, "NAME",
        "Name its configuration file in DIR/etc (default: ONCONFIG, else \"onconfig\")");
    sCheck.add_flag("--nagios", X_sLine.sCheck.bNagios,
                    "Print one line and end with 0, 1, 2 or 3 as monitoring plug-ins do");
    AddJson(sCheck, X_sLine.sCheck.bJson);
}

void AddTrace(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        if (sLine.sTrace.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
    };
    CLI::App &sTrace = AddCommand(X_sApp, X_sLine, "trace",
                                  "Summarise the sessions in a trace log, and their errors",
                                  fpCheck, [](const COMMAND_LINE &sLine) {
                                      trace::Run(sLine.sTrace);
                                      return base::EXIT_DONE;
                                  });
    sTrace.add_option("FILE", X_sLine.sTrace.strFile, "The log; \"-\": standard input")->required();
    Add(sTrace, "--since", X_sLine.sTrace.strSince, "TIME",
        "Show sessions from this moment of the log on");
    Add(sTrace, "--handle", X_sLine.sTrace.lHandle, "N", "Show sessions of this handle only")
        ->check(CLI::Range(1L, std::numeric_limits<long>::max()).description(""));
    Add(sTrace, "--html", X_sLine.sTrace.strHtml, "OUT", "Write a page with a timeline, too");
    Add(sTrace, "--bar-act-log", X_sLine.sTrace.strActLog, "FILE",
        "Put the messages of the database's activity log beside it");
    AddJson(sTrace, X_sLine.sTrace.bJson);
}

void AddExplain(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    CLI::App &sExplain = AddCommand(
        X_sApp, X_sLine, "explain", "Explain a return code or a message; all without TEXT",
        [](COMMAND_LINE &) {},
        [](const COMMAND_LINE &sLine) {
            explain::Run(sLine.sExplain);
            return base::EXIT_DONE;
        });
    sExplain.add_option("TEXT", X_sLine.sExplain.vecTexts, "The code, or (part of) the message");
    sExplain.add_flag("--markdown", X_sLine.sExplain.bMarkdown,
                      "Print a page of the documentation");
}

void AddSetup(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    setup::OPTIONS &sSetup = X_sLine.sSetup;
    const CHECK fpCheck = [](COMMAND_LINE &sLine) {
        sLine.sSetup.strLibrary = sLine.sConnection.strLibrary;
    };
    CLI::App &sCommand = AddCommand(
        X_sApp, X_sLine, "setup", "Hook the library into a database server, or unhook it", fpCheck,
        [](const COMMAND_LINE &sLine) { return setup::Run(sLine.sSetup); });
    Add(sCommand, "--informixdir", sSetup.strInformixDir, "DIR", "Name the database's folder")
        ->required();
    Add(sCommand, "--onconfig", sSetup.strOnconfig, "NAME",
        "Name its configuration file in DIR/etc (default: ONCONFIG, else \"onconfig\")");
    CLI::Option *spRotation = sCommand.add_flag("--logrotate", sSetup.bLogrotate,
                                                "Print the rotation of the logs, and end");
    sCommand.add_flag("--dry-run", sSetup.bDryRun, "Print what would change, and end");
    sCommand.add_flag("--yes", sSetup.bYes, "Do not ask");
    sCommand.add_flag("--undo", sSetup.bUndo, "Put back what an earlier run changed")
        ->excludes(spRotation);
}

void AddAll(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    X_sApp.description(DESCRIPTION);
    X_sApp.footer(FOOTER);
    X_sApp.set_version_flag("--version", "xbsactl " XBSACTL_VERSION);
    X_sApp.fallthrough();            // the options may follow the command, too
    X_sApp.require_subcommand(0, 1); // with 1, a misspelt command would pass for none
    AddServerOptions(X_sApp, X_sLine);
    AddGeneralOptions(X_sApp, X_sLine);
    AddTransfers(X_sApp, X_sLine);
    AddQuery(X_sApp, X_sLine);
    AddVerify(X_sApp, X_sLine);
    AddCheck(X_sApp, X_sLine);
    AddTrace(X_sApp, X_sLine);
    AddExplain(X_sApp, X_sLine);
    AddSetup(X_sApp, X_sLine);
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

// How many letters have to be changed, added or taken away; two letters in each other's place are
// one change.
size_t Distance(const std::string &I_strOne, const std::string &I_strOther)
{
    std::vector<std::vector<size_t>> vecTable(I_strOne.size() + 1,
                                              std::vector<size_t>(I_strOther.size() + 1));
    for (size_t uOne = 0; uOne <= I_strOne.size(); uOne++)
        for (size_t uOther = 0; uOther <= I_strOther.size(); uOther++)
        {
            size_t &uBest = vecTable[uOne][uOther];
            uBest = std::max(uOne, uOther);
            if (uOne == 0 || uOther == 0) continue;
            const bool bSame = I_strOne[uOne - 1] == I_strOther[uOther - 1];
            uBest = std::min({vecTable[uOne - 1][uOther] + 1, vecTable[uOne][uOther - 1] + 1,
                              vecTable[uOne - 1][uOther - 1] + (bSame ? 0 : 1)});
            if (uOne > 1 && uOther > 1 && I_strOne[uOne - 1] == I_strOther[uOther - 2] &&
                I_strOne[uOne - 2] == I_strOther[uOther - 1])
                uBest = std::min(uBest, vecTable[uOne - 2][uOther - 2] + 1);
        }
    return vecTable[I_strOne.size()][I_strOther.size()];
}

// The parser would name all arguments, the last one first.
std::string UnknownCommand(const CLI::App &I_sApp)
{
    const std::vector<std::string> vecRest = I_sApp.remaining();
    if (!I_sApp.get_subcommands().empty() || vecRest.empty() || vecRest[0].compare(0, 1, "-") == 0)
        return "";
    const std::string strText = "there is no command \"" + vecRest[0] + "\"";
    for (const CLI::App *spCommand : I_sApp.get_subcommands({}))
        if (Distance(vecRest[0], spCommand->get_name()) <= 2)
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
