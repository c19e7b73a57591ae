// delete: deletes objects and trees, their active versions or all of them, and reports what is gone.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "Arguments.h"
#include "Errors.h"
#include "Inventory.h"
#include "RunRecord.h"
#include "Terminal.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct DeleteOptions {
    std::vector<std::string> paths;
    std::string at;
    bool recursive = false;
    bool allVersions = false;
    bool literal = false;
    bool yes = false;

    // What can go: active versions, or all of them.
    Selection Versions() const { return {allVersions, "", TSM_OBJECTS_ANY}; }
    // An active version can only go if it was also active at the moment.
    bool OnlyActiveAt() const { return !at.empty() && !allVersions; }
};

// The plain name, which gives the order of the report, and the stored one.
using Key = std::pair<Parts, std::string>;

Key KeyOf(const StoredObject& object) {
    return {object.PlainParts(), object.StoredPath()};
}

class Deleter {
public:
    Deleter(const DeleteOptions& options, Report& report, Session& session)
        : options_(options), report_(report), session_(session) {}

    // Adds what the path selects, or throws Failure.
    void Select(const NamePattern& pattern) {
        Selection chosen = options_.Versions();
        chosen.at = options_.at;
        const auto active = List(session_, pattern, Scope::Tree, {});
        const auto candidates = List(session_, pattern, Scope::Tree, chosen);
        const auto below = [&](const StoredObject& object) { return object.PlainParts().size() > pattern.Depth(); };
        if (!options_.recursive) {
            for (const StoredObject& object : active) {
                if (!below(object)) continue;
                throw Failure("is a directory that holds " + object.ObjectPath() + " (use --recursive)");
            }
        }
        bool found = false;
        for (const StoredObject& object : candidates) {
            if (!options_.recursive && below(object)) continue;
            found = true;
            if (Attempt(report_, object.ObjectPath(), [&] { RequireChangeable(session_, object); })) {
                objects_.emplace(KeyOf(object), object);
                if (!object.directory) files_.insert(KeyOf(object));
            } else {
                kept_.push_back(object.StoredParts());
            }
        }
        if (!found) throw NotFound();
        patterns_.push_back(pattern);
    }

    // Comes after every Select. Leaves out objects whose deletion would take a file with it that was not selected, and
    // versions that are not active.
    void LeaveOutUnsafe() {
        FilesAbove above(session_, options_.Versions());
        const auto mayGo = [&](const StoredObject& file) { return files_.count(KeyOf(file)) > 0; };
        const RecordMap before = options_.OnlyActiveAt() ? FindRecords() : RecordMap();
        for (auto entry = objects_.begin(); entry != objects_.end();) {
            const StoredObject& object = entry->second;
            const bool gone = options_.OnlyActiveAt() && before.count(entry->first) == 0;
            const bool safe = Attempt(report_, object.ObjectPath(), [&] {
                if (gone) throw Failure(notActive);
                above.RequireNone(object.PlainParts(), mayGo);
            });
            if (!safe && !gone) kept_.push_back(object.StoredParts());
            entry = safe ? std::next(entry) : objects_.erase(entry);
        }
    }

    size_t Count() const { return objects_.size(); }

    void Delete() {
        const RecordMap before = report_.IsDryRun() ? RecordMap() : FindRecords();
        report_.ExpectBytes(0, objects_.size());
        // A directory can only go when it is empty: files come before directories, and the deepest names first.
        std::vector<const StoredObject*> order;
        for (const auto& entry : objects_) order.push_back(&entry.second);
        std::sort(order.begin(), order.end(), [](const StoredObject* a, const StoredObject* b) {
            return std::make_pair(a->directory, b->StoredParts().size()) <
                   std::make_pair(b->directory, a->StoredParts().size());
        });
        for (const StoredObject* object : order) {
            if (PendingSignal() != 0) break;
            const Parts parts = object->StoredParts();
            if (std::any_of(kept_.begin(), kept_.end(), [&](const Parts& p) { return StartsWith(p, parts); })) continue;
            report_.Step();
            if (report_.IsDryRun()) {
                report_.Did("removed", object->ObjectPath());
                report_.Count(object->GetKind());
            } else if (!Attempt(report_, object->ObjectPath(), [&] { DeleteOne(*object); })) {
                kept_.push_back(parts);
            }
        }
        if (report_.IsDryRun()) return;
        ReportDeleted(before, FindRecords());
    }

private:
    struct Record {
        long long versions = 0;
        Kind kind = Kind::File;
    };
    using RecordMap = std::map<Key, Record>;

    static constexpr const char* notActive = "this version is not active; add --all-versions";

    void DeleteOne(const StoredObject& object) {
        session_.Check("cannot delete", TsmDelete(session_.Handle(), Text(object.path), Text(object.name),
                                                  options_.allVersions ? 1 : 0, TextOrNull(options_.at)));
    }

    // Everything that this deletion may take, with the directories above that it may leave empty.
    RecordMap FindRecords() {
        RecordMap records;
        std::set<Parts> ancestors;
        for (const NamePattern& pattern : patterns_) {
            for (Parts& directory : DirectoriesAbove(pattern.Plain())) ancestors.insert(std::move(directory));
            Add(records, List(session_, pattern, Scope::Tree, options_.Versions()));
        }
        for (const Parts& directory : ancestors) {
            Add(records, List(session_, NamePattern(directory, false), Scope::Self, options_.Versions()));
        }
        return records;
    }

    // An object that two patterns list counts once.
    static void Add(RecordMap& records, const std::vector<StoredObject>& list) {
        RecordMap found;
        for (const StoredObject& object : list) {
            Record& record = found[KeyOf(object)];
            record = {record.versions + 1, object.GetKind()};
        }
        records.merge(found);
    }

    void ReportDeleted(const RecordMap& before, const RecordMap& after) {
        for (const auto& [key, record] : before) {
            const auto rest = after.find(key);
            const long long gone = record.versions - (rest == after.end() ? 0 : rest->second.versions);
            if (gone > 0) {
                const std::string versions =
                    options_.allVersions ? fmt::format("{} version{}", gone, gone == 1 ? "" : "s") : "";
                report_.Did("removed", Join(key.first), versions, true);
                report_.Count(record.kind);
            }
        }
        for (const auto& entry : objects_) {
            const auto was = before.find(entry.first);
            const auto is = after.find(entry.first);
            const bool stays = was != before.end() && is != after.end() && is->second.versions >= was->second.versions;
            const bool reported = std::count(kept_.begin(), kept_.end(), entry.second.StoredParts()) > 0;
            if (!stays || reported || PendingSignal() != 0) continue;
            report_.Failed(entry.second.ObjectPath(), options_.OnlyActiveAt() ? notActive : "is still there");
        }
    }

    const DeleteOptions& options_;
    Report& report_;
    Session& session_;
    std::vector<NamePattern> patterns_;
    std::map<Key, StoredObject> objects_;
    std::set<Key> files_;      // of the objects; a file and a directory of one name have one entry there
    std::vector<Parts> kept_;  // already reported; the directories above them stay
};

NamePattern PatternOf(const std::string& typed, const DeleteOptions& options) {
    const Parts parts = ParsePath(typed);
    if (typed.empty()) throw UsageError("an empty path deletes nothing; the top is /");
    if (parts.empty() && !options.recursive) throw UsageError("/: deleting everything takes --recursive");
    if (!parts.empty() && NamePattern(Parts(parts.begin(), parts.end() - 1), !options.literal).IsWild()) {
        throw UsageError(typed + ": wildcards can only be in the last part (--literal takes them as they are)");
    }
    return {parts, !options.literal};
}

void Delete(const DeleteOptions& options, Context& context) {
    std::vector<NamePattern> patterns;
    for (const std::string& typed : options.paths) patterns.push_back(PatternOf(typed, options));
    Session session(context.connection);
    session.Handle();
    Deleter deleter(options, context.report, session);
    for (size_t i = 0; i < patterns.size(); ++i) {
        Attempt(context.report, options.paths[i], [&] { deleter.Select(patterns[i]); });
    }
    deleter.LeaveOutUnsafe();
    const std::string question = fmt::format("delete {} objects", deleter.Count());
    if (deleter.Count() > 1 && !Confirmed(options.yes || context.report.IsDryRun(), question, "yes")) {
        throw Failure("not confirmed, nothing deleted");
    }
    if (deleter.Count() > 0) deleter.Delete();
    CheckInterrupt();
    for (const NamePattern& pattern : patterns) {
        if (!options.recursive || !options.at.empty() || pattern.IsWild() || context.report.IsDryRun()) continue;
        Attempt(context.report, Join(pattern.Plain()),
                [&] { RemoveRuns(session, pattern.Plain(), options.allVersions); });
    }
    context.report.Summary("delete");
}

}  // namespace

void AddDelete(CommandLine& line) {
    const auto options = std::make_shared<DeleteOptions>();
    CLI::App& command =
        line.Add("delete", "Delete objects; older versions stay, unless --all-versions is given",
                 {"tsmctl delete nightly/docs/a.txt", "tsmctl delete 'nightly/docs/*.txt' --yes",
                  "tsmctl delete nightly/docs --recursive --yes", "tsmctl delete dumps/docs.tar --all-versions"},
                 [options](Context& context) { Delete(*options, context); });
    AddPaths(command, options->paths, "OBJECT", "object path, its last part may hold * and ?");
    command.add_flag("--recursive", options->recursive, "with everything below");
    command.add_flag("--all-versions", options->allVersions, "every version, for good");
    AddMoment(command, options->at, "only what was active at 'YYYY-MM-DD HH:MM:SS', server time");
    command.add_flag("--yes", options->yes, "do not ask before deleting more than one object");
    AddLiteral(command, options->literal);
    line.AddDryRun(command);
}

}  // namespace tsmctl
