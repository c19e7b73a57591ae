#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>

#include "commands.h"
#include "errors.h"
#include "names.h"

namespace {
struct Command {
    CLI::App* app;
    void (*run)(Context&);
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
    app.set_version_flag("--version", std::string("tsmctl ") + TSMCTL_VERSION);
    app.add_option("--config", options.config, "options file of the client API")->envname("TSMCTL_CONFIG");
    app.add_option("--log-dir", options.logDir, "folder for the client API's error log")->envname("TSMCTL_LOG_DIR");
    app.add_option("--api-dir", options.apiDir, "the client API's installation folder");
    app.add_option("--node", options.node, "node to sign on as (default: the host name)")->envname("TSMCTL_NODE");
    app.add_option("--owner", options.owner, "owner name for the sign-on");
    app.add_option("--filespace", options.filespace, "filespace to work in")
        ->capture_default_str()
        ->envname("TSMCTL_FILESPACE");
    app.add_option("--password-file", options.passwordFile,
                   "file whose first line is the password (else TSMCTL_PASSWORD, else a question)")
        ->envname("TSMCTL_PASSWORD_FILE");
    app.add_flag("-q,--quiet", options.quiet, "no progress, no summary");
}

class CommandLine {
public:
    explicit CommandLine(Options& target) : options(target) {
        app.fallthrough();
        app.require_subcommand(1);
        app.footer(
            "Exit status: 0 all done, 1 something failed, 2 the command line is wrong.\n'tsmctl COMMAND --help' "
            "tells more about a command.");
        AddCommonOptions(app, options);
        AddTransfers();
        AddInventory();
        AddServer();
    }

    // The function of the command that was typed. Throws CLI::ParseError and UsageError.
    std::function<void(Context&)> Parse(int argc, char** argv) {
        app.parse(argc, argv);
        if (options.filespace.empty()) throw UsageError("--filespace needs a name");
        if (app.get_subcommand("restore")->count("--to") > 0 && options.to.empty()) {
            throw UsageError("restore --to needs a folder, or - for standard output");
        }
        const bool input = std::find(options.paths.begin(), options.paths.end(), "-") != options.paths.end();
        const bool transfers = app.got_subcommand("backup") || app.got_subcommand("verify");
        if (transfers && input != !options.as.empty()) throw UsageError("- and --as NAME belong together");
        if (transfers && input && options.paths.size() > 1) throw UsageError("- stands alone");
        if (transfers && input && ParsePath(options.as).empty()) throw UsageError("--as needs a name");
        if (options.size && !input) throw UsageError("--size belongs to -");
        if (options.node.empty()) options.node = HostName();
        for (const Command& command : commands) {
            if (command.app->parsed()) return command.run;
        }
        throw UsageError("no command");
    }

    int Explain(const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        const auto rest = app.remaining();
        const bool unknown = app.get_subcommands().empty() && !rest.empty() && rest[0].compare(0, 1, "-") != 0;
        fmt::print(stderr, "tsmctl: {}\n", unknown ? "no such command: " + Printable(rest[0]) : error.what());
        return 2;
    }

private:
    CLI::App* Add(const char* name, const char* description, const char* example, void (*run)(Context&)) {
        CLI::App* const command = app.add_subcommand(name, description);
        command->footer(std::string("Example: tsmctl ") + example);
        commands.push_back({command, run});
        return command;
    }

    CLI::Option* AddPaths(CLI::App* command, const char* name, const char* description, int count) {
        return command->add_option(name, options.paths, description)->expected(count)->allow_extra_args(count < 0);
    }

    void AddAt(CLI::App* command) {
        command->add_option("--at", options.at, "the versions of this moment, 'YYYY-MM-DD HH:MM:SS' of the server")
            ->check(CheckMoment);
    }

    void AddJobs(CLI::App* command) {
        command->add_option("-j,--jobs", options.jobs, "sessions that work at the same time")
            ->capture_default_str()
            ->check(CLI::Range(1, 64));
    }

    void AddTransfers() {
        CLI::App* const backup = Add("backup", "Store files, links and whole trees, or standard input",
                                     "backup /usr/share/doc --to nightly -j 4\n"
                                     "         pg_dump db | tsmctl backup - --as dumps/db.sql",
                                     RunBackup);
        AddPaths(backup, "PATH", "what to store, each under its last part; - for standard input", -1)->required();
        backup->add_option("--class", options.mgmtClass, "management class");
        backup->add_option("--size", options.size, "bytes of standard input, where known")
            ->check(CLI::NonNegativeNumber);
        CLI::App* const verify = Add("verify", "Compare stored objects with the local files, byte for byte",
                                     "verify /usr/share/doc --to nightly -j 4", RunVerify);
        AddPaths(verify, "PATH", "what was stored, as it was given to backup", -1)->required();
        for (CLI::App* const command : {backup, verify}) {
            command->add_option("--to", options.to, "directory among the objects (default: the top)");
            command->add_option("--as", options.as, "object path for standard input");
            AddJobs(command);
        }
        CLI::App* const restore = Add("restore", "Bring back one object or a whole tree",
                                      "restore nightly/doc --to /tmp --at '2024-01-31 23:59:59'", RunRestore);
        AddPaths(restore, "PATH", "object path; / for everything", 1)->required();
        restore->add_option("--to", options.to, "folder to restore into (default: .), - for standard output");
        restore->add_flag("--force", options.force, "replace files that exist");
        AddAt(restore);
        AddJobs(restore);
    }

    void AddInventory() {
        CLI::App* const list = Add("list", "List what is stored", "list 'nightly/doc/*.gz' --json", RunList);
        AddPaths(list, "PATH", "object path, may hold * and ? (default: everything)", 1);
        list->add_option("--type", options.type, "kind of object")
            ->capture_default_str()
            ->check(CLI::IsMember({"any", "dir", "file"}));
        list->add_flag("--json", options.json, "one JSON object a line");
        CLI::App* const remove =
            Add("delete", "Delete objects; without --all-versions only the active version goes, also with --at",
                "delete --recursive nightly/doc", RunDelete);
        AddPaths(remove, "PATH", "object path, its last part may hold * and ?", -1)->required();
        remove->add_flag("--recursive", options.recursive, "with all that lies below");
        remove->add_flag("--yes", options.yes, "do not ask");
        for (CLI::App* const command : {list, remove}) {
            command->add_flag("--all-versions", options.allVersions, "inactive versions too");
            command->add_flag("--literal", options.literal, "take * and ? in PATH as they are");
            AddAt(command);
        }
        list->get_option("--at")->excludes("--all-versions");
        CLI::App* const rename = Add("rename", "Give an object or a tree a new object path",
                                     "rename nightly/doc archive/doc-2024", RunRename);
        AddPaths(rename, "OLD NEW", "the object path, and what it becomes", 2)->required();
        rename->add_flag("--yes", options.yes, "replace what is stored at NEW without asking");
    }

    void AddServer() {
        CLI::App* const spaces = Add("filespaces", "List the node's filespaces", "filespaces --json", RunFilespaces);
        CLI::App* const classes = Add("classes", "List the management classes", "classes", RunClasses);
        for (CLI::App* const command : {spaces, classes}) {
            command->add_flag("--json", options.json, "one JSON object a line");
        }
        CLI::App* const remove = Add("delete-filespace", "Delete a filespace with everything in it",
                                     "delete-filespace old-host --yes", RunDeleteFilespace);
        AddPaths(remove, "NAME", "the filespace", 1)->required();
        remove->add_flag("--yes", options.yes, "do not ask");
        CLI::App* const grant =
            Add("grant", "Let another node read the filespace", "grant NODE2 --filespace shared", RunGrant);
        AddPaths(grant, "NODE", "the node that gets access", 1)->required();
    }

    CLI::App app{"Stores files on a TSM server and brings them back."};
    Options& options;
    std::vector<Command> commands;
};

int Run(int argc, char** argv) {
    Options options;
    CommandLine commandLine(options);
    std::function<void(Context&)> command;
    try {
        command = commandLine.Parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return commandLine.Explain(error);
    }
    Report report(options.quiet);
    try {
        const Connection connection(options);
        Context context = {options, connection, report};
        command(context);
    } catch (const Failure& failure) {
        fmt::print(stderr, "tsmctl: {}\n", Printable(failure.what()));
        report.AllDone();
        return 1;
    }
    return report.AllDone() ? 0 : 1;
}
}  // namespace

int main(int argc, char** argv) try {
    CatchSignals();
    return Run(argc, argv);
} catch (const Interrupted&) {
    fmt::print(stderr, "tsmctl: stopped by a signal\n");
    return 128 + PendingSignal();
} catch (const UsageError& error) {
    fmt::print(stderr, "tsmctl: {}\n", Printable(error.what()));
    return 2;
} catch (const std::exception& error) {
    fmt::print(stderr, "tsmctl: {}\n", Printable(error.what()));
    return 1;
}
