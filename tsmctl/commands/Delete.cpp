// delete: deletes objects and trees, their active versions or all of them, and reports what is gone.
#include <fmt/format.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <utility>

#include "Errors.h"
#include "Inventory.h"
#include "Parallel.h"
#include "RunRecord.h"
#include "Vanished.h"
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
};

// Walks through what is chosen, and deletes a directory after what it holds: a directory can only go when it is empty.
// Remembers no more than the objects that are being deleted.
class Deleter {
public:
    Deleter(const DeleteOptions& options, Context& context, Session& session)
        : options_(options), report_(context.report), session_(session), workers_(context, session, options.jobs) {}

    // Throws Failure where the pattern itself names a directory that is not empty.
    void RequireNothingBelow(const NamePattern& pattern) {
        for (const StoredObject& object : List(session_, pattern, {options_.allVersions, options_.at})) {
            if (!object.directory) continue;
            for (const StoredObject& below : ListIn(session_, object.StoredPath(), options_.Versions())) {
                throw Failure("is a directory that holds " + below.ObjectPath() + " (use --recursive)");
            }
        }
    }

    // The number of objects. Throws Failure.
    size_t Count(const NamePattern& pattern) {
        std::set<std::string> names;
        size_t count = 0;
        Walk(session_, pattern,
             {options_.allVersions, options_.at, TSM_OBJECTS_ANY, options_.recursive ? Reach::Strays : Reach::Named},
             [&](const std::vector<StoredObject>& versions, const Parts&) {
                 names.clear();
                 for (const StoredObject& object : versions) names.insert(object.StoredPath());
                 count += names.size();
                 return true;
             });
        if (count == 0) throw NotFound();
        return count;
    }

    // Reports what is gone, and what fails. Nothing may be left where an earlier pattern chooses the same.
    void Delete(const NamePattern& pattern, bool mayBeGone) {
        RequireNoFilesAbove(session_, pattern.Plain(), options_.Versions());
        Level above;
        for (const Parts& directory : DirectoriesAbove(pattern.Plain())) {
            for (const StoredObject& object : List(session_, NamePattern(directory, false), options_.Versions())) {
                above.entries[object.StoredPath()].Add(object);
            }
        }
        KeptDirectories kept(session_, report_, "");
        if (options_.allVersions) kept.RememberAbove(pattern.Plain());
        found_ = false;
        // While files stay, what has no directory above it is not touched: a file of that directory's name would go,
        // too.
        const bool strays = options_.recursive && options_.at.empty();
        const Reach below = strays && report_.IsDryRun() ? Reach::Strays : Reach::Tree;
        const bool done = DeleteBelow(pattern, options_.recursive ? below : Reach::Named);
        if (done && strays && !report_.IsDryRun()) DeleteBelow(pattern, Reach::Strays);
        kept.Restore(false);
        if (done && !found_ && !mayBeGone) throw NotFound();
        if (!report_.IsDryRun()) ReportGone(above);
    }

private:
    static constexpr const char* notActive = "this version is not active; add --all-versions";

    // What has one stored name.
    struct Entry {
        StoredObject object;               // one that is chosen, if any is
        std::multiset<std::string> dates;  // of its versions
        bool file = false;
        bool directory = false;
        bool wasDirectory = false;  // is chosen as one that was there at the moment
        bool chosen = false;
        bool deleted = false;

        void Add(const StoredObject& added) {
            if (dates.empty() || added.chosen) object = added;
            chosen = chosen || added.chosen;
            dates.insert(added.date);
            (added.directory ? directory : file) = true;
        }
    };
    // What is in a directory, or what the pattern names there, until it is known what became of it.
    struct Level {
        Parts plain;
        std::map<std::string, Entry> entries;  // by stored path

        std::set<std::string> StoredPaths() const {
            std::set<std::string> paths;
            for (const auto& [name, entry] : entries) paths.insert(entry.object.path);
            return paths;
        }
    };

    // False when something failed.
    bool DeleteBelow(const NamePattern& pattern, Reach reach) {
        const long long failures = report_.Failures();
        Selection selection = {options_.allVersions, options_.at, TSM_OBJECTS_ANY, reach};
        selection.marked = selection.andNow = !options_.at.empty();
        Attempt(report_, Join(pattern.Plain()), [&] {
            Walk(session_, pattern, selection,
                 [&](const auto& versions, const Parts& plain) { return Visit(pattern, versions, plain); });
            while (!open_.empty()) Close(pattern);
        });
        open_.clear();  // not known in full
        Settle();
        empty_.clear();
        return report_.Failures() == failures;
    }

    bool Visit(const NamePattern& pattern, const std::vector<StoredObject>& versions, const Parts& plain) {
        const Parts folder(plain.begin(), plain.end() - 1);
        while (!open_.empty() && !StartsWith(folder, open_.back().plain)) Close(pattern);
        if (open_.empty() || open_.back().plain != folder) open_.push_back({folder, {}});
        std::map<std::string, Entry> entries;
        for (const StoredObject& object : versions) {
            found_ = found_ || object.chosen;
            Entry& entry = entries[object.StoredPath()];
            if (options_.allVersions || object.active) {
                entry.Add(object);
            } else if (object.directory) {
                entry.wasDirectory = true;
            } else {
                report_.Failed(Join(plain), notActive);
            }
        }
        bool goOn = true;
        for (auto& [path, entry] : entries) {
            // One that was stored anew since counts as the same.
            if (entry.wasDirectory && !entry.directory) report_.Failed(Join(plain), notActive);
            entry.chosen = entry.chosen || (entry.wasDirectory && entry.directory);
            if (entry.dates.empty()) continue;
            entry.chosen = entry.chosen && Attempt(report_, Join(plain), [&, &object = entry.object] {
                               RequireChangeable(session_, object);
                           });
            if (entry.file && (!entry.chosen || !options_.at.empty())) {
                goOn = false;
                if (entry.directory && options_.recursive) {
                    entry.chosen = false;
                    report_.Failed(Join(plain), "a file of this name would be lost with what is below");
                }
            }
            open_.back().entries[path] = std::move(entry);
        }
        return goOn;
    }

    // Everything in the lowest open level is known.
    void Close(const NamePattern& pattern) {
        Level& level = levels_.emplace_back(std::move(open_.back()));
        open_.pop_back();
        // The library looks through the directory after each deletion, unless it deletes all that is there at once.
        const bool isAll = level.plain.size() >= pattern.Depth() && options_.at.empty() && !report_.IsDryRun();
        const bool whole =
            isAll && !level.plain.empty() && level.entries.size() > 1 && level.StoredPaths().size() == 1 &&
            std::all_of(level.entries.begin(), level.entries.end(),
                        [](const auto& entry) { return entry.second.chosen && !entry.second.directory; });
        if (whole) {
            workers_.Do(Join(level.plain), [this, &level](Session& session, Buffer&) { DeleteAll(session, level); });
        }
        for (auto& [name, entry] : level.entries) {
            if (whole || entry.directory || !entry.chosen) continue;
            workers_.Do(entry.object.ObjectPath(),
                        [this, &entry = entry](Session& session, Buffer&) { DeleteOne(session, entry); });
        }
        waiting_ += level.entries.size();
        constexpr size_t many = 1000;
        if (waiting_ >= many) Settle();
    }

    void DeleteOne(Session& session, Entry& entry) {
        report_.Step();
        if (!report_.IsDryRun()) DeleteObject(session, entry.object, options_.allVersions, options_.at);
        entry.deleted = true;
    }

    void DeleteAll(Session& session, Level& level) {
        try {
            const std::string path = level.entries.begin()->second.object.path;
            session.Check("cannot delete",
                          TsmDelete(session.Handle(), Text(path), nullptr, options_.allVersions ? 1 : 0, nullptr));
            for (auto& [name, entry] : level.entries) {
                entry.deleted = true;
                report_.Step();
            }
        } catch (const Failure&) {
            for (auto& [name, entry] : level.entries) {
                Attempt(report_, entry.object.ObjectPath(), [&, &each = entry] { DeleteOne(session, each); });
            }
        }
    }

    // Waits for the files, deletes the directories that are empty now, and finds out what is gone.
    void Settle() {
        workers_.Finish();
        for (Level& level : levels_) {
            for (auto& [name, entry] : level.entries) {
                if (!entry.directory || !entry.chosen) continue;
                Attempt(report_, entry.object.ObjectPath(), [&, &directory = entry] { DeleteDirectory(directory); });
            }
            Attempt(report_, Join(level.plain), [&] { ReportGone(level); });
        }
        levels_.clear();
        waiting_ = 0;
    }

    void DeleteDirectory(Entry& entry) {
        const bool isEmpty = empty_.erase(entry.object.StoredPath()) > 0 ||
                             ListIn(session_, entry.object.StoredPath(), options_.Versions()).empty();
        if (isEmpty) return DeleteOne(session_, entry);
        if (!options_.recursive) throw Failure("is a directory that is not empty (use --recursive)");
        if (options_.at.empty()) throw Failure("is not empty");
    }

    // A deletion's 0 is no proof: what counts is what is listed now.
    void ReportGone(Level& level) {
        for (const std::string& path : level.StoredPaths()) {
            bool isEmpty = true;
            for (const StoredObject& object : ListIn(session_, path, options_.Versions())) {
                const auto found = level.entries.find(object.StoredPath());
                const bool known = found != level.entries.end();
                const bool would = known && report_.IsDryRun() && found->second.deleted &&
                                   (options_.at.empty() || object.date == found->second.object.date);
                if (would) continue;
                isEmpty = false;
                if (!known) continue;
                std::multiset<std::string>& dates = found->second.dates;
                if (const auto date = dates.find(object.date); date != dates.end()) dates.erase(date);
            }
            if (isEmpty) empty_.insert(path);
        }
        for (const auto& [path, entry] : level.entries) {
            const size_t gone = entry.dates.size();
            if (gone > 0) {
                const std::string versions =
                    options_.allVersions ? fmt::format("{} version{}", gone, gone == 1 ? "" : "s") : "";
                report_.Did("removed", entry.object.ObjectPath(), versions, true);
                report_.Count(entry.object.GetKind());
            } else if (entry.deleted) {
                report_.Failed(entry.object.ObjectPath(),
                               options_.at.empty() || options_.allVersions ? "is still there" : notActive);
            }
        }
    }

    const DeleteOptions& options_;
    Report& report_;
    Session& session_;
    bool found_ = false;
    std::vector<Level> open_;      // from the top down
    std::list<Level> levels_;      // lower ones first
    size_t waiting_ = 0;           // objects in them
    std::set<std::string> empty_;  // stored paths that hold nothing
    Workers workers_;              // ends before what it works on
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
    Deleter deleter(options, context, session);
    std::vector<size_t> chosen;
    size_t count = 0;
    const bool confirmed = options.yes || context.report.IsDryRun();
    for (size_t i = 0; i < patterns.size(); ++i) {
        const bool mayGo = Attempt(context.report, options.paths[i], [&] {
            if (!options.recursive) deleter.RequireNothingBelow(patterns[i]);
            if (!confirmed) count += deleter.Count(patterns[i]);
        });
        if (mayGo) chosen.push_back(i);
    }
    if (count > 1 && !Confirmed(confirmed, fmt::format("delete {} objects", count), "yes")) {
        throw Failure("not confirmed, nothing deleted");
    }
    for (const size_t i : chosen) {
        const bool mayBeGone = std::any_of(patterns.begin(), patterns.begin() + static_cast<std::ptrdiff_t>(i),
                                           [&, &own = patterns[i]](const NamePattern& earlier) {
                                               return earlier.Matches(own.Plain()) || own.Matches(earlier.Plain());
                                           });
        Attempt(context.report, options.paths[i], [&] { deleter.Delete(patterns[i], mayBeGone); });
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
    auto [command, options] = line.Add<DeleteOptions>(
        "delete", "Delete objects; older versions stay, unless --all-versions is given",
        {"tsmctl delete nightly/docs/a.txt", "tsmctl delete 'nightly/docs/*.txt' --yes",
         "tsmctl delete nightly/docs --recursive --yes", "tsmctl delete dumps/docs.tar --all-versions"},
        Delete);
    AddArguments(command, "PATH", options.paths, "OBJECT", "object path, its last part may hold * and ?");
    command.add_flag("--recursive", options.recursive, "with everything below");
    command.add_flag("--all-versions", options.allVersions, "every version, for good");
    AddMoment(command, options.at, "only what was active at 'YYYY-MM-DD HH:MM:SS', server time");
    command.add_flag("--yes", options.yes, "do not ask before deleting more than one object");
    AddLiteral(command, options.literal);
    AddJobs(command, options.jobs);
    line.AddDryRun(command);
}

}  // namespace tsmctl
