// list and find: print the objects that paths choose, or that patterns match, as a table or as JSON.
#include <fmt/format.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "Arguments.h"
#include "Chosen.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct ListOptions {
    Chosen chosen;
    Exclusions wanted;  // of find
    std::string type = "any";
};

nlohmann::ordered_json JsonOf(const StoredObject& object) {
    nlohmann::ordered_json line;
    line["path"] = object.ObjectPath();
    line["kind"] = KindName(object.GetKind());
    line["size"] = nullptr;
    line["mode"] = nullptr;
    line["mtime"] = nullptr;
    if (object.Size()) line["size"] = *object.Size();
    if (object.info) {
        line["mode"] = ModeText(object.info->mode);
        line["mtime"] = TimeText(object.info->mtime);
    }
    line["backupDate"] = object.date;
    line["filespace"] = object.fileSpace;
    line["info"] = object.text;
    line["active"] = object.active;
    line["storedName"] = PercentEncoded(object.StoredPath());
    return line;
}

class Table {
public:
    Table(Report& report, bool withVersions) : report_(report), withVersions_(withVersions) {
        if (terminal_) {
            report.Line(fmt::format("{:<9}  {:>4}  {:>{}}  {:<19}  {}path", "kind", "mode", "size", width_, "stored",
                                    withVersions ? "version   " : ""));
        }
    }

    void Print(const StoredObject& object) {
        const char* const version = !withVersions_ ? "" : object.active ? "active    " : "inactive  ";
        const std::string mode = object.info ? ModeText(object.info->mode) : "-";
        report_.Entry(fmt::format("{:<9}  {:>4}  {:>{}}  {}  {}", KindName(object.GetKind()), mode, SizeText(object),
                                  width_, object.date, version) +
                      object.ObjectPath());
    }

private:
    std::string SizeText(const StoredObject& object) const {
        if (!object.Size() || object.directory) return "-";
        return terminal_ ? HumanSize(static_cast<double>(*object.Size())) : std::to_string(*object.Size());
    }

    Report& report_;
    const bool withVersions_;
    const bool terminal_ = isatty(STDOUT_FILENO) == 1;
    const size_t width_ = terminal_ ? 10 : 12;
};

void ListObjects(ListOptions options, Context& context) {
    Selection& selection = options.chosen.selection;
    selection.marked = selection.allVersions || (context.report.IsJson() && !selection.at.empty());
    selection.objectType = options.type == "dir"    ? TSM_OBJECTS_DIRECTORIES
                           : options.type == "file" ? TSM_OBJECTS_FILES
                                                    : TSM_OBJECTS_ANY;
    options.chosen.Patterns();
    Session session(context.connection);
    std::optional<Table> table;
    if (!context.report.IsJson()) table.emplace(context.report, selection.allVersions);
    Walk(context, session, options.chosen, [&](const std::vector<StoredObject>& versions, const Parts& plain, size_t) {
        for (const StoredObject& object : versions) {
            context.report.Step();
            if (!options.wanted.patterns.empty() && !options.wanted.LeaveOut(plain, object.directory)) continue;
            context.report.Count(object.GetKind());
            if (table) {
                table->Print(object);
            } else {
                context.report.Json(JsonOf(object));
            }
        }
        return true;
    });
}

void AddType(CLI::App& command, ListOptions& options) {
    AddChoice(command, "--type", options.type, "kind of object", {"any", "dir", "file"})->capture_default_str();
}

}  // namespace

void AddFind(CommandLine& line) {
    const auto options = std::make_shared<ListOptions>();
    CLI::App& command =
        line.Add("find", "Find objects by their names, with all versions",
                 {"tsmctl find '*.txt'", "tsmctl find docs/a.txt --in nightly --json"}, [options](Context& context) {
                     options->chosen.selection.allVersions = options->chosen.selection.at.empty();
                     ListObjects(*options, context);
                 });
    command.add_option("PATTERN", options->wanted.patterns, "what the end of a path matches, may hold * and ?")
        ->type_name("PATTERN")
        ->expected(-1)
        ->required();
    command.add_option("--in", options->chosen.paths, "object path (default: everything)")
        ->type_name("OBJECT")
        ->allow_extra_args(false);
    AddMoment(command, options->chosen.selection.at, "only what was active at 'YYYY-MM-DD HH:MM:SS', server time");
    AddType(command, *options);
}

void AddList(CommandLine& line) {
    const auto options = std::make_shared<ListOptions>();
    CLI::App& command =
        line.Add("list", "List what is stored",
                 {"tsmctl list", "tsmctl list 'nightly/docs/*.txt'", "tsmctl list nightly/docs --all-versions",
                  "tsmctl list nightly --type file --json", "tsmctl list nightly --at '2024-01-31 23:59:59'"},
                 [options](Context& context) { ListObjects(*options, context); });
    CLI::Option* const at = AddChosen(command, options->chosen, "object path, may hold * and ? (default: everything)");
    AddType(command, *options);
    command.add_flag("--all-versions", options->chosen.selection.allVersions, "also inactive versions")->excludes(at);
}

}  // namespace tsmctl
