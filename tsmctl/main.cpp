#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <sstream>

#include "Commands.h"
#include "Completion.h"
#include "ErrorLog.h"
#include "Errors.h"
#include "HelpFormatter.h"
#include "LocalTree.h"
#include "ObjectNames.h"
#include "UsageText.h"

namespace tsmctl {
namespace {

using Function = void (*)(Context&);

struct Command {
    CLI::App* app;
    Function run;  // null for what needs no server
};

std::string HostName() {
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "localhost";
}

// All six parts, with leading zeros or, as the server writes them, without; a moment of the calendar. Empty when it is.
std::string CheckMoment(const std::string& text) {
    int year = 0;
    std::tm date = {};
    std::sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d", &year, &date.tm_mon, &date.tm_mday, &date.tm_hour,
                &date.tm_min, &date.tm_sec);
    const auto written = [&](const char* form) {
        return fmt::format(fmt::runtime(form), year, date.tm_mon, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
    };
    bool real = text == written("{:04}-{:02}-{:02} {:02}:{:02}:{:02}") || text == written("{}-{}-{} {}:{}:{}");
    date.tm_year = year - 1900;
    date.tm_mon -= 1;
    const std::tm typed = date;
    timegm(&date);  // carries what is out of range
    real = real && year > 0 && date.tm_mon == typed.tm_mon && date.tm_mday == typed.tm_mday &&
           date.tm_hour == typed.tm_hour && date.tm_min == typed.tm_min && date.tm_sec == typed.tm_sec;
    return real ? "" : "not a moment like '2024-01-31 23:59:59': " + text;
}

void AddCommonOptions(CLI::App& app, Options& options) {
    app.set_help_flag("-h,--help", "show this help");
    app.set_version_flag("--version", std::string("tsmctl ") + TSMCTL_VERSION, "show the version");
    const auto add = [&](const char* name, std::string& value, const char* type, const char* description) {
        return app.add_option(name, value, description)->type_name(type);
    };
    add("--config", options.config, fileType, "options file of the client API")->envname("TSMCTL_CONFIG");
    add("--log-dir", options.logDir, folderType, "where the client API keeps its error log")->envname("TSMCTL_LOG_DIR");
    add("--api-dir", options.apiDir, folderType, "where the client API is installed");
    add("--node", options.node, "NAME", "node to sign on as (default: the host name)")->envname("TSMCTL_NODE");
    add("--owner", options.owner, "NAME", "owner to sign on as");
    add("--filespace", options.filespace, "NAME", "filespace to work in")
        ->capture_default_str()
        ->envname("TSMCTL_FILESPACE");
    add("--password-file", options.passwordFile, fileType, "its first line is the password")
        ->envname("TSMCTL_PASSWORD_FILE");
    app.add_flag("-q,--quiet", options.quiet, "no progress, no summary");
}

// For what needs no server. Returns the exit status.
int Print(const std::string& text) {
    std::puts(text.substr(0, text.find_last_not_of('\n') + 1).c_str());
    return Report(true).AllDone() ? 0 : 1;
}

class CommandLine {
public:
    explicit CommandLine(Options& target) : options_(target) {
        app_.formatter(std::make_shared<HelpFormatter>());
        app_.fallthrough();
        app_.require_subcommand(1);
        app_.footer(
            "Environment:\n"
            "  A variable in [brackets] stands in for the option. TSMCTL_PASSWORD is the password\n"
            "  where no file is named; without either, it is asked for on the terminal.\n\n"
            "Exit status:\n"
            "  0  all was done, and verify found no difference\n"
            "  1  something failed or differs, as told in a line each; the rest was done\n"
            "  2  the command line makes no sense, or nobody could be asked: nothing was changed\n"
            "  128 and the number of the signal, where one ended it\n\n"
            "'tsmctl help COMMAND' gives a command's options and examples, man tsmctl the rest.");
        AddCommonOptions(app_, options_);
        AddTransfers();
        AddInventory();
        AddServer();
        Add("completion", "Print the completion for bash",
            {"tsmctl completion > tsmctl.bash", "source <(tsmctl completion)"}, nullptr);
        CLI::App* const help =
            Add("help", "Show this help, or that of a command", {"tsmctl help", "tsmctl help backup"}, nullptr);
        std::vector<std::string> names;
        for (const Command& command : commands_) names.push_back(command.app->get_name());
        AddChoice(help, "COMMAND", options_.topic, "the command", names);
        for (const Command& command : commands_) RefuseValuesOfFlags(*command.app);
        RefuseValuesOfFlags(app_);
    }

    // The function of the command that was typed. Throws CLI::ParseError and UsageError.
    Function Parse(int argc, char** argv) {
        RefuseEmptyValues({argv, argv + argc});
        app_.parse(argc, argv);
        for (const Command& command : commands_) {
            if (command.app->parsed()) RefuseOptionsAsValues(*command.app);
        }
        if (options_.filespace.empty()) throw UsageError("--filespace needs a name");
        if (app_.get_subcommand("restore")->count("--to") > 0 && options_.to.empty()) {
            throw UsageError("restore --to needs a folder, or - for standard output");
        }
        const bool input = std::find(options_.paths.begin(), options_.paths.end(), "-") != options_.paths.end();
        const bool transfers = app_.got_subcommand("backup") || app_.got_subcommand("verify");
        if (transfers && input != !options_.as.empty()) throw UsageError("- and --as NAME belong together");
        if (transfers && input && options_.paths.size() > 1) throw UsageError("- stands alone");
        if (transfers && input && ParsePath(options_.as).empty()) throw UsageError("--as needs a name");
        if (options_.size && !input) throw UsageError("--size belongs to -");
        if (options_.node.empty()) options_.node = HostName();
        for (const Command& command : commands_) {
            if (command.app->parsed()) return command.run;
        }
        throw UsageError("no command");
    }

    // What the commands without a server print.
    std::string Text() const {
        if (app_.got_subcommand("completion")) return CompletionScript(app_);
        const CLI::App* const about = options_.topic.empty() ? &app_ : app_.get_subcommand(options_.topic);
        const std::string name = options_.topic.empty() ? "tsmctl" : "tsmctl " + options_.topic;
        return app_.get_formatter()->make_help(about, name, CLI::AppFormatMode::Normal);
    }

    int Explain(const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            std::ostringstream text;
            app_.exit(error, text);
            return Print(text.str());
        }
        Tell(UsageText(app_, error));
        return 2;
    }

private:
    CLI::App* Add(const char* name, const char* description, const std::vector<std::string>& examples, Function run) {
        CLI::App* const command = app_.add_subcommand(name, description);
        std::string footer = "Examples:\n";
        for (const std::string& example : examples) footer += "  " + example + "\n";
        command->footer(footer + "\nThe options of 'tsmctl --help' may stand before or after the command.");
        commands_.push_back({command, run});
        return command;
    }

    // The type tells whether these are local files.
    CLI::Option* AddPaths(CLI::App* command, const char* name, const char* type, const char* description, int count) {
        CLI::Option* const paths = command->add_option(name, options_.paths, description)->type_name(type);
        return paths->expected(count)->allow_extra_args(count < 0);
    }

    void AddAt(CLI::App* command, const char* description) {
        command->add_option("--at", options_.at, description)->type_name("MOMENT")->check(CheckMoment);
    }

    // Decimal only. What CLI11 reads as a number may also be octal, and is cut down where it is too large.
    static CLI::Option* AddNumber(CLI::App* command, const char* name, const char* type, const char* description,
                                  long long least, long long most, const std::function<void(long long)>& take) {
        const auto parse = [](const std::string& text) {
            long long number = -1;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
            return error == std::errc() && end == text.data() + text.size() ? number : -1;
        };
        const auto check = [=](const std::string& text) -> std::string {
            if (parse(text) >= least && parse(text) <= most) return "";
            const std::string typed = text.size() > 40 ? text.substr(0, 40) + "..." : text;
            return fmt::format("a whole number from {} to {} is needed, not '{}'", least, most, typed);
        };
        return command->add_option_function<std::string>(name, [=](const std::string& text) { take(parse(text)); })
            ->description(description)
            ->type_name(type)
            ->check(check);
    }

    // To CLI11 the value of "--to=" is the next argument, which would then be missing where it belongs.
    static void RefuseEmptyValues(const std::vector<std::string>& arguments) {
        for (const std::string& typed : arguments) {
            if (typed == "--") return;
            if (typed.size() < 4 || typed.compare(0, 2, "--") != 0 || typed.find('=') != typed.size() - 1) continue;
            throw UsageError(typed + " has nothing behind it; an empty value is an argument of its own");
        }
    }

    // Nor does CLI11 see that a value is missing where the option that follows is not of the same level.
    void RefuseOptionsAsValues(const CLI::App& command) const {
        for (const CLI::App* const owner : {&app_, &command}) {
            for (const CLI::Option* option : owner->get_options({})) {
                for (const std::string& value : option->results()) {
                    if (option->get_positional() || value.size() < 2 || value[0] != '-') continue;
                    const std::string name = value.substr(0, value[1] == '-' ? value.find('=') : 2);
                    if (name == "--" || app_.get_option_no_throw(name) || command.get_option_no_throw(name)) {
                        throw UsageError(fmt::format("{} needs a value, not {}", option->get_name(), value));
                    }
                }
            }
        }
    }

    static void RefuseValuesOfFlags(CLI::App& command) {
        for (CLI::Option* option :
             command.get_options([](const CLI::Option* o) { return o->get_expected_max() == 0; })) {
            option->disable_flag_override();
        }
    }

    void AddJobs(CLI::App* command) {
        AddNumber(command, "-j,--jobs", "NUMBER", "sessions at the same time, 1 to 64", 1, 64,
                  [this](long long number) { options_.jobs = static_cast<int>(number); })
            ->default_str(std::to_string(options_.jobs));
    }

    static CLI::Option* AddChoice(CLI::App* command, const char* name, std::string& value, const char* description,
                                  const std::vector<std::string>& choices) {
        const auto check = [choices](const std::string& text) -> std::string {
            if (std::count(choices.begin(), choices.end(), text) > 0) return "";
            return fmt::format("one of {} is needed, not '{}'", fmt::join(choices, ", "), text) +
                   Suggestion(text, choices);
        };
        return command->add_option(name, value, description)
            ->type_name(fmt::format("{}", fmt::join(choices, "|")))
            ->check(check);
    }

    void AddTransfers() {
        CLI::App* const backup = Add("backup", "Store files, links and whole trees, or standard input",
                                     {"tsmctl backup docs --to nightly -j 4", "tsmctl backup docs/a.txt docs/b.txt",
                                      "tar -c docs | tsmctl backup - --as dumps/docs.tar"},
                                     RunBackup);
        AddPaths(backup, "PATH", fileType, "what to store, under its last part; - is standard input", -1)->required();
        backup->add_option("--class", options_.mgmtClass, "management class (default: the server's choice)")
            ->type_name("NAME");
        AddNumber(backup, "--size", "BYTES", "of standard input, where it is known", 0, LLONG_MAX,
                  [this](long long number) { options_.size = number; });
        CLI::App* const verify = Add("verify", "Compare what is stored with the local files, byte for byte",
                                     {"tsmctl verify docs --to nightly -j 4",
                                      "tsmctl restore dumps/docs.tar --to - | tsmctl verify - --as dumps/docs.tar"},
                                     RunVerify);
        AddPaths(verify, "PATH", fileType, "what was stored, as it was given to backup", -1)->required();
        for (CLI::App* const command : {backup, verify}) {
            command->add_option("--to", options_.to, "directory among the objects (default: the top)")
                ->type_name("PATH");
            command->add_option("--as", options_.as, "object path for standard input, below --to")->type_name("PATH");
            AddJobs(command);
        }
        CLI::App* const restore =
            Add("restore", "Bring back one object or a whole tree",
                {"tsmctl restore nightly/docs --to restored -j 4",
                 "tsmctl restore nightly/docs/a.txt --to january --at '2024-01-31 23:59:59'",
                 "tsmctl restore dumps/docs.tar --to - | tar -t", "tsmctl restore / --to everything"},
                RunRestore);
        AddPaths(restore, "PATH", "OBJECT", "object path; / is everything", 1)->required();
        restore->add_option("--to", options_.to, "where to (default: here); - is standard output")
            ->type_name(folderType);
        restore->add_flag("--force", options_.force, "replace files that exist");
        AddAt(restore, "as things were at 'YYYY-MM-DD HH:MM:SS', server time");
        AddJobs(restore);
    }

    void AddInventory() {
        CLI::App* const list =
            Add("list", "List what is stored",
                {"tsmctl list", "tsmctl list 'nightly/docs/*.txt'", "tsmctl list nightly/docs --all-versions",
                 "tsmctl list nightly --type file --json", "tsmctl list nightly --at '2024-01-31 23:59:59'"},
                RunList);
        AddPaths(list, "PATH", "OBJECT", "object path, may hold * and ? (default: everything)", 1);
        AddChoice(list, "--type", options_.type, "kind of object", {"any", "dir", "file"})->capture_default_str();
        list->add_flag("--json", options_.json, "one JSON object a line");
        list->add_flag("--all-versions", options_.allVersions, "inactive versions too");
        AddAt(list, "as things were at 'YYYY-MM-DD HH:MM:SS', server time");
        list->get_option("--at")->excludes("--all-versions");
        CLI::App* const remove =
            Add("delete", "Delete objects; older versions stay, unless --all-versions is given",
                {"tsmctl delete nightly/docs/a.txt", "tsmctl delete 'nightly/docs/*.txt' --yes",
                 "tsmctl delete nightly/docs --recursive --yes", "tsmctl delete dumps/docs.tar --all-versions"},
                RunDelete);
        AddPaths(remove, "PATH", "OBJECT", "object path, its last part may hold * and ?", -1)->required();
        remove->add_flag("--recursive", options_.recursive, "with all that lies below");
        remove->add_flag("--all-versions", options_.allVersions, "every version, for good");
        AddAt(remove, "only what was current at 'YYYY-MM-DD HH:MM:SS', server time");
        remove->add_flag("--yes", options_.yes, "do not ask before more than one object goes");
        for (CLI::App* const command : {list, remove}) {
            command->add_flag("--literal", options_.literal, "take * and ? in PATH as they are");
        }
        CLI::App* const rename =
            Add("rename", "Give an object or a tree a new object path, with all its versions",
                {"tsmctl rename nightly/docs archive/docs-2024", "tsmctl rename dumps/docs.tar dumps/latest.tar --yes"},
                RunRename);
        // Names of positionals hold no blank: newer versions of CLI11 refuse one.
        rename->add_option("OLD", options_.oldPath, "the object path")->type_name("OBJECT")->required();
        rename->add_option("NEW", options_.newPath, "its new object path")->type_name("OBJECT")->required();
        rename->add_flag("--yes", options_.yes, "replace what is stored at NEW without asking");
    }

    void AddServer() {
        CLI::App* const spaces = Add("filespaces", "List the node's filespaces",
                                     {"tsmctl filespaces", "tsmctl filespaces --json"}, RunFilespaces);
        CLI::App* const classes =
            Add("classes", "List the management classes", {"tsmctl classes", "tsmctl classes --json"}, RunClasses);
        for (CLI::App* const command : {spaces, classes}) {
            command->add_flag("--json", options_.json, "one JSON object a line");
        }
        CLI::App* const remove = Add("delete-filespace", "Delete a filespace with everything in it, for good",
                                     {"tsmctl delete-filespace old-host --yes"}, RunDeleteFilespace);
        AddPaths(remove, "NAME", "NAME", "the filespace", 1)->required();
        remove->add_flag("--yes", options_.yes, "do not ask");
        CLI::App* const grant = Add("grant", "Let another node read the filespace",
                                    {"tsmctl grant NODE2", "tsmctl grant NODE2 --filespace shared"}, RunGrant);
        AddPaths(grant, "NODE", "NAME", "the node that gets access", 1)->required();
    }

    CLI::App app_{"Stores files on a TSM server and brings them back.", "tsmctl"};
    Options& options_;
    std::vector<Command> commands_;
};

int Run(int argc, char** argv) {
    Options options;
    CommandLine commandLine(options);
    Function command = nullptr;
    try {
        command = commandLine.Parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return commandLine.Explain(error);
    }
    if (!command) return Print(commandLine.Text());
    options.logDir = LogFolder(options.logDir);
    const LogWatch log(options.logDir);
    Report report(options.quiet);
    try {
        const Connection connection(options);
        Context context = {options, connection, report};
        command(context);
    } catch (const Failure& failure) {
        report.Failed(failure.what());
    }
    if (report.AllDone()) return 0;
    if (log.Changed()) Tell("the client API's log has more: " + log.Path());
    return 1;
}

}  // namespace

int Main(int argc, char** argv) try {
    ReserveStandardStreams();
    CatchSignals();
    return Run(argc, argv);
} catch (const Interrupted&) {
    Tell("stopped by a signal");
    return 128 + PendingSignal();
} catch (const UsageError& error) {
    Tell(error.what());
    return 2;
} catch (const std::exception& error) {
    Tell(error.what());
    return 1;
}

}  // namespace tsmctl

int main(int argc, char** argv) {
    return tsmctl::Main(argc, argv);
}
