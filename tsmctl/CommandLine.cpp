#include "CommandLine.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <regex>
#include <sstream>

#include "Errors.h"
#include "Files.h"

namespace tsmctl {
namespace {

// CLI11 would tell of an option that can be given again that it takes several values.
class Formatter : public CLI::Formatter {
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string text = CLI::Formatter::make_option_opts(option);
        return option->get_positional() ? text : std::regex_replace(text, std::regex(R"( \.\.\.)"), "");
    }
};

std::string HostName() {
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "localhost";
}

// Empty for a moment of the calendar in six numbers, with leading zeros or, as the server writes them, without; else
// what is wrong.
std::string CheckMoment(const std::string& text) {
    static const std::regex form(R"(\d{1,4}(-\d\d?){2} \d\d?(:[0-5]?\d){2})");
    std::tm date = {};
    bool real = std::regex_match(text, form) && strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &date);
    const int day = date.tm_mday;
    timegm(&date);  // carries a day that the month does not have
    real = real && day == date.tm_mday && date.tm_year > -1900;
    return real ? "" : "not a moment like '2024-01-31 23:59:59': " + text;
}

}  // namespace

CLI::Option* AddArguments(CLI::App& command, const char* name, std::vector<std::string>& values, const char* type,
                          const char* description) {
    return command.add_option(name, values, description)->type_name(type)->expected(-1)->allow_extra_args()->required();
}

CLI::Option* AddRepeatable(CLI::App& command, const char* name, std::vector<std::string>& values, const char* type,
                           const char* description) {
    return command.add_option(name, values, description)->type_name(type)->allow_extra_args(false);
}

std::function<std::string(const std::string&)> NumberBetween(long long least, long long most) {
    return [=](const std::string& text) -> std::string {
        if (const auto number = ParseNumber(text); number && *number >= least && *number <= most) return "";
        const std::string typed = text.size() > 40 ? text.substr(0, 40) + "..." : text;
        return fmt::format("a whole number from {} to {} is needed, not '{}'", least, most, typed);
    };
}

CLI::Option* AddChoice(CLI::App& command, const char* name, std::string& value, const char* description,
                       const std::vector<std::string>& choices) {
    return command.add_option(name, value, description)
        ->type_name(fmt::format("{}", fmt::join(choices, "|")))
        ->check(CLI::IsMember(choices).description(""));
}

CLI::Option* AddMoment(CLI::App& command, std::string& at, const char* description) {
    return command.add_option("--at", at, description)->type_name("MOMENT")->check(CheckMoment);
}

CLI::Option* AddExclude(CLI::App& command, std::vector<std::string>& patterns) {
    return AddRepeatable(command, "--exclude", patterns, "PATTERN", "leave out what the end of its path matches");
}

CLI::Option* AddJobs(CLI::App& command, int& jobs) {
    return AddNumber(command, "-j,--jobs", "NUMBER", "sessions at the same time, 1 to 64", 1, 64, jobs)
        ->default_str(std::to_string(jobs));
}

CLI::Option* AddLiteral(CLI::App& command, bool& literal) {
    return command.add_flag("--literal", literal, "take * and ? in PATH as they are");
}

void AddPlace(CLI::App& command, SourceOptions& source) {
    command.add_option("--to", source.to, "directory among the objects (default: the top)")->type_name("PATH");
    command.add_option("--as", source.as, "object path for standard input, below --to")->type_name("PATH");
}

void CheckSource(const SourceOptions& source) {
    const bool input = std::count(source.paths.begin(), source.paths.end(), "-") > 0;
    if (input != source.IsInput()) throw UsageError("- and --as NAME belong together");
    if (input && source.paths.size() > 1) throw UsageError("- cannot be given with other paths");
    if (input && ParsePath(source.as).empty()) throw UsageError("--as needs a name");
}

bool Confirmed(bool yes, const std::string& question, const std::string& answer) {
    if (yes) return true;
    if (isatty(STDIN_FILENO) != 1) {
        throw UsageError(question + ": refused without --yes (there is no terminal to ask on)");
    }
    fmt::print(stderr, "{}? Type \"{}\" to go on: ", Printable(question), Printable(answer));
    return ReadLine(STDIN_FILENO) == answer;
}

CommandLine::CommandLine() {
    app_.option_defaults()->disable_flag_override();  // "--json=no" would be a flag that is not set
    app_.formatter(std::make_shared<Formatter>());
    app_.get_formatter()->column_width(26);
    app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app_.fallthrough();
    app_.require_subcommand(1);
    app_.footer(
        "Environment:\n"
        "  The variable behind Env: is used if the option is not given. TSMCTL_PASSWORD is the\n"
        "  password if no file is given; without either, tsmctl asks for it on the terminal.\n\n"
        "Exit status:\n"
        "  0  everything was done, and verify found no difference\n"
        "  1  something failed or differs, each on a line of its own; the rest was done\n"
        "  2  the command line makes no sense, or there was nobody to ask: nothing was changed\n"
        "  128 + the number of the signal that ended it\n\n"
        "'tsmctl help COMMAND' shows a command's options and examples, 'man tsmctl' everything.");
    AddCommonOptions();
}

void CommandLine::AddCommonOptions() {
    app_.set_help_flag("-h,--help", "show this help");
    app_.set_version_flag("--version", std::string("tsmctl ") + TSMCTL_VERSION, "show the version");
    const auto add = [this](const char* name, std::string& value, const char* type, const char* description) {
        return app_.add_option(name, value, description)->type_name(type);
    };
    add("--config", connection_.config, fileType, "options file of the client API")->envname("TSMCTL_CONFIG");
    add("--log-dir", connection_.logDir, folderType, "where the client API keeps its error log")
        ->envname("TSMCTL_LOG_DIR");
    add("--api-dir", connection_.apiDir, folderType, "where the client API is installed");
    add("--node", connection_.node, "NAME", "node to sign on as (default: the host name)")->envname("TSMCTL_NODE");
    add("--owner", connection_.owner, "NAME", "owner to sign on as");
    add("--filespace", connection_.filespace, "NAME", "filespace to work in")
        ->capture_default_str()
        ->envname("TSMCTL_FILESPACE");
    add("--password-file", connection_.passwordFile, fileType, "file whose first line is the password")
        ->envname("TSMCTL_PASSWORD_FILE");
    AddNumber(app_, "--retries", "NUMBER", "further tries after failures that may pass", 0, 1000, connection_.retries)
        ->default_str(std::to_string(connection_.retries))
        ->envname("TSMCTL_RETRIES");
    app_.add_flag("-q,--quiet", output_.quiet, "no progress, no summary");
    app_.add_flag("-v,--verbose", output_.verbose, "name each object that something is done to");
    app_.add_flag("--json", output_.json, "one JSON object a line, the last a summary");
}

void CommandLine::AddDryRun(CLI::App& command) {
    command.add_flag("--dry-run", output_.dryRun, "change nothing, only tell what would be done");
}

CLI::App& CommandLine::Add(const std::string& name, const std::string& description,
                           const std::vector<std::string>& examples, RunFunction run) {
    CLI::App* const command = app_.add_subcommand(name, description)->group("Commands");
    command->footer(
        fmt::format("Examples:\n  {}\n\nThe options of 'tsmctl --help' can be given before or after the command.",
                    fmt::join(examples, "\n  ")));
    command->get_help_ptr()->disable_flag_override();
    runs_[command] = std::move(run);
    return *command;
}

// CLI11 takes the next argument as the value of "--to=", and of "--to" even where that is an option.
void CommandLine::CheckValues(const std::vector<std::string>& arguments) const {
    std::vector<const CLI::App*> apps = app_.get_subcommands({});
    apps.push_back(&app_);
    for (auto typed = arguments.begin(); typed != arguments.end() && *typed != "--"; ++typed) {
        if (typed->empty() || typed->front() != '-') continue;
        const auto takesValue = [&](const CLI::App* app) {
            const CLI::Option* const option = app->get_option_no_throw(*typed);
            return option && option->get_expected_max() > 0;
        };
        const bool isOption = typed + 1 != arguments.end() && typed[1].size() > 1 && typed[1].front() == '-';
        const bool missing = isOption && std::any_of(apps.begin(), apps.end(), takesValue);
        if (missing || typed->find('=') == typed->size() - 1) throw UsageError(*typed + " needs a value");
    }
}

const CLI::App& CommandLine::Parse(int argc, char** argv) {
    CheckValues({argv + 1, argv + argc});
    app_.parse(argc, argv);
    if (connection_.filespace.empty()) throw UsageError("--filespace needs a name");
    if (connection_.node.empty()) connection_.node = HostName();
    return *app_.get_subcommands().at(0);
}

// An argument that has no place is told first: CLI11 sees what is missing instead.
std::string CommandLine::UsageText(const CLI::ParseError& error) const {
    const std::vector<std::string> rest = app_.remaining(true);
    const auto typed = app_.get_subcommands();
    return fmt::format("{} (see 'tsmctl {}--help')", rest.empty() ? error.what() : "unexpected argument: " + rest[0],
                       typed.empty() ? "" : typed[0]->get_name() + " ");
}

int CommandLine::Run(int argc, char** argv) {
    const CLI::App* command = nullptr;
    std::ostringstream help;
    try {
        command = &Parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) throw UsageError(UsageText(error));
        app_.exit(error, help);
    }
    Report report(output_);
    Connection connection(connection_);
    Context context = {connection, report};
    try {
        command ? runs_.at(command)(context) : report.Text(help.str());
    } catch (const Failure& failure) {
        report.Failed("", failure.what());
    }
    if (report.Succeeded(command ? command->get_name() : "help", context.status == 0)) return context.status;
    const std::string log = connection.GrownLog();
    if (!log.empty()) PrintMessage("the client API's log has more: " + log);
    return 1;
}

}  // namespace tsmctl
