#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "Commands.h"
#include "Errors.h"
#include "Inventory.h"
#include "Parallel.h"
#include "Terminal.h"
#include "Transfer.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct Move {
    StoredObject from;  // one of the versions; all of them move
    StoredName to;
    Parts toParts;  // as stored
    bool active = false;
};

std::string FullName(const std::string& path, const std::string& name) {
    return path + "/" + name;
}

// Renaming a directory means renaming object by object, since the server knows no trees. The directory objects go
// first, each before what it holds: they find their new place free, and the objects that follow find their directory.
class Renamer {
public:
    Renamer(Context& owner, Session& signedOn, Parts oldParts, Parts newParts)
        : context_(owner), session_(signedOn), from_(std::move(oldParts)), to_(std::move(newParts)) {}

    void Run() {
        CheckAncestors();
        PlanMoves();
        CheckTarget();
        const auto ancestors = Ancestors();
        for (const Move& move : moves_) {
            if (PendingSignal() != 0) break;
            const bool done = Attempt(context_.report, move.from.Shown(), [&] { Rename(move); });
            // Objects that follow would make this directory anew, without its mode and time.
            if (!done && move.from.directory) break;
        }
        KeepAncestors(ancestors);
        Confirm();
        CheckInterrupt();
    }

private:
    void CheckAncestors() {
        Selection all;
        all.allVersions = true;
        FilesAbove above(session_, all);
        for (const Parts& parts : {from_, to_}) {
            above.Refuse(parts, [](const StoredObject&) { return false; });
        }
    }

    void PlanMoves() {
        Selection all;
        all.allVersions = true;
        std::map<std::string, Move> byName;
        std::set<std::string> targets;
        Parts newStored;
        for (const std::string& part : to_) newStored.push_back(Escape(part));
        for (const StoredObject& object : List(session_, NamePattern(from_, false), Scope::Tree, all)) {
            const std::string name = FullName(object.path, object.name);
            const auto known = byName.find(name);
            if (known != byName.end()) {
                if (known->second.from.directory != object.directory) {
                    throw Failure(object.Shown() + " has versions of two kinds; renaming would lose one of them");
                }
                continue;
            }
            RequireChangeable(session_, object);
            if (HasWildcard(object.name)) throw Failure(object.Shown() + ": its name cannot be renamed safely");
            const Parts stored = object.StoredParts();
            const Parts rest(stored.begin() + static_cast<std::ptrdiff_t>(from_.size()), stored.end());
            const Parts target = Append(newStored, rest);
            if (!targets.insert(Join(target)).second) throw Failure(object.Shown() + ": shares its new name");
            byName.emplace(name, Move{object, ToStoredRaw(target), target, false});
        }
        if (byName.empty()) throw Failure(CodeText("not found", -2));
        for (const StoredObject& object : List(session_, NamePattern(from_, false), Scope::Tree, {})) {
            byName.at(FullName(object.path, object.name)).active = true;
        }
        for (auto& entry : byName) moves_.push_back(std::move(entry.second));
        std::stable_sort(moves_.begin(), moves_.end(), [](const Move& a, const Move& b) {
            return std::make_pair(!a.from.directory, a.toParts.size()) <
                   std::make_pair(!b.from.directory, b.toParts.size());
        });
    }

    // Refuses what would mix two trees, and asks before anything stored is lost.
    void CheckTarget() {
        for (const StoredObject& object : List(session_, NamePattern(to_, false), Scope::Tree, {})) {
            if (object.PlainParts().size() > to_.size()) throw Failure(Join(to_) + " is a directory that is not empty");
        }
        Selection all;
        all.allVersions = true;
        std::set<std::string> taken;
        for (const StoredObject& object : List(session_, NamePattern(to_, false), Scope::Tree, all)) {
            taken.insert(FullName(object.path, object.name));
        }
        size_t replaced = 0;
        for (const Move& move : moves_) {
            if (taken.count(FullName(move.to.path, move.to.name)) == 0) continue;
            ++replaced;
            context_.report.Warn(Unescape(Join(move.toParts)), "is taken; every version stored there is replaced");
        }
        const std::string question = fmt::format("replace {} objects", replaced);
        if (replaced > 0 && !Confirmed(context_.options.yes, question, "yes")) {
            throw Failure("not confirmed, nothing renamed");
        }
    }

    void Rename(const Move& move) {
        session_.Check("cannot rename",
                       TsmRenameBackup(session_.Handle(), move.from.path.c_str(), move.from.name.c_str(),
                                       move.to.path.c_str(), move.to.name.c_str()));
    }

    // The directory objects above both names. The library may remove one that is empty for a moment, and makes it
    // anew without its info.
    std::vector<StoredObject> Ancestors() {
        std::set<Parts> above;
        for (const Parts& parts : {from_, to_}) {
            for (size_t depth = 1; depth < parts.size(); ++depth) {
                above.emplace(parts.begin(), parts.begin() + static_cast<std::ptrdiff_t>(depth));
            }
        }
        std::vector<StoredObject> found;
        for (const Parts& parts : above) {
            for (StoredObject& object : List(session_, NamePattern(parts, false), Scope::Self, {})) {
                if (object.info) found.push_back(std::move(object));
            }
        }
        return found;
    }

    // Also after a signal, which Attempt would heed.
    void KeepAncestors(const std::vector<StoredObject>& ancestors) {
        for (const StoredObject& directory : ancestors) {
            try {
                KeepAncestor(directory);
            } catch (const Failure& failure) {
                context_.report.Failed(directory.Shown(), failure.what());
            }
        }
    }

    void KeepAncestor(const StoredObject& directory) {
        const NamePattern pattern(directory.PlainParts(), false);
        const auto now = List(session_, pattern, Scope::Self, {});
        const bool kept = std::any_of(now.begin(), now.end(), [](const auto& object) { return bool(object.info); });
        // One that holds nothing any more goes for good.
        if (kept || (now.empty() && List(session_, pattern, Scope::Tree, {}).empty())) return;
        Upload(session_, {directory.path, directory.name}, 0, *directory.info, "").Commit();
    }

    // The library's 0 is no proof: what counts is where the objects are now.
    void Confirm() {
        std::set<std::string> stored;
        std::set<std::string> active;
        for (const bool everything : {true, false}) {
            Selection selection;
            selection.allVersions = everything;
            for (const StoredObject& object : List(session_, NamePattern(to_, false), Scope::Tree, selection)) {
                (everything ? stored : active).insert(FullName(object.path, object.name));
            }
        }
        size_t there = 0;
        for (const Move& move : moves_) {
            const std::string name = FullName(move.to.path, move.to.name);
            if ((move.active ? active : stored).count(name) == 0) {
                if (PendingSignal() == 0) context_.report.Failed(move.from.Shown(), "is not at its new name");
                continue;
            }
            ++there;
            context_.report.Count(move.from.GetKind());
        }
        if (there > 0) {
            context_.report.Line(
                fmt::format("renamed {} to {} ({} of {} objects)", Join(from_), Join(to_), there, moves_.size()));
        }
    }

    Context& context_;
    Session& session_;
    const Parts from_;
    const Parts to_;
    std::vector<Move> moves_;
};

}  // namespace

void RunRename(Context& context) {
    const Parts from = ParsePath(context.options.oldPath);
    const Parts to = ParsePath(context.options.newPath);
    if (from.empty() || to.empty()) throw UsageError("the top cannot be renamed, nor be a new name");
    if (from == to) throw UsageError("both names are the same");
    if (StartsWith(to, from)) throw UsageError("the new name lies inside the old one");
    ToStored(to);
    Session session(context.connection);
    Attempt(context.report, Join(from), [&] { Renamer(context, session, from, to).Run(); });
    context.report.Summary("rename");
}

}  // namespace tsmctl
