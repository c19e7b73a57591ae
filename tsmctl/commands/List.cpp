// list and find: print the objects that paths choose, or that patterns match, as a table or as JSON.
#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

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
    nlohmann::ordered_json line = {{"path", object.ObjectPath()},
                                   {"kind", KindName(object.GetKind())},
                                   {"size", nullptr},
                                   {"mode", nullptr},
                                   {"mtime", nullptr},
                                   {"backupDate", object.date},
                                   {"filespace", object.fileSpace},
                                   {"info", object.text},
                                   {"active", object.active},
                                   {"storedName", PercentEncoded(object.StoredPath())}};
    if (object.Size()) line["size"] = *object.Size();
    if (object.info) {
        line["mode"] = ModeText(object.info->mode);
        line["mtime"] = TimeText(object.info->mtime);
    }
    return line;
}

void ListObjects(ListOptions options, Context& context) {
    Selection& selection = options.chosen.selection;
    selection.marked = selection.allVersions || (context.report.IsJson() && !selection.at.empty());
    selection.objectType = options.type == "dir"    ? TSM_OBJECTS_DIRECTORIES
                           : options.type == "file" ? TSM_OBJECTS_FILES
                                                    : TSM_OBJECTS_ANY;
    options.chosen.Patterns();
    Session session(context.connection);
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const auto row = [&](const char* kind, const std::string& mode, const std::string& size, const std::string& date,
                         const char* version, const std::string& path) {
        return fmt::format("{:<9}  {:>4}  {:>{}}  {:<19}  {}{}", kind, mode, size, terminal ? 10 : 12, date,
                           selection.allVersions ? fmt::format("{:<8}  ", version) : "", path);
    };
    const auto sizeOf = [&](const StoredObject& object) -> std::string {
        if (!object.Size() || object.directory) return "-";
        return terminal ? HumanSize(static_cast<double>(*object.Size())) : std::to_string(*object.Size());
    };
    const bool json = context.report.IsJson();
    if (terminal && !json) context.report.Line(row("kind", "mode", "size", "stored", "version", "path"));
    Walk(context, session, options.chosen, [&](const std::vector<StoredObject>& versions, const Parts& plain, size_t) {
        for (const StoredObject& object : versions) {
            context.report.Step();
            if (!options.wanted.patterns.empty() && !options.wanted.LeaveOut(plain, object.directory)) continue;
            context.report.Count(object.GetKind());
            if (json) {
                context.report.Json(JsonOf(object));
                continue;
            }
            context.report.Entry(row(KindName(object.GetKind()), object.info ? ModeText(object.info->mode) : "-",
                                     sizeOf(object), object.date, object.active ? "active" : "inactive",
                                     object.ObjectPath()));
        }
        return true;
    });
}

void AddType(CLI::App& command, ListOptions& options) {
    AddChoice(command, "--type", options.type, "kind of object", {"any", "dir", "file"})->capture_default_str();
}

}  // namespace

void AddFind(CommandLine& line) {
    auto [command, options] = line.Add<ListOptions>(
        "find", "Find objects by their names, with all versions",
        {"tsmctl find '*.txt'", "tsmctl find docs/a.txt --in nightly --json"}, [](ListOptions found, Context& context) {
            found.chosen.selection.allVersions = found.chosen.selection.at.empty();
            ListObjects(std::move(found), context);
        });
    AddArguments(command, "PATTERN", options.wanted.patterns, "PATTERN",
                 "what the end of a path matches, may hold * and ?");
    AddRepeatable(command, "--in", options.chosen.paths, "OBJECT", "object path (default: everything)");
    AddMoment(command, options.chosen.selection.at, "only what was active at 'YYYY-MM-DD HH:MM:SS', server time");
    AddType(command, options);
}

void AddList(CommandLine& line) {
    auto [command, options] = line.Add<ListOptions>(
        "list", "List what is stored",
        {"tsmctl list", "tsmctl list 'nightly/docs/*.txt'", "tsmctl list nightly/docs --all-versions",
         "tsmctl list nightly --type file --json", "tsmctl list nightly --at '2024-01-31 23:59:59'"},
        ListObjects);
    CLI::Option* const at = AddChosen(command, options.chosen, "object path, may hold * and ? (default: everything)");
    AddType(command, options);
    command.add_flag("--all-versions", options.chosen.selection.allVersions, "also inactive versions")->excludes(at);
}

}  // namespace tsmctl
