#include "options.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <map>
#include <sstream>
#include <variant>

#include "base/json.h"
#include "texts/help_txt.h"
#include "texts/options_json.h"

namespace
{
// The text for a command, an option of all commands, or an option of a command: its own, else that
// of the first command that has the option.
std::string Help(const std::string &I_strCommand, const std::string &I_strOption = "",
                 const std::string &I_strCommands = "")
{
    static const base::JSON sHelp = base::JSON::parse(texts::OPTIONS_JSON);
    const char *cpBetween = I_strCommand.empty() || I_strOption.empty() ? "" : " ";
    const std::string strOwn = I_strCommand + cpBetween + I_strOption;
    if (sHelp.contains(strOwn)) return sHelp.at(strOwn);
    const std::string strFirst = I_strCommands.substr(0, I_strCommands.find(' '));
    return sHelp.at(strFirst.empty() ? I_strOption : strFirst + " " + I_strOption);
}

// What the help of a command shows after its options: its section of the text.
std::string Examples(const std::string &I_strCommand)
{
    const std::string strTitle = "\n# " + I_strCommand + "\n";
    const size_t uBegin = texts::HELP_TXT.find(strTitle) + strTitle.size();
    return std::string(
        texts::HELP_TXT.substr(uBegin, texts::HELP_TXT.find("\n\n# ", uBegin) - uBegin));
}

bool IsListed(const std::string &I_strWord, const char *I_cpList)
{
    std::istringstream sList(I_cpList);
    const std::istream_iterator<std::string> sFirst(sList);
    return std::find(sFirst, {}, I_strWord) != decltype(sFirst)();
}

template <auto FP_RUN> void Transfer(COMMAND_LINE &X_sLine)
{
    FP_RUN(X_sLine.sConnection, X_sLine.sTransfer);
}

// The general options that the help of a command leaves out, because they have no effect there.
constexpr const char *OF_SERVER =
    "--host --user --password-file --path --informix --space --copy-id --timeout --trace";
constexpr const char *OF_LIBRARY =
    "--host --user --password-file --path --informix --space --copy-id --timeout --trace --library";

struct COMMAND
{
    const char *cpName;
    const char *cpWithout;
    decltype(COMMAND_LINE::fpRun) fpRun;
};

constexpr COMMAND COMMANDS[] = {
    {"store", "--copy-id", Transfer<transfer::Store>},
    {"restore", "", Transfer<transfer::Restore>},
    {"query", "--copy-id --host --user --password-file --path", Transfer<transfer::Query>},
    {"verify", "", Transfer<transfer::Verify>},
    {"check", "--space --copy-id",
     [](COMMAND_LINE &sLine) {
         if (!sLine.sTransfer.sObject.strSpace.empty())
             throw base::USAGE_ERROR("--space does not apply to check");
         if (!sLine.sConnection.bInformix) base::CheckPlain(sLine.sConnection, false);
         sLine.iExit = check::Run(sLine.sConnection, sLine.sCheck);
     }},
    {"trace", OF_LIBRARY,
     [](COMMAND_LINE &sLine) {
         if (sLine.sTrace.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
         trace::Run(sLine.sTrace);
     }},
    {"report", OF_LIBRARY, [](COMMAND_LINE &sLine) { sLine.iExit = report::Run(sLine.sReport); }},
    {"top", OF_LIBRARY, [](COMMAND_LINE &sLine) { sLine.iExit = report::Top(sLine.sTop); }},
    {"explain", OF_LIBRARY, [](COMMAND_LINE &sLine) { explain::Run(sLine.vecExplained); }},
    {"setup", OF_SERVER,
     [](COMMAND_LINE &sLine) {
         sLine.sSetup.strLibrary = sLine.sConnection.strLibrary;
         sLine.iExit = setup::Run(sLine.sSetup);
     }},
};

using RULE = void (*)(CLI::Option *);

constexpr RULE PLAIN = [](auto *spOption) {
    spOption->excludes("--informix")->group("Plain mode");
};
constexpr RULE INFORMIX = [](auto *spOption) {
    spOption->needs("--informix")->group("Informix mode");
};
constexpr RULE REQUIRED = [](auto *spOption) { spOption->required(); };

// An empty text would look like a missing option.
constexpr RULE NOT_EMPTY = [](auto *spOption) {
    spOption->check([](const std::string &strText) {
        return std::string(strText.empty() ? "the text is empty" : "");
    });
};

template <auto FIRST, auto LAST> void Range(CLI::Option *spOption)
{
    spOption->check(CLI::Range(FIRST, LAST).description(""));
}

// Each value has the option before it: what follows is another argument.
constexpr RULE REPEATED = [](auto *spOption) { spOption->allow_extra_args(false); };

// "25h"; without a unit seconds.
constexpr RULE DURATION = [](auto *spOption) {
    const std::map<std::string, uint64_t> UNITS = {{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    Range<uint64_t{1}, uint64_t{1} << 40U>(spOption);
    spOption->transform(CLI::AsNumberWithUnit(UNITS).description(""));
};

// "10MB" and the like; without a unit bytes.
constexpr RULE SIZE = [](auto *spOption) {
    spOption->transform(CLI::AsSizeValue(true).description(""));
};

constexpr const char *COMMON = "Common options"; // a heading

struct OPTION
{
    const char *cpCommands; // that have it; "" for all
    const char *cpName;
    const char *cpType; // what it takes; "" for a flag or a positional argument
    std::variant<bool *, std::string *, unsigned *, long *, uint64_t *, std::vector<std::string> *>
        sValue;
    const char *cpVariable = ""; // that replaces it
    RULE fpRule = [](auto *) {}; // what the parser checks
};

std::vector<OPTION> GeneralOptions(COMMAND_LINE &X_sLine)
{
    base::CONNECTION &sConnection = X_sLine.sConnection;
    library::OBJECT &sObject = X_sLine.sTransfer.sObject;
    return {{"", "--informix", "", &sConnection.bInformix, "",
             [](auto *spOption) { spOption->group("Informix mode"); }},
            {"", "--host", "HOST[:PORT]", &sConnection.strHost, "XBSACTL_HOST", PLAIN},
            {"", "--user", "USER", &sConnection.strUser, "XBSACTL_USER", PLAIN},
            {"", "--password-file", "FILE", &sConnection.strPasswordFile, "XBSACTL_PASSWORD_FILE",
             PLAIN},
            {"", "--path", "DIR", &sConnection.strPath, "XBSACTL_PATH", PLAIN},
            {"", "--space", "SPACE", &sObject.strSpace, "", INFORMIX},
            {"", "--copy-id", "N", &sObject.uCopyId, "",
             [](auto *spOption) {
                 INFORMIX(spOption);
                 Range<1U, std::numeric_limits<unsigned>::max()>(spOption);
             }},
            {"", "--library", "PATH", &sConnection.strLibrary, "XBSACTL_LIBRARY"},
            {"", "--timeout", "S", &sConnection.uTimeout, "XBSACTL_TIMEOUT", Range<0, 1000000>},
            {"", "--trace", "LEVEL[:FILE]", &X_sLine.strTrace}};
}

std::vector<OPTION> CommandOptions(COMMAND_LINE &X_sLine)
{
    transfer::OPTIONS &sTransfer = X_sLine.sTransfer;
    check::OPTIONS &sCheck = X_sLine.sCheck;
    trace::OPTIONS &sTrace = X_sLine.sTrace;
    report::OPTIONS &sReport = X_sLine.sReport;
    setup::OPTIONS &sSetup = X_sLine.sSetup;
    return {{"store restore", "NAME", "", &sTransfer.sObject.strName, "", REQUIRED},
            {"query verify", "NAME", "", &sTransfer.sObject.strName},
            {"store restore", "FILE", "", &sTransfer.strFile},
            {"store restore verify", "--status", "FILE", &sTransfer.strStatus, "XBSACTL_STATUS",
             NOT_EMPTY},
            {"store verify", "--manifest", "FILE", &sTransfer.strManifest, "XBSACTL_MANIFEST",
             NOT_EMPTY},
            {"store", "--verify", "", &sTransfer.bVerify},
            {"verify", "--all", "", &sTransfer.bAll, "",
             [](auto *spOption) { spOption->excludes("NAME"); }},
            {"verify", "--journal", "FILE", &sTransfer.vecJournals, "", REPEATED},
            {"verify", "--newest", "", &sTransfer.bNewest},
            {"verify", "--sample", "N/T", &sTransfer.strSample, "", NOT_EMPTY},
            {"verify", "--jobs", "N", &sTransfer.uJobs, "", Range<1, 64>},
            {"store restore query verify", "--json", "", &sTransfer.bJson},
            {"check", "--informixdir", "DIR", &sCheck.strInformixDir},
            {"check", "--onconfig", "NAME", &sCheck.strOnconfig},
            {"check", "--no-logs", "", &sCheck.bNoLogs},
            {"check", "--nagios", "", &sCheck.bNagios},
            {"check", "--json", "", &sCheck.bJson, "",
             [](auto *spOption) { spOption->excludes("--nagios"); }},
            {"trace", "FILE", "", &sTrace.strFile, "", REQUIRED},
            {"trace", "--since", "TIME", &sTrace.strSince},
            {"trace", "--handle", "N", &sTrace.lHandle, "",
             Range<1L, std::numeric_limits<long>::max()>},
            {"trace", "--html", "OUT", &sTrace.strHtml},
            {"trace", "--bar-act-log", "FILE", &sTrace.strActLog},
            {"trace", "--json", "", &sTrace.bJson},
            {"report", "--journal", "FILE", &sReport.vecJournals, "KORVA_JOURNAL", REPEATED},
            {"report", "--space", "SPACE", &sReport.vecSpaces, "", REPEATED},
            {"report", "--max-age", "AGE", &sReport.uMaxAge, "", DURATION},
            {"report", "--min-size", "SIZE", &sReport.uMinSize, "", SIZE},
            {"report", "--prometheus", "FILE", &sReport.strPrometheus, "", NOT_EMPTY},
            {"report", "--bar-act-log", "FILE", &sReport.strActLog, "", NOT_EMPTY},
            {"report", "--nagios", "", &sReport.bNagios},
            {"report", "--json", "", &sReport.bJson, "",
             [](auto *spOption) { spOption->excludes("--nagios"); }},
            {"top", "--once", "", &X_sLine.sTop.bOnce},
            {"top", "--json", "", &X_sLine.sTop.bJson},
            {"top", "--interval", "SECONDS", &X_sLine.sTop.uInterval, "", Range<1, 86400>},
            {"explain", "TEXT", "", &X_sLine.vecExplained},
            {"setup", "--informixdir", "DIR", &sSetup.strInformixDir, "INFORMIXDIR", REQUIRED},
            {"setup", "--onconfig", "NAME", &sSetup.strOnconfig},
            {"setup", "--logrotate", "", &sSetup.bLogrotate},
            {"setup", "--dry-run", "", &sSetup.bDryRun},
            {"setup", "--yes", "", &sSetup.bYes},
            {"setup", "--undo", "", &sSetup.bUndo, "",
             [](auto *spOption) { spOption->excludes("--logrotate"); }}};
}

// The parser's own names of types are hidden.
void AddOption(CLI::App &X_sApp, const OPTION &I_sOption, bool I_bInformix)
{
    const std::string strHelp = Help(X_sApp.get_name(), I_sOption.cpName, I_sOption.cpCommands);
    CLI::Option *spAdded = std::visit(
        [&](auto *spValue) {
            if constexpr (std::is_same_v<decltype(spValue), bool *>)
                return X_sApp.add_flag(I_sOption.cpName, *spValue, strHelp);
            else
                return X_sApp.add_option(I_sOption.cpName, *spValue, strHelp)
                    ->type_name(I_sOption.cpType);
        },
        I_sOption.sValue);
    if (*I_sOption.cpCommands == '\0') spAdded->group(COMMON);
    I_sOption.fpRule(spAdded);
    // In Informix mode the variables of plain mode do not apply.
    if (!I_bInformix || I_sOption.fpRule != PLAIN) spAdded->envname(I_sOption.cpVariable);
}

void AddOptions(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    const bool bGeneral = X_sLine.strCommand.empty();
    for (const OPTION &sOption : bGeneral ? GeneralOptions(X_sLine) : CommandOptions(X_sLine))
    {
        if (bGeneral || IsListed(X_sLine.strCommand, sOption.cpCommands))
            AddOption(X_sApp, sOption, X_sLine.sConnection.bInformix);
    }
}

// A command gets its options when the parser meets it: the same variable may belong to an option of
// another command, which would be set last.
void AddCommands(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    for (const auto &sCommand : COMMANDS)
    {
        CLI::App *spCommand = X_sApp.add_subcommand(sCommand.cpName, Help(sCommand.cpName));
        spCommand->preparse_callback([&X_sLine, &sCommand, spCommand](size_t) {
            X_sLine.strCommand = sCommand.cpName;
            X_sLine.fpRun = sCommand.fpRun;
            AddOptions(*spCommand, X_sLine);
        });
        spCommand->group("Commands")->footer(Examples(sCommand.cpName));
    }
}

// The file holds the options of all commands, and the parser asks it before the variables.
struct CONFIG_FILE : CLI::ConfigTOML
{
    explicit CONFIG_FILE(const CLI::App &I_sApp) : sApp(I_sApp)
    {
    }

    std::vector<CLI::ConfigItem> from_config(std::istream &X_sFile) const override
    {
        std::vector<CLI::ConfigItem> vecItems = CLI::ConfigTOML::from_config(X_sFile);
        const auto fpIdle = [this](const CLI::ConfigItem &sItem) {
            const CLI::App *spApp = &sApp;
            for (const CLI::App *spCommand : sApp.get_subcommands({}))
                if (!sItem.parents.empty() && spCommand->check_name(sItem.parents[0]))
                    spApp = spCommand;
            const CLI::Option *spOption = spApp->get_option_no_throw("--" + sItem.name);
            const char *cpVariable =
                spOption != nullptr ? getenv(spOption->get_envname().c_str()) : nullptr;
            return spApp->count() == 0 || (cpVariable != nullptr && *cpVariable != '\0');
        };
        vecItems.erase(std::remove_if(vecItems.begin(), vecItems.end(), fpIdle), vecItems.end());
        return vecItems;
    }

    const CLI::App &sApp;
};

// A command's help adds the general options that it uses; the help without a command lists the
// commands instead. The parser breaks no lines, and would add what an option needs or excludes.
struct HELP_FORMAT : CLI::Formatter
{
    std::string make_help(const CLI::App *spApp, std::string strName,
                          CLI::AppFormatMode sMode) const override
    {
        const bool bAll = spApp->get_parent() == nullptr;
        return make_description(spApp) + '\n' +
               (bAll ? "Usage: xbsactl COMMAND [OPTIONS] [ARGUMENTS]\n"
                     : make_usage(spApp, strName)) +
               make_positionals(spApp) + Group(*spApp, "Options", "") +
               (bAll ? make_subcommands(spApp, sMode) : GeneralGroups(*spApp)) + '\n' +
               make_footer(spApp);
    }

    std::string GeneralGroups(const CLI::App &I_sApp) const
    {
        const auto *spCommand = std::ranges::find(COMMANDS, I_sApp.get_name(), &COMMAND::cpName);
        std::string strGroups;
        for (const std::string &strGroup : I_sApp.get_parent()->get_groups())
            if (strGroup != "Options")
                strGroups += Group(*I_sApp.get_parent(), strGroup, spCommand->cpWithout);
        return strGroups;
    }

    std::string Group(const CLI::App &I_sApp, const std::string &I_strGroup,
                      const char *I_cpWithout) const
    {
        const auto vecOptions = I_sApp.get_options([&](const CLI::Option *spOption) {
            return spOption->get_group() == I_strGroup && spOption->nonpositional() &&
                   !IsListed(spOption->get_name(), I_cpWithout);
        });
        return vecOptions.empty() ? "" : make_group(I_strGroup, false, vecOptions);
    }

    std::string make_option_opts(const CLI::Option *spOption) const override
    {
        return spOption->get_type_name().empty() ? "" : " " + spOption->get_type_name();
    }

    std::string make_option_desc(const CLI::Option *spOption) const override
    {
        return base::Wrapped(spOption->get_description(), 79 - get_column_width(), 0);
    }
};

void AddAll(CLI::App &X_sApp, COMMAND_LINE &X_sLine)
{
    const char *cpConfig = getenv("XBSACTL_CONFIG");
    const size_t uRest = texts::HELP_TXT.find("\n\n"); // what precedes the list of commands
    X_sApp.description(std::string(texts::HELP_TXT.substr(0, uRest)));
    X_sApp.footer(Examples("xbsactl"));
    X_sApp.set_help_flag("-h,--help", Help("--help"));
    X_sApp.set_version_flag("--version", "xbsactl " XBSACTL_VERSION, Help("--version"));
    X_sApp.fallthrough();            // the options may follow the command, too
    X_sApp.require_subcommand(0, 1); // with 1, a misspelt command would look like none
    X_sApp.formatter(std::make_shared<HELP_FORMAT>());
    X_sApp.get_formatter()->column_width(18);
    X_sApp.get_formatter()->label("Positionals", "Arguments");
    AddOptions(X_sApp, X_sLine);
    AddCommands(X_sApp, X_sLine);
    X_sApp.config_formatter(std::make_shared<CONFIG_FILE>(X_sApp));
    X_sApp
        .set_config("--config", cpConfig != nullptr ? cpConfig : "", Help("--config"),
                    cpConfig != nullptr && *cpConfig != '\0')
        ->type_name("FILE")
        ->group(COMMON);
    X_sApp.allow_config_extras(false);
}

// The message does not repeat the secret.
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

// Whether one letter was changed, added or left out, or letters changed places.
bool IsSlip(const std::string &I_strTyped, const std::string &I_strMeant)
{
    const auto fpSame = [](auto sTyped, auto sTypedEnd, auto sMeant, auto sMeantEnd) {
        return std::mismatch(sTyped, sTypedEnd, sMeant, sMeantEnd).first - sTyped;
    };
    const auto iSame =
        fpSame(I_strTyped.begin(), I_strTyped.end(), I_strMeant.begin(), I_strMeant.end()) +
        fpSame(I_strTyped.rbegin(), I_strTyped.rend(), I_strMeant.rbegin(), I_strMeant.rend());
    return iSame + 1 >= static_cast<long>(std::max(I_strTyped.size(), I_strMeant.size())) ||
           std::ranges::is_permutation(I_strTyped, I_strMeant);
}

std::string CommandList()
{
    std::string strList = ": the commands are";
    for (const auto &sCommand : COMMANDS) strList += base::Text(' ', sCommand.cpName, ',');
    strList.pop_back();
    return strList;
}

// The parser would name all arguments, the last one first, or print the help of no command.
void CheckCommand(const std::vector<std::string> &I_vecArguments)
{
    if (I_vecArguments.empty() || I_vecArguments[0].starts_with('-')) return;
    const std::string &strTyped = I_vecArguments[0];
    const std::string strText = "there is no command \"" + strTyped + "\"";
    std::string strMeant = CommandList();
    for (const auto &sCommand : COMMANDS)
    {
        if (strTyped == sCommand.cpName) return;
        if (IsSlip(strTyped, sCommand.cpName))
            strMeant = base::Text(": did you mean \"", sCommand.cpName, "\"?");
    }
    throw base::USAGE_ERROR(strText, strMeant);
}

// The parser's text ends with the key, which is a password when a password file was given by
// mistake.
std::string WrongLine(const std::string &I_strFile, const std::string &I_strError)
{
    size_t uLine = 0;
    for (const std::string &strLine : base::Lines(base::ReadText(I_strFile).value_or("")))
    {
        const std::string strKey = base::Printable(strLine.substr(0, strLine.find('=')));
        uLine++;
        if (!strKey.empty() && I_strError.rfind(strKey) == I_strError.size() - strKey.size())
            return base::Text("line ", uLine);
    }
    return "a line";
}

// Accepts "help" instead of --help before a command, and directly after a command that takes no
// name or file, either of which could be "help".
std::vector<std::string> WithHelp(std::vector<std::string> I_vecArguments)
{
    const size_t uCount = I_vecArguments.size();
    const auto fpOption = [](const std::string &strText) { return strText.starts_with('-'); };
    if (uCount > 1 && I_vecArguments.back() == "help" &&
        IsListed(I_vecArguments[uCount - 2], "check top report explain setup") &&
        std::all_of(I_vecArguments.begin(), I_vecArguments.end() - 2, fpOption))
        I_vecArguments.back() = "--help";
    if (uCount == 0 || I_vecArguments[0] != "help") return I_vecArguments;
    I_vecArguments.erase(I_vecArguments.begin());
    I_vecArguments.emplace_back("--help");
    return I_vecArguments;
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
        std::vector<std::string> vecArguments = WithHelp({argv + std::min(argc, 1), argv + argc});
        CheckCommand(vecArguments);
        std::reverse(vecArguments.begin(), vecArguments.end()); // as the parser takes them
        sApp.parse(std::move(vecArguments));
    } catch (const CLI::ExtrasError &sError)
    {
        if (sApp.get_subcommands().empty()) CheckCommand(sApp.remaining());
        throw base::USAGE_ERROR(sError.what());
    } catch (const CLI::ConfigError &sError)
    {
        throw base::USAGE_ERROR(
            "--config: ", WrongLine(sApp.get_config_ptr()->as<std::string>(), sError.what()),
            " is not KEY=VALUE with the long name of an option, without \"--\"; a password is "
            "never in that file");
    } catch (const CLI::ParseError &sError)
    {
        if (sError.get_exit_code() != 0) throw base::USAGE_ERROR(sError.what());
        return sApp.exit(sError); // help and version
    }
    if (sApp.get_subcommands().empty()) throw base::USAGE_ERROR("no command given", CommandList());
    return {};
}

int RunCommand(COMMAND_LINE &X_sLine)
{
    if (X_sLine.sTransfer.sObject.uCopyId != 0 && X_sLine.strCommand != "restore" &&
        X_sLine.strCommand != "verify")
        throw base::USAGE_ERROR("--copy-id is for restore and verify only");
    base::TakeTrace(X_sLine.sConnection, X_sLine.strTrace);
    X_sLine.fpRun(X_sLine);
    return X_sLine.iExit;
}
