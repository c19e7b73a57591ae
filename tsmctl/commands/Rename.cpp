// rename: gives an object or a tree a new object path, with every version.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "Errors.h"
#include "Inventory.h"
#include "KeptDirectories.h"
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
};

const Selection everyVersion = {true, "", TSM_OBJECTS_ANY};

struct Move {
    std::string TargetPath() const { return to.path + "/" + to.name; }

    StoredObject from;  // one of the versions; all of them move
    StoredName to;
    Parts toParts;  // as stored
    bool active = false;
};

// The server knows no trees, so a directory is renamed object by object. Directories come first, each before what it
// holds: their new names are still free then, and the objects that follow find their directory.
class Renamer {
public:
    Renamer(const RenameOptions& options, Report& report, Session& session)
        : options_(options),
          report_(report),
          session_(session),
          from_(ParsePath(options.oldPath)),
          to_(ParsePath(options.newPath)) {}

    void Run() {
        CheckFilesAbove();
        PlanMoves();
        CheckTarget();
        if (report_.IsDryRun()) {
            for (const Move& move : moves_) ReportMove(move);
            return;
        }
        for (size_t i = 0; i < moves_.size(); ++i) report_.Expect();
        std::set<Parts> above;
        for (const Parts& parts : {from_, to_}) {
            for (Parts& directory : DirectoriesAbove(parts)) above.insert(std::move(directory));
        }
        KeptDirectories kept(session_, report_, "");
        for (const Parts& directory : above) kept.Remember(directory);
        for (const Move& move : moves_) {
            if (PendingSignal() != 0) break;
            report_.Step();
            const bool done = Attempt(report_, move.from.ObjectPath(), [&] { Rename(move); });
            // The objects below would create this directory again, without its mode and time.
            if (!done && move.from.directory) break;
        }
        kept.Restore(false);
        ReportRenamed();
        CheckInterrupt();
    }

private:
    void CheckFilesAbove() {
        FilesAbove above(session_, everyVersion);
        for (const Parts& parts : {from_, to_}) {
            above.RequireNone(parts, [](const StoredObject&) { return false; });
        }
    }

    void PlanMoves() {
        std::map<std::string, Move> byName;
        std::set<std::string> targets;
        Parts newStored;
        for (const std::string& part : to_) newStored.push_back(Escape(part));
        for (const StoredObject& object : List(session_, NamePattern(from_, false), Scope::Tree, everyVersion)) {
            const std::string name = object.StoredPath();
            const auto known = byName.find(name);
            if (known != byName.end()) {
                if (known->second.from.directory != object.directory) {
                    throw Failure(object.ObjectPath() + " has versions of two kinds; renaming would lose one of them");
                }
                continue;
            }
            RequireChangeable(session_, object);
            if (HasWildcard(object.name)) throw Failure(object.ObjectPath() + ": its name cannot be renamed safely");
            const Parts stored = object.StoredParts();
            const Parts rest(stored.begin() + static_cast<std::ptrdiff_t>(from_.size()), stored.end());
            const Parts target = Append(newStored, rest);
            if (!targets.insert(Join(target)).second) throw Failure(object.ObjectPath() + ": shares its new name");
            byName.emplace(name, Move{object, ToStoredRaw(target), target, false});
        }
        if (byName.empty()) throw NotFound();
        for (const StoredObject& object : List(session_, NamePattern(from_, false), Scope::Tree, {})) {
            byName.at(object.StoredPath()).active = true;
        }
        for (auto& entry : byName) moves_.push_back(std::move(entry.second));
        std::stable_sort(moves_.begin(), moves_.end(), [](const Move& a, const Move& b) {
            return std::make_pair(!a.from.directory, a.toParts.size()) <
                   std::make_pair(!b.from.directory, b.toParts.size());
        });
    }

    // Refuses what would mix two trees, and asks before anything stored is lost.
    void CheckTarget() {
        // An interrupted rename goes on: directories move first, so the top has its new name.
        const bool goesOn = std::none_of(moves_.begin(), moves_.end(),
                                         [&](const Move& move) { return move.toParts.size() == to_.size(); });
        for (const StoredObject& object : List(session_, NamePattern(to_, false), Scope::Tree, {})) {
            if (!goesOn && object.PlainParts().size() > to_.size()) {
                throw Failure(Join(to_) + " is a directory that is not empty");
            }
        }
        std::set<std::string> existing;
        for (const StoredObject& object : List(session_, NamePattern(to_, false), Scope::Tree, everyVersion)) {
            existing.insert(object.StoredPath());
        }
        size_t replaced = 0;
        for (const Move& move : moves_) {
            if (existing.count(move.TargetPath()) == 0) continue;
            if (goesOn) throw Failure(move.from.ObjectPath() + ": its new name is taken");
            ++replaced;
            report_.Warn(Unescape(Join(move.toParts)), "exists; every version stored there is replaced");
        }
        const std::string question = fmt::format("replace {} objects", replaced);
        if (replaced > 0 && !Confirmed(options_.yes || report_.IsDryRun(), question, "yes")) {
            throw Failure("not confirmed, nothing renamed");
        }
    }

    // What an earlier try has renamed would be deleted, as something that has the new name.
    void Rename(const Move& move) {
        const StoredObject& from = move.from;
        const auto hasOldName = [&](const StoredObject& object) { return object.StoredPath() == from.StoredPath(); };
        bool again = false;
        session_.Retry([&] {
            if (std::exchange(again, true)) {
                const auto now = List(session_, NamePattern(from.PlainParts(), false), Scope::Self, everyVersion);
                if (std::none_of(now.begin(), now.end(), hasOldName)) return;
            }
            session_.Check("cannot rename", TsmRenameBackup(session_.Handle(), from.path.c_str(), from.name.c_str(),
                                                            move.to.path.c_str(), move.to.name.c_str()));
        });
    }

    void ReportMove(const Move& move) {
        report_.Did("renamed", move.from.ObjectPath(), "to " + Unescape(Join(move.toParts)));
        report_.Count(move.from.GetKind());
    }

    // The library's 0 is no proof: a listing shows where the objects are now.
    void ReportRenamed() {
        std::set<std::string> stored;
        std::set<std::string> active;
        for (const bool everything : {true, false}) {
            const Selection selection = everything ? everyVersion : Selection();
            for (const StoredObject& object : List(session_, NamePattern(to_, false), Scope::Tree, selection)) {
                (everything ? stored : active).insert(object.StoredPath());
            }
        }
        size_t there = 0;
        for (const Move& move : moves_) {
            const std::string name = move.TargetPath();
            if ((move.active ? active : stored).count(name) == 0) {
                if (PendingSignal() == 0) report_.Failed(move.from.ObjectPath(), "is not at its new name");
                continue;
            }
            ++there;
            ReportMove(move);
        }
        if (there == moves_.size()) {
            Attempt(report_, Join(from_), [&] { RemoveRuns(session_, from_, false); });
        }
        if (there > 0) {
            report_.Line(
                fmt::format("renamed {} to {} ({} of {} objects)", Join(from_), Join(to_), there, moves_.size()));
        }
    }

    const RenameOptions& options_;
    Report& report_;
    Session& session_;
    const Parts from_;
    const Parts to_;
    std::vector<Move> moves_;
};

void Rename(const RenameOptions& options, Context& context) {
    const Parts from = ParsePath(options.oldPath);
    const Parts to = ParsePath(options.newPath);
    if (from.empty() || to.empty()) throw UsageError("the top cannot be renamed, nor be a new name");
    if (from == to) throw UsageError("both names are the same");
    if (StartsWith(to, from)) throw UsageError("the new name lies inside the old one");
    ToStored(to);
    Session session(context.connection);
    Attempt(context.report, Join(from), [&] { Renamer(options, context.report, session).Run(); });
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
    command.add_flag("--yes", options->yes, "replace what is stored at NEW without asking");
    line.AddDryRun(command);
}

}  // namespace tsmctl
