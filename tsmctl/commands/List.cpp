#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>
#include <vector>

#include "Commands.h"
#include "Errors.h"
#include "Inventory.h"

namespace tsmctl {
namespace {

// Plain ASCII that stands for exactly these bytes.
std::string Exact(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        text += c > 0x20 && c < 0x7f && c != '%' ? std::string(1, c)
                                                 : fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
    return text;
}

// Which of the objects, sorted as they are, are active versions now.
std::vector<bool> Active(Session& session, const NamePattern& pattern, const Selection& selection,
                         const std::vector<StoredObject>& objects) {
    if (!selection.allVersions && selection.at.empty()) return std::vector<bool>(objects.size(), true);
    Selection now;
    now.objectType = selection.objectType;
    const auto key = [](const StoredObject& object) {
        return std::make_tuple(object.path, object.name, object.directory, object.date, object.text, object.announced);
    };
    std::set<decltype(key(objects[0]))> active;
    for (const StoredObject& object : List(session, pattern, Scope::Tree, now)) active.insert(key(object));
    // Two versions of one second can look the same: just one of them is active.
    std::vector<bool> marks;
    for (const StoredObject& object : objects) marks.push_back(active.erase(key(object)) > 0);
    return marks;
}

nlohmann::ordered_json JsonOf(const StoredObject& object, bool active) {
    nlohmann::ordered_json line;
    line["path"] = object.Shown();
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
    line["storedName"] = Exact(object.path + "/" + object.name);
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
                     object.Shown());
    }
}

}  // namespace

void RunList(Context& context) {
    const Options& options = context.options;
    const std::string typed = options.paths.empty() ? "/" : options.paths[0];
    if (typed.empty()) throw UsageError("an empty path");
    const NamePattern pattern(ParsePath(typed), !options.literal);
    Selection selection;
    selection.allVersions = options.allVersions;
    selection.at = options.at;
    selection.objectType = options.type == "dir" ? 1 : options.type == "file" ? 2 : 0;
    Session session(context.connection);
    const auto objects = List(session, pattern, Scope::Tree, selection);
    CheckInterrupt();
    const auto active = Active(session, pattern, selection, objects);
    if (objects.empty()) {
        const std::string place = fmt::format("in filespace {} of node {}", options.filespace, options.node);
        if (!pattern.IsRoot() && !pattern.IsWild() && selection.objectType == 0) {
            return context.report.Failed(typed, CodeText("not found " + place, -2));
        }
        context.report.Note("nothing to list " + place);
    }
    if (!options.json) return PrintTable(context.report, objects, options.allVersions ? &active : nullptr);
    for (size_t i = 0; i < objects.size(); ++i) context.report.Json(JsonOf(objects[i], active[i]));
}

}  // namespace tsmctl
