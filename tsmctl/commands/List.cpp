// list: prints the objects that a path selects, as a table or as JSON.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>
#include <vector>

#include "Arguments.h"
#include "Errors.h"
#include "Inventory.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct ListOptions {
    std::string path = "/";
    std::string type = "any";
    std::string at;
    bool allVersions = false;
    bool literal = false;
};

// For each object, whether this version is active now.
std::vector<bool> FindActive(Session& session, const NamePattern& pattern, const Selection& selection,
                             const std::vector<StoredObject>& objects) {
    if (!selection.allVersions && selection.at.empty()) return std::vector<bool>(objects.size(), true);
    Selection now;
    now.objectType = selection.objectType;
    const auto key = [](const StoredObject& object) {
        return std::make_tuple(object.path, object.name, object.directory, object.date, object.text, object.announced);
    };
    std::set<decltype(key(objects[0]))> active;
    for (const StoredObject& object : List(session, pattern, Scope::Tree, now)) active.insert(key(object));
    // Two versions of the same second can look the same. Only one of them is active.
    std::vector<bool> marks;
    for (const StoredObject& object : objects) marks.push_back(active.erase(key(object)) > 0);
    return marks;
}

nlohmann::ordered_json JsonOf(const StoredObject& object, bool active) {
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
    line["active"] = active;
    line["storedName"] = PercentEncoded(object.StoredPath());
    return line;
}

void PrintTable(Report& report, const std::vector<StoredObject>& objects, const std::vector<bool>* active) {
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const auto sizeText = [&](const StoredObject& object) -> std::string {
        if (!object.Size() || object.directory) return "-";
        return terminal ? HumanSize(static_cast<double>(*object.Size())) : std::to_string(*object.Size());
    };
    size_t width = 4;
    for (const StoredObject& object : objects) width = std::max(width, sizeText(object).size());
    if (terminal) {
        report.Line(fmt::format("{:<9}  {:>4}  {:>{}}  {:<19}  {}path", "kind", "mode", "size", width, "stored",
                                active ? "version   " : ""));
    }
    for (size_t i = 0; i < objects.size(); ++i) {
        const StoredObject& object = objects[i];
        const char* const version = !active ? "" : (*active)[i] ? "active    " : "inactive  ";
        const std::string mode = object.info ? ModeText(object.info->mode) : "-";
        report.Entry(fmt::format("{:<9}  {:>4}  {:>{}}  {}  {}", KindName(object.GetKind()), mode, sizeText(object),
                                 width, object.date, version) +
                     object.ObjectPath());
    }
}

Selection SelectionFor(const ListOptions& options) {
    Selection selection;
    selection.allVersions = options.allVersions;
    selection.at = options.at;
    selection.objectType = options.type == "dir"    ? TSM_OBJECTS_DIRECTORIES
                           : options.type == "file" ? TSM_OBJECTS_FILES
                                                    : TSM_OBJECTS_ANY;
    return selection;
}

void ListObjects(const ListOptions& options, Context& context) {
    if (options.path.empty()) throw UsageError("an empty path");
    const NamePattern pattern(ParsePath(options.path), !options.literal);
    const Selection selection = SelectionFor(options);
    Session session(context.connection);
    const auto objects = List(session, pattern, Scope::Tree, selection);
    CheckInterrupt();
    const auto active = FindActive(session, pattern, selection, objects);
    if (objects.empty()) {
        const std::string place =
            fmt::format("in filespace {} of node {}", context.connection.Filespace(), context.connection.Node());
        const bool onePath = !pattern.IsRoot() && !pattern.IsWild() && selection.objectType == TSM_OBJECTS_ANY;
        if (onePath) return context.report.Failed(options.path, NotFound(place).what());
        context.report.Note("nothing to list " + place);
    }
    for (const StoredObject& object : objects) context.report.Count(object.GetKind());
    if (!context.report.IsJson()) return PrintTable(context.report, objects, options.allVersions ? &active : nullptr);
    for (size_t i = 0; i < objects.size(); ++i) context.report.Json(JsonOf(objects[i], active[i]));
}

}  // namespace

void AddList(CommandLine& line) {
    const auto options = std::make_shared<ListOptions>();
    CLI::App& command =
        line.Add("list", "List what is stored",
                 {"tsmctl list", "tsmctl list 'nightly/docs/*.txt'", "tsmctl list nightly/docs --all-versions",
                  "tsmctl list nightly --type file --json", "tsmctl list nightly --at '2024-01-31 23:59:59'"},
                 [options](Context& context) { ListObjects(*options, context); });
    command.add_option("PATH", options->path, "object path, may hold * and ? (default: everything)")
        ->type_name("OBJECT");
    AddChoice(command, "--type", options->type, "kind of object", {"any", "dir", "file"})->capture_default_str();
    CLI::Option* const allVersions = command.add_flag("--all-versions", options->allVersions, "also inactive versions");
    AddMoment(command, options->at, "what was active at 'YYYY-MM-DD HH:MM:SS', server time")->excludes(allVersions);
    AddLiteral(command, options->literal);
}

}  // namespace tsmctl
