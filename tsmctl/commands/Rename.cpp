// rename: gives an object or a tree a new object path, with every version.
#include <fmt/format.h>

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

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

struct RenameOptions {
    std::string oldPath;
    std::string newPath;
    bool yes = false;
    int jobs = usualSessions;
};

const Selection everyVersion = {true, "", TSM_OBJECTS_ANY};

struct Move {
    StoredObject from;  // one of the versions; all of them move
    StoredName to;
    bool active = false;
    bool taken = false;  // something is stored under the new name
    bool done = false;
};

// What one directory holds under its old name.
struct Level {
    std::map<std::string, Move> moves;  // by name
    std::set<std::string> directories;  // stored paths, also of those that have their new names already
    bool isActive = false;              // so is the directory itself, and will be under its new name
};

// The server knows no trees, so a directory is renamed object by object, each directory before what it holds: its new
// name is still free then, and the objects that follow find it. A first walk looks whether everything can be renamed,
// and a second renames.
class Renamer {
public:
    Renamer(const RenameOptions& options, Context& context, Session& session)
        : options_(options),
          report_(context.report),
          session_(session),
          from_(ParsePath(options.oldPath)),
          to_(ParsePath(options.newPath)),
          oldTop_("/" + Join(StoredTop())),
          newTop_("/" + Join(ToStoredParts(to_))),
          workers_(context, session, options.jobs) {}

    void Run() {
        const auto mayGo = [](const StoredObject&) { return false; };
        for (const Parts& parts : {from_, to_}) RequireNoFilesAbove(session_, parts, everyVersion, mayGo);
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
        try {
            Attempt(report_, Join(from_), [&] {
                if (replaced_ > 0) WalkAll([&](Level& level) { Clear(level); });
                WalkAll([&](Level& level) { MoveAll(level); });
            });
        } catch (const Interrupted&) {
            // What the library removed in passing comes first; then the signal is seen again.
        }
        Settle();
        RemoveRevived();
        kept.Restore(false);
        if (there_ == count_) {
            Attempt(report_, Join(from_), [&] { RemoveRuns(session_, from_, false); });
        }
        if (there_ > 0) {
            report_.Line(fmt::format("renamed {} to {} ({} of {} objects)", Join(from_), Join(to_), there_, count_));
        }
        CheckInterrupt();
    }

private:
    static Parts ToStoredParts(Parts parts) {
        for (std::string& part : parts) part = Escape(part);
        return parts;
    }

    // As another program may have stored it.
    Parts StoredTop() {
        std::set<Parts> tops;
        for (const StoredObject& object : List(session_, NamePattern(from_, false), everyVersion)) {
            tops.insert(object.StoredParts());
        }
        if (tops.size() > 1) throw Failure("is stored under two names, which are the same here");
        return tops.empty() ? ToStoredParts(from_) : *tops.begin();
    }

    std::string NewPath(const std::string& path) const { return newTop_ + path.substr(oldTop_.size()); }

    // What a directory holds, or the tree itself, where no directory is given. Throws Failure for what cannot be
    // renamed.
    Level Look(const std::string& directory) const {
        StoredName from = {directory, ""};
        StoredName to = {directory.empty() ? "" : NewPath(directory), ""};
        if (directory.empty()) {
            from = ToStoredRaw(SplitAtSlash(oldTop_.substr(1)));
            to = ToStoredRaw(SplitAtSlash(newTop_.substr(1)));
        }
        Level level;
        const auto add = [&](const std::string& name) {
            level.directories.insert(fmt::format("{}/{}", from.path, name));
        };
        for (StoredObject& object : ListIn(session_, from.path, everyVersion, from.name)) {
            const auto [place, added] = level.moves.try_emplace(object.name);
            Move& move = place->second;
            if (!added && move.from.directory != object.directory) {
                throw Failure(object.ObjectPath() + " has versions of two kinds; renaming would lose one of them");
            }
            if (!added) continue;
            if (HasWildcard(object.name)) throw Failure(object.ObjectPath() + ": its name cannot be renamed safely");
            RequireChangeable(session_, object);
            move.to = ToStoredRaw(SplitAtSlash(NewPath(object.StoredPath()).substr(1)));
            if (object.directory) add(object.name);
            move.from = std::move(object);
        }
        for (const StoredObject& object : ListIn(session_, from.path, {}, from.name)) {
            if (const auto found = level.moves.find(object.name); found != level.moves.end())
                found->second.active = true;
        }
        for (const StoredObject& object : ListIn(session_, to.path, everyVersion, to.name)) {
            const std::string& name = from.name.empty() ? object.name : from.name;
            if (const auto found = level.moves.find(name); found != level.moves.end()) found->second.taken = true;
            if (object.directory) add(name);
        }
        return level;
    }

    using Work = std::function<void(Level&)>;

    // Works on a directory, and then on those that it has still after that.
    void Walk(const std::string& directory, bool isActive, const Work& work) {
        CheckInterrupt();
        Level level = Look(directory);
        level.isActive = isActive;
        std::set<std::string> active;
        for (const auto& [name, move] : level.moves) {
            if (move.active && move.from.directory) active.insert(move.from.StoredPath());
        }
        work(level);
        level.moves.clear();
        for (const std::string& below : level.directories) Walk(below, active.count(below) > 0, work);
    }

    void WalkAll(const Work& work) {
        Walk("", true, work);
        for (const std::string& directory : strays_) Walk(directory, false, work);
    }

    void CheckAll() {
        if (StartsWith(from_, to_)) throw Failure(Join(to_) + " is a directory that is not empty");
        // The top moves first, so this is an interrupted rename that goes on.
        const bool goesOn = Look("").moves.empty();
        std::set<std::string> entered;
        const auto check = [&](Level& level) {
            count_ += level.moves.size();
            if (count_ <= mostWithStrays) entered.insert(level.directories.begin(), level.directories.end());
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
        Walk("", true, check);
        if (count_ <= mostWithStrays) {
            for (const std::string& path : FindStrays(session_, NamePattern(from_, false), everyVersion, entered)) {
                const bool isBelow = (path + "/").compare(0, oldTop_.size() + 1, oldTop_ + "/") == 0;
                if (!isBelow || !entered.insert(path).second) continue;
                Walk(path, false, check);
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

    void MoveAll(Level& level) {
        levels_.push_back(std::move(level.moves));
        auto& moves = levels_.back();
        // Sessions that miss the same directory would all create it.
        bool alone = !level.isActive;
        const auto start = [&](bool directories) {
            for (auto& entry : moves) {
                Move& move = entry.second;
                if (move.from.directory != directories) continue;
                const std::string name = move.from.ObjectPath();
                if (std::exchange(alone, false)) {
                    Attempt(report_, name, [&] { Rename(session_, move); });
                } else {
                    workers_.Do(name, [this, &move](Session& session, Buffer&) { Rename(session, move); });
                }
            }
        };
        start(true);
        if (!level.directories.empty()) workers_.Finish();
        // The objects below would create the directory again, without its mode and time.
        for (const auto& [name, move] : moves) {
            if (move.from.directory && !move.done) level.directories.erase(move.from.StoredPath());
        }
        start(false);
        waiting_ += moves.size();
        constexpr size_t many = 1000;
        if (waiting_ >= many) Settle();
    }

    // What an earlier try has renamed would be deleted, as something that has the new name.
    void Rename(Session& session, Move& move) {
        report_.Step();
        const StoredObject& from = move.from;
        bool again = false;
        session.Retry([&] {
            if (std::exchange(again, true) && ListIn(session, from.path, everyVersion, from.name).empty()) return;
            session.Check("cannot rename", TsmRenameBackup(session.Handle(), from.path.c_str(), from.name.c_str(),
                                                           move.to.path.c_str(), move.to.name.c_str()));
        });
        move.done = true;
    }

    // The library's 0 is no proof: a listing shows where the objects are now.
    void Settle() {
        try {
            workers_.Finish();
        } catch (const Interrupted&) {
            // Everything that has begun is done.
        }
        for (const auto& moves : levels_) {
            if (!moves.empty()) Attempt(report_, Join(from_), [&] { CheckMoved(moves); });
        }
        levels_.clear();
        waiting_ = 0;
    }

    void CheckMoved(const std::map<std::string, Move>& moves) {
        const StoredName& first = moves.begin()->second.to;
        std::set<std::string> stored;
        std::set<std::string> active;
        for (auto* const names : {&stored, &active}) {
            for (const StoredObject& object :
                 ListIn(session_, first.path, names == &stored ? everyVersion : Selection(),
                        moves.size() == 1 ? first.name : "")) {
                names->insert(object.name);
            }
        }
        for (const auto& [name, move] : moves) {
            if ((move.active ? active : stored).count(move.to.name) > 0) {
                ++there_;
                ReportMove(move);
                if (move.from.directory && !move.active) revived_.push_back(move.to);
            } else if (move.done) {
                report_.Failed(move.from.ObjectPath(), "is not at its new name");
            }
        }
    }

    // The library has made a directory that was not active active again, for what was renamed in it.
    void RemoveRevived() {
        for (auto name = revived_.rbegin(); name != revived_.rend(); ++name) {
            Attempt(report_, Unescape(name->path + "/" + name->name), [&] {
                for (const StoredObject& object : ListIn(session_, name->path, {}, name->name)) {
                    const bool isEmpty = ListIn(session_, object.StoredPath(), {}).empty();
                    if (!object.directory || !object.text.empty() || !isEmpty) continue;
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
    size_t there_ = 0;
    std::vector<std::string> strays_;
    std::vector<StoredName> revived_;                // maybe
    std::list<std::map<std::string, Move>> levels_;  // that are being renamed
    size_t waiting_ = 0;                             // objects in them
    Workers workers_;                                // ends before them
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
    const auto options = std::make_shared<RenameOptions>();
    CLI::App& command = line.Add(
        "rename", "Give an object or a tree a new object path, with all its versions",
        {"tsmctl rename nightly/docs archive/docs-2024", "tsmctl rename dumps/docs.tar dumps/latest.tar --yes"},
        [options](Context& context) { Rename(*options, context); });
    // The names of arguments hold no blank: newer versions of CLI11 refuse one.
    command.add_option("OLD", options->oldPath, "the object path")->type_name("OBJECT")->required();
    command.add_option("NEW", options->newPath, "its new object path")->type_name("OBJECT")->required();
    AddJobs(command, options->jobs);
    command.add_flag("--yes", options->yes, "replace what is stored at NEW without asking");
    line.AddDryRun(command);
}

}  // namespace tsmctl
