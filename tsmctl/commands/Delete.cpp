// delete: deletes objects and trees, their active versions or all of them, and reports what is gone.
#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "Arguments.h"
#include "Errors.h"
#include "Inventory.h"
#include "KeptDirectories.h"
#include "Parallel.h"
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
    int jobs = usualSessions;

    // What can go: active versions, or all of them.
    Selection Versions() const { return {allVersions, "", TSM_OBJECTS_ANY}; }
    Selection Candidates() const { return {allVersions, at, TSM_OBJECTS_ANY}; }
    // An active version can only go if it was also active at the moment.
    bool OnlyActiveAt() const { return !at.empty() && !allVersions; }
};

// Works directory by directory from the lowest up, since a directory can only go when it is empty, and remembers no
// more than the objects that are being deleted.
class Deleter {
public:
    Deleter(const DeleteOptions& options, const std::vector<NamePattern>& patterns, Context& context, Session& session)
        : options_(options),
          patterns_(patterns),
          report_(context.report),
          session_(session),
          workers_(context, session, options.jobs) {}

    // The number of objects; of --yes, only those that the pattern itself names. Throws Failure for what cannot be
    // deleted.
    size_t Count(const NamePattern& pattern) {
        const auto namesIn = [](const std::vector<StoredObject>& versions) {
            std::set<std::string> names;
            for (const StoredObject& object : versions) names.insert(object.StoredPath());
            return names.size();
        };
        if ((options_.yes || !options_.recursive) && !pattern.IsRoot()) {
            const auto versions = List(session_, pattern, options_.Candidates());
            if (!options_.recursive) RequireNothingBelow(versions);
            if (!versions.empty()) return namesIn(versions);
        }
        size_t count = 0;
        const bool found =
            Walk(session_, pattern, options_.Candidates(), [&](const auto& versions, const Parts& plain) {
                if (!options_.recursive && plain.size() > pattern.Depth()) return false;
                count += namesIn(versions);
                return true;
            });
        if (!found) throw NotFound();
        return count;
    }

    // Reports what is gone, and what fails.
    void Delete(const NamePattern& pattern) {
        const std::vector<Parts> above = DirectoriesAbove(pattern.Plain());
        const auto listAbove = [&] {
            Records records;
            for (const Parts& directory : above) {
                records.merge(RecordsOf(List(session_, NamePattern(directory, false), options_.Versions())));
            }
            return records;
        };
        RequireNoFilesAbove(session_, pattern.Plain(), options_.Versions(),
                            [&](const StoredObject& file) { return MayGo(file); });
        const Records before = listAbove();
        const long long failures = report_.Failures();
        KeptDirectories kept(session_, report_, "");
        if (options_.allVersions) kept.RememberAbove(pattern.Plain());
        if (pattern.IsRoot()) {
            DeleteIn("");
        } else {
            DeleteLevel("", [&](const Selection& selection) { return List(session_, pattern, selection); });
        }
        Settle();
        if (options_.recursive && options_.at.empty() && report_.Failures() == failures && !report_.IsDryRun()) {
            // What has no directory above it is left.
            if (!pattern.IsWild() && !pattern.IsRoot()) DeleteIn(StoredPathOf(pattern.Plain()));
            Settle();
            for (const std::string& path : FindStrays(session_, pattern, options_.Versions(), {})) DeleteIn(path);
            Settle();
        }
        kept.Restore(false);
        ReportGone(before, listAbove());
    }

private:
    struct Record {
        long long versions = 0;
        Kind kind = Kind::File;
        std::string name;
    };
    using Records = std::map<std::string, Record>;  // by stored path
    using ListLevel = std::function<std::vector<StoredObject>(const Selection&)>;

    struct Item {
        StoredObject object;
        bool done = false;
    };
    // A directory, or what the pattern names in it, until it is known what became of its entries.
    struct Level {
        std::string path;
        ListLevel list;
        Records before;
        std::shared_ptr<std::deque<Item>> items;  // files first; the sessions mark what is done
        std::vector<Item*> directories;
    };

    static constexpr const char* notActive = "this version is not active; add --all-versions";

    void RequireNothingBelow(const std::vector<StoredObject>& versions) {
        for (const StoredObject& object : versions) {
            if (!object.directory) continue;
            for (const StoredObject& below : ListIn(session_, object.StoredPath(), options_.Versions())) {
                throw Failure("is a directory that holds " + below.ObjectPath() + " (use --recursive)");
            }
        }
    }

    // Whether a file may be lost with the directory of its name.
    bool MayGo(const StoredObject& file) const {
        const Parts plain = file.PlainParts();
        return options_.at.empty() && std::any_of(patterns_.begin(), patterns_.end(), [&](const NamePattern& pattern) {
                   const bool here = plain.size() == pattern.Depth();
                   return (here || (options_.recursive && plain.size() > pattern.Depth())) && pattern.Matches(plain);
               });
    }

    static Records RecordsOf(const std::vector<StoredObject>& objects) {
        Records records;
        for (const StoredObject& object : objects) {
            Record& record = records[object.StoredPath()];
            record = {record.versions + 1, object.GetKind(), object.ObjectPath()};
        }
        return records;
    }

    void DeleteIn(const std::string& path) {
        const auto list = [this, path](const Selection& selection) { return ListIn(session_, path, selection); };
        const bool done = Attempt(report_, Unescape(path), [&] { DeleteLevel(path, list); });
        if (!done) notEmpty_.insert(path);
    }

    void DeleteLevel(const std::string& path, const ListLevel& list) {
        std::vector<StoredObject> there = list(options_.Versions());
        Level level = {path, list, RecordsOf(there), std::make_shared<std::deque<Item>>(), {}};
        std::vector<StoredObject> candidates = options_.at.empty() ? there : list(options_.Candidates());
        std::set<std::pair<std::string, std::string>> active;  // with --at: names and dates
        if (options_.OnlyActiveAt()) {
            for (const StoredObject& object : there) active.emplace(object.StoredPath(), object.date);
        }
        std::map<std::string, bool> directories;  // whether a file has the same name and stays
        for (const auto* const objects : {&there, &candidates}) {
            for (const StoredObject& object : *objects) {
                if (object.directory) directories.emplace(object.StoredPath(), false);
            }
        }
        std::set<std::string> refused;
        std::map<std::string, StoredObject> chosen;
        for (StoredObject& object : candidates) {
            const std::string name = object.StoredPath();
            if (refused.count(name) + chosen.count(name) > 0) continue;
            const bool may = Attempt(report_, object.ObjectPath(), [&] {
                RequireChangeable(session_, object);
                const size_t found = object.directory ? level.before.count(name) : active.count({name, object.date});
                if (options_.OnlyActiveAt() && found == 0) throw Failure(notActive);
            });
            if (may) chosen.emplace(name, std::move(object));
            if (!may) refused.insert(name);
        }
        for (const StoredObject& object : there) {
            const auto directory = directories.find(object.StoredPath());
            const bool stays = !options_.at.empty() || chosen.count(object.StoredPath()) == 0;
            if (directory != directories.end() && !object.directory) directory->second = stays;
            // No listing afterwards tells a dry run what is left.
            const auto going = chosen.find(object.StoredPath());
            if (options_.at.empty() || !report_.IsDryRun()) continue;
            if (going != chosen.end() && going->second.date == object.date) continue;
            notEmpty_.insert(path);
            if (options_.OnlyActiveAt()) notEmpty_.insert(object.StoredPath());
        }
        there = candidates = {};
        // The library looks through the directory after each deletion, unless it deletes all that is there at once.
        const bool whole = !path.empty() && options_.recursive && options_.at.empty() && directories.empty() &&
                           refused.empty() && chosen.size() > 1 && !report_.IsDryRun();
        for (auto& [name, object] : chosen) {
            Item& item = level.items->emplace_back(Item{std::move(object)});
            if (directories.count(name) > 0) {
                level.directories.push_back(&item);
            } else if (!whole) {
                workers_.Do(item.object.ObjectPath(),
                            [this, &item, keep = level.items](Session& session, Buffer&) { DeleteOne(session, item); });
            }
        }
        if (whole) {
            workers_.Do(Unescape(path.substr(1)), [this, path, items = level.items](Session& session, Buffer&) {
                DeleteAll(session, path, *items);
            });
        }
        chosen.clear();
        for (const auto& [name, fileStays] : directories) {
            if (!options_.recursive) break;
            if (!fileStays) {
                DeleteIn(name);
            } else if (!ListIn(session_, name, options_.Versions()).empty()) {
                report_.Failed(Unescape(name.substr(1)), "a file of this name would be lost with what is below");
                notEmpty_.insert(name);
            }
        }
        waiting_ += level.items->size();
        levels_.push_back(std::move(level));
        constexpr size_t many = 1000;
        if (waiting_ >= many) Settle();
    }

    void DeleteOne(Session& session, Item& item) {
        report_.Step();
        if (report_.IsDryRun()) {
            report_.Did("removed", item.object.ObjectPath());
            return report_.Count(item.object.GetKind());
        }
        DeleteObject(session, item.object, options_.allVersions, options_.at);
        item.done = true;
    }

    void DeleteAll(Session& session, const std::string& path, std::deque<Item>& items) {
        try {
            session.Check("cannot delete",
                          TsmDelete(session.Handle(), Text(path), nullptr, options_.allVersions ? 1 : 0, nullptr));
            for (Item& item : items) {
                item.done = true;
                report_.Step();
            }
        } catch (const Failure&) {
            for (Item& item : items) Attempt(report_, item.object.ObjectPath(), [&] { DeleteOne(session, item); });
        }
    }

    // Waits for the files, deletes the directories that are empty now, and finds out what is gone.
    void Settle() {
        workers_.Finish();
        for (const Level& level : levels_) {
            for (Item* const item : level.directories) {
                const std::string name = item->object.ObjectPath();
                if (notEmpty_.count(item->object.StoredPath()) == 0) {
                    Attempt(report_, name, [&] { DeleteOne(session_, *item); });
                    continue;
                }
                notEmpty_.insert(level.path);
                if (options_.at.empty()) report_.Failed(name, "is not empty");
            }
            if (report_.IsDryRun()) continue;
            const bool listed = Attempt(report_, Unescape(level.path), [&] {
                const Records after = RecordsOf(level.list(options_.Versions()));
                if (!after.empty()) notEmpty_.insert(level.path);
                ReportGone(level.before, after);
                for (const Item& item : *level.items) ReportLeft(item, level.before, after);
            });
            if (!listed) notEmpty_.insert(level.path);
        }
        levels_.clear();
        waiting_ = 0;
    }

    void ReportGone(const Records& before, const Records& after) {
        for (const auto& [path, record] : before) {
            const auto rest = after.find(path);
            const long long gone = record.versions - (rest == after.end() ? 0 : rest->second.versions);
            if (gone <= 0) continue;
            const std::string versions =
                options_.allVersions ? fmt::format("{} version{}", gone, gone == 1 ? "" : "s") : "";
            report_.Did("removed", record.name, versions, true);
            report_.Count(record.kind);
        }
    }

    // A deletion's 0 is no proof.
    void ReportLeft(const Item& item, const Records& before, const Records& after) {
        const auto was = before.find(item.object.StoredPath());
        const auto is = after.find(item.object.StoredPath());
        const bool stays = was != before.end() && is != after.end() && is->second.versions >= was->second.versions;
        if (!item.done || !stays) return;
        report_.Failed(item.object.ObjectPath(), options_.OnlyActiveAt() ? notActive : "is still there");
    }

    const DeleteOptions& options_;
    const std::vector<NamePattern>& patterns_;
    Report& report_;
    Session& session_;
    Workers workers_;
    std::vector<Level> levels_;  // lower ones first
    size_t waiting_ = 0;         // objects in them
    std::set<std::string> notEmpty_;
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
    Deleter deleter(options, patterns, context, session);
    std::vector<size_t> chosen;
    size_t count = 0;
    for (size_t i = 0; i < patterns.size(); ++i) {
        if (Attempt(context.report, options.paths[i], [&] { count += deleter.Count(patterns[i]); }))
            chosen.push_back(i);
    }
    if (count > 1 &&
        !Confirmed(options.yes || context.report.IsDryRun(), fmt::format("delete {} objects", count), "yes")) {
        throw Failure("not confirmed, nothing deleted");
    }
    for (const size_t i : chosen) {
        Attempt(context.report, options.paths[i], [&] { deleter.Delete(patterns[i]); });
    }
    CheckInterrupt();
    for (const NamePattern& pattern : patterns) {
        if (!options.recursive || !options.at.empty() || context.report.IsDryRun()) continue;
        Attempt(context.report, Join(pattern.Plain()), [&] {
            std::set<Parts> trees;
            for (const RunRecord& run : FindRuns(session, {}, Scope::Tree, options.allVersions)) {
                if (run.tree.size() >= pattern.Depth() && pattern.Matches(run.tree)) trees.insert(run.tree);
            }
            for (const Parts& tree : trees) {
                const StoredPair left = tree.empty() ? StoredPair() : ListOne(session, tree);
                const bool stays = left.file || left.directory || (tree.empty() && !ListIn(session, "", {}).empty());
                if (!stays) RemoveRuns(session, tree, options.allVersions);
            }
        });
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
    AddJobs(command, options->jobs);
    line.AddDryRun(command);
}

}  // namespace tsmctl
