// rename: gives an object or a tree a new object path, with every version.
#include <fmt/format.h>

#include <atomic>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Errors.h"
#include "Inventory.h"
#include "Parallel.h"
#include "RunRecord.h"
#include "Vanished.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct RenameOptions {
    std::string oldPath;
    std::string newPath;
    bool yes = false;
    int jobs = usualSessions;
};

const Selection everyVersion = {true, "", TSM_OBJECTS_ANY};
const Selection marked = {true, "", TSM_OBJECTS_ANY, Reach::Strays, true};

// The library's 0 is no proof.
constexpr const char* notRenamed = "is not at its new name";

struct Move {
    StoredObject from;  // the active version, or another one; all of them move
    StoredName to;
    bool active = false;
    bool taken = false;  // something is stored under the new name
};

// What one directory holds under its old name.
struct Level {
    std::string path;
    std::map<std::string, Move> moves;  // by name
    // The names of directories, also of those that have their new names already; of these, whether they were ours.
    std::map<std::string, bool> directories;
    bool isActive = false;  // so is the directory itself, and will be under its new name
};

// The server knows no trees, so a directory is renamed object by object, each directory before what it holds: its new
// name is still free then, and the objects that follow find it. A first walk looks whether everything can be renamed,
// and a second renames, one directory after the other, so that few are without their directory when it is broken off.
class Renamer {
public:
    Renamer(const RenameOptions& options, Context& context, Session& session)
        : options_(options),
          report_(context.report),
          session_(session),
          from_(ParsePath(options.oldPath)),
          to_(ParsePath(options.newPath)),
          oldTop_(OldTop()),
          newTop_(StoredPathOf(to_)),
          workers_(context, session, options.jobs) {}

    void Run() {
        for (const Parts& parts : {from_, to_}) RequireNoFilesAbove(session_, parts, everyVersion);
        CheckAll();
        if (report_.IsDryRun()) {
            return WalkAll([&](Level& level) {
                for (const auto& [name, move] : level.moves) ReportMove(move);
            });
        }
        KeptDirectories kept(session_, report_, "");
        kept.RememberAbove(from_);
        kept.RememberAbove(to_);
        for (size_t i = 0; i < count_; ++i) report_.Expect();
        // Also after a signal, what has begun is done, and what the library removed in passing comes back.
        AttemptAnyway(report_, Join(from_), [&] {
            if (replaced_ > 0) WalkAll([&](Level& level) { Clear(level); });
            WalkAll([&](Level& level) { MoveFiles(level); }, [&](Move& move) { return MoveDirectory(move); });
        });
        AttemptAnyway(report_, Join(from_), [&] { workers_.Finish(); });
        moved_.Restore(true);
        RemoveRevived();
        kept.Restore(false);
        if (there_ == count_) Attempt(report_, Join(from_), [&] { RemoveRuns(session_, from_, false); });
        if (there_ > 0) {
            report_.Line(
                fmt::format("renamed {} to {} ({} of {} objects)", Join(from_), Join(to_), there_.load(), count_));
        }
        CheckInterrupt();
    }

private:
    // Another program may have stored it in its own way.
    std::string OldTop() {
        std::set<std::string> tops;
        for (const StoredObject& object : List(session_, NamePattern(from_, false), everyVersion)) {
            tops.insert(object.StoredPath());
        }
        if (tops.size() > 1) throw Failure("is stored under two names, which are the same here");
        return tops.empty() ? StoredPathOf(from_) : *tops.begin();
    }

    static StoredName NameOf(const std::string& path) { return ToStoredRaw(SplitAtSlash(path.substr(1))); }
    std::string NewPath(const std::string& path) const { return newTop_ + path.substr(oldTop_.size()); }

    // What a directory holds, or the tree itself, where no directory is given. Throws Failure for what cannot be
    // renamed.
    Level Look(const std::string& directory) const {
        StoredName from = {directory, ""};
        StoredName to = {directory.empty() ? "" : NewPath(directory), ""};
        if (directory.empty()) {
            from = NameOf(oldTop_);
            to = NameOf(newTop_);
        }
        Level level;
        level.path = from.path;
        for (StoredObject& object : ListIn(session_, from.path, marked, from.name)) {
            const auto [place, added] = level.moves.try_emplace(object.name);
            Move& move = place->second;
            if (!added && move.from.directory != object.directory) {
                throw Failure(object.ObjectPath() + " has versions of two kinds; renaming would lose one of them");
            }
            if (!added && !object.active) continue;
            if (HasWildcard(object.name)) throw Failure(object.ObjectPath() + ": its name cannot be renamed safely");
            if (added) RequireChangeable(session_, object);
            if (object.directory) level.directories.emplace(object.name, false);
            move.to = NameOf(NewPath(object.StoredPath()));
            move.active = object.active;
            move.from = std::move(object);
        }
        for (const StoredObject& object : ListIn(session_, to.path, everyVersion, to.name)) {
            const std::string& name = from.name.empty() ? object.name : from.name;
            if (const auto found = level.moves.find(name); found != level.moves.end()) found->second.taken = true;
            if (!object.directory) continue;
            bool& isOurs = level.directories[name];
            isOurs = isOurs || object.info;
        }
        return level;
    }

    using Work = std::function<void(Level&)>;
    using Enter = std::function<bool(Move&)>;

    // Works on what a directory holds, and then goes into the directories there, unless enter says no.
    void Walk(const std::string& directory, bool isActive, const Work& work, const Enter& enter) {
        CheckInterrupt();
        Level level = Look(directory);
        level.isActive = isActive;
        work(level);
        for (auto move = level.moves.begin(); move != level.moves.end();) {
            move = move->second.from.directory ? std::next(move) : level.moves.erase(move);
        }
        for (const auto& [name, isOurs] : level.directories) {
            const auto move = level.moves.find(name);
            const bool moves = move != level.moves.end();
            if (moves && enter && !enter(move->second)) continue;
            // The library makes it active again for what is renamed in it, as in an earlier try.
            if (enter && (moves ? !move->second.active : isOurs)) revived_.push_back(NewPath(level.path + "/" + name));
            Walk(level.path + "/" + name, moves && move->second.active, work, enter);
        }
    }

    void WalkAll(const Work& work, const Enter& enter = nullptr) {
        Walk("", true, work, enter);
        for (const std::string& directory : strays_) Walk(directory, false, work, enter);
    }

    void CheckAll() {
        if (StartsWith(from_, to_)) throw Failure(Join(to_) + " is a directory that is not empty");
        // The top moves first, so this is an interrupted rename that goes on.
        const bool goesOn = Look("").moves.empty();
        std::set<std::string> entered;
        const auto check = [&](Level& level) {
            count_ += level.moves.size();
            for (const auto& [name, isOurs] : level.directories) {
                if (count_ <= mostWithStrays) entered.insert(level.path + "/" + name);
            }
            for (const auto& [name, move] : level.moves) {
                if (!move.taken) continue;
                if (goesOn) throw Failure(move.from.ObjectPath() + ": its new name is taken");
                ++replaced_;
                report_.Warn(NewName(move), "exists; every version stored there is replaced");
            }
        };
        if (!goesOn) {
            tsmctl::Walk(session_, NamePattern(to_, false), {}, [&](const auto&, const Parts& plain) {
                if (plain.size() > to_.size()) throw Failure(Join(to_) + " is a directory that is not empty");
                return true;
            });
        }
        Walk("", true, check, nullptr);
        if (count_ <= mostWithStrays) {
            for (const std::string& path : FindStrays(session_, NamePattern(from_, false), everyVersion, entered)) {
                const bool isBelow = (path + "/").compare(0, oldTop_.size() + 1, oldTop_ + "/") == 0;
                if (!isBelow || !entered.insert(path).second) continue;
                Walk(path, false, check, nullptr);
                strays_.push_back(path);
            }
        }
        if (count_ == 0) throw NotFound();
        const std::string question = fmt::format("replace {} objects", replaced_);
        if (replaced_ > 0 && !Confirmed(options_.yes || report_.IsDryRun(), question, "yes")) {
            throw Failure("not confirmed, nothing renamed");
        }
    }

    // The library would do it, and also remove the directory above when that becomes empty: it must not have been
    // renamed yet.
    void Clear(const Level& level) {
        for (const auto& [name, move] : level.moves) {
            StoredObject old;
            old.path = move.to.path;
            old.name = move.to.name;
            if (move.taken) DeleteObject(session_, old, true, "");
        }
    }

    // The objects below would create a directory that has stayed behind again, without its mode and time.
    bool MoveDirectory(Move& move) {
        const std::string name = move.from.ObjectPath();
        const bool done = Attempt(report_, name, [&] { Rename(session_, move); });
        // Where the library's look-up of the old name fails, it may rename nothing and delete the directory.
        bool lost = false;
        if (!done) Attempt(report_, name, [&] { lost = IsGone(session_, move); });
        if (lost) report_.Failed(name, "its versions are lost; the active one is stored again");
        if ((done || lost) && move.active && move.from.info) {
            StoredObject moved = move.from;
            moved.path = move.to.path;
            moved.name = move.to.name;
            moved_.Remember(std::move(moved));
        }
        return done;
    }

    static bool IsGone(Session& session, const Move& move) {
        return ListIn(session, move.from.path, everyVersion, move.from.name).empty();
    }

    void MoveFiles(Level& level) {
        // Sessions that miss the same directory would all create it.
        bool alone = !level.isActive;
        for (const auto& [name, move] : level.moves) {
            if (move.from.directory) continue;
            if (std::exchange(alone, false)) {
                Attempt(report_, move.from.ObjectPath(), [&, &first = move] { Rename(session_, first); });
            } else {
                workers_.Do(move.from.ObjectPath(),
                            [this, move = move](Session& session, Buffer&) { Rename(session, move); });
            }
        }
    }

    // What an earlier try has renamed would be deleted, as something that has the new name.
    void Rename(Session& session, const Move& move) {
        report_.Step();
        const StoredObject& from = move.from;
        bool again = false;
        session.Retry([&] {
            if (!std::exchange(again, true) || !IsGone(session, move)) {
                session.Check("cannot rename", TsmRenameBackup(session.Handle(), from.path.c_str(), from.name.c_str(),
                                                               move.to.path.c_str(), move.to.name.c_str()));
            }
            // A directory that has stayed behind would be removed once it is empty.
            const Selection moved = move.active ? Selection() : everyVersion;
            if (ListIn(session, move.to.path, moved, move.to.name).empty()) throw PassingFailure(notRenamed);
        });
        ++there_;
        ReportMove(move);
    }

    // What was not active before is not to be, where nothing in it is. Goes on after a signal.
    void RemoveRevived() {
        for (auto path = revived_.rbegin(); path != revived_.rend(); ++path) {
            AttemptAnyway(report_, Unescape(path->substr(1)), [&] {
                const StoredName stored = NameOf(*path);
                for (const StoredObject& object : ListIn(session_, stored.path, {}, stored.name)) {
                    if (!object.directory || !object.text.empty() || !ListIn(session_, *path, {}).empty()) continue;
                    KeptDirectories above(session_, report_, "");
                    above.RememberAbove(object.PlainParts());
                    DeleteObject(session_, object, false, "");
                    above.Restore(true);
                }
            });
        }
    }

    static std::string NewName(const Move& move) { return Unescape((move.to.path + "/" + move.to.name).substr(1)); }

    void ReportMove(const Move& move) {
        report_.Did("renamed", move.from.ObjectPath(), "to " + NewName(move));
        report_.Count(move.from.GetKind());
    }

    const RenameOptions& options_;
    Report& report_;
    Session& session_;
    const Parts from_;
    const Parts to_;
    const std::string oldTop_;  // as stored
    const std::string newTop_;
    size_t count_ = 0;
    size_t replaced_ = 0;
    std::atomic<size_t> there_{0};
    std::vector<std::string> strays_;
    // The library stores an empty one anew where a look-up fails while something in it is renamed.
    KeptDirectories moved_{session_, report_, ""};
    std::vector<std::string> revived_;  // stored paths, maybe
    Workers workers_;
};

void Rename(const RenameOptions& options, Context& context) {
    const Parts from = ParsePath(options.oldPath);
    const Parts to = ParsePath(options.newPath);
    if (from.empty() || to.empty()) throw UsageError("the top cannot be renamed, nor be a new name");
    if (from == to) throw UsageError("both names are the same");
    if (StartsWith(to, from)) throw UsageError("the new name lies inside the old one");
    ToStored(to);
    Session session(context.connection);
    Attempt(context.report, Join(from), [&] { Renamer(options, context, session).Run(); });
    context.report.Summary("rename");
}

}  // namespace

void AddRename(CommandLine& line) {
    auto [command, options] = line.Add<RenameOptions>(
        "rename", "Give an object or a tree a new object path, with all its versions",
        {"tsmctl rename nightly/docs archive/docs-2024", "tsmctl rename dumps/docs.tar dumps/latest.tar --yes"},
        Rename);
    // The names of arguments hold no blank: newer versions of CLI11 refuse one.
    command.add_option("OLD", options.oldPath, "the object path")->type_name("OBJECT")->required();
    command.add_option("NEW", options.newPath, "its new object path")->type_name("OBJECT")->required();
    AddJobs(command, options.jobs);
    command.add_flag("--yes", options.yes, "replace what is stored at NEW without asking");
    line.AddDryRun(command);
}

}  // namespace tsmctl
