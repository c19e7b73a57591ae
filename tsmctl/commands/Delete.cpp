#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "Commands.h"
#include "Errors.h"
#include "Inventory.h"
#include "Parallel.h"
#include "Terminal.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

// As shown, which gives the order of the report, and exactly as stored.
using Key = std::pair<Parts, std::string>;

Key KeyOf(const StoredObject& object) {
    return {object.PlainParts(), object.path + "/" + object.name};
}

class Remover {
public:
    Remover(Context& owner, Session& signedOn) : context_(owner), session_(signedOn) {}

    // Adds what the path selects, or throws Failure.
    void Select(const NamePattern& pattern) {
        const Options& options = context_.options;
        Selection active;
        Selection chosen;
        chosen.allVersions = options.allVersions;
        chosen.at = options.at;
        const auto standing = List(session_, pattern, Scope::Tree, active);
        const auto candidates = List(session_, pattern, Scope::Tree, chosen);
        const auto below = [&](const StoredObject& object) { return object.PlainParts().size() > pattern.Depth(); };
        if (!options.recursive) {
            for (const StoredObject& object : standing) {
                if (below(object)) throw Failure("is a directory that holds " + object.Shown() + " (use --recursive)");
            }
        }
        bool found = false;
        for (const StoredObject& object : candidates) {
            if (!options.recursive && below(object)) continue;
            found = true;
            if (Attempt(context_.report, object.Shown(), [&] { RequireChangeable(session_, object); })) {
                objects_.emplace(KeyOf(object), object);
                if (!object.directory) files_.insert(KeyOf(object));
            } else {
                kept_.push_back(object.StoredParts());
            }
        }
        if (!found) throw Failure(CodeText("not found", -2));
        patterns_.push_back(pattern);
    }

    // When all is selected: leaves out what would take a file with it that nobody named, or what has no active version.
    void Narrow() {
        Selection selection;
        selection.allVersions = context_.options.allVersions;
        FilesAbove above(session_, selection);
        const auto mayGo = [&](const StoredObject& file) { return files_.count(KeyOf(file)) > 0; };
        const auto before = ActiveAtOnly() ? Records() : RecordMap();
        for (auto entry = objects_.begin(); entry != objects_.end();) {
            const StoredObject& object = entry->second;
            const bool gone = ActiveAtOnly() && before.count(entry->first) == 0;
            const bool safe = Attempt(context_.report, object.Shown(), [&] {
                if (gone) throw Failure(notActive);
                above.Refuse(object.PlainParts(), mayGo);
            });
            if (!safe && !gone) kept_.push_back(object.StoredParts());
            entry = safe ? std::next(entry) : objects_.erase(entry);
        }
    }

    size_t Count() const { return objects_.size(); }

    void Remove() {
        const auto before = Records();
        // A directory goes when nothing is left in it, so the deepest names come first, and files before directories.
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
            if (!Attempt(context_.report, object->Shown(), [&] { RemoveOne(*object); })) kept_.push_back(parts);
        }
        Announce(before, Records());
    }

private:
    struct Record {
        long long versions = 0;
        Kind kind = Kind::File;
    };
    using RecordMap = std::map<Key, Record>;

    static constexpr const char* notActive = "this version is not active; add --all-versions";

    bool ActiveAtOnly() const { return !context_.options.at.empty() && !context_.options.allVersions; }

    void RemoveOne(const StoredObject& object) {
        session_.Check("cannot delete",
                       TsmDelete(session_.Handle(), Text(object.path), Text(object.name),
                                 context_.options.allVersions ? 1 : 0, TextOrNull(context_.options.at)));
    }

    // What is stored in reach of this deletion, which may also take emptied directories on the way up.
    RecordMap Records() {
        Selection selection;
        selection.allVersions = context_.options.allVersions;
        RecordMap records;
        std::set<Parts> ancestors;
        for (const NamePattern& pattern : patterns_) {
            for (size_t depth = 1; depth < pattern.Depth(); ++depth) {
                ancestors.emplace(pattern.Plain().begin(),
                                  pattern.Plain().begin() + static_cast<std::ptrdiff_t>(depth));
            }
            Add(records, List(session_, pattern, Scope::Tree, selection));
        }
        for (const Parts& parts : ancestors) {
            Add(records, List(session_, NamePattern(parts, false), Scope::Self, selection));
        }
        return records;
    }

    // Two patterns may list the same object, which counts once.
    static void Add(RecordMap& records, const std::vector<StoredObject>& list) {
        RecordMap found;
        for (const StoredObject& object : list) {
            Record& record = found[KeyOf(object)];
            record = {record.versions + 1, object.GetKind()};
        }
        records.merge(found);
    }

    void Announce(const RecordMap& before, const RecordMap& after) {
        for (const auto& [key, record] : before) {
            const auto rest = after.find(key);
            const long long gone = record.versions - (rest == after.end() ? 0 : rest->second.versions);
            if (gone > 0) {
                const std::string versions =
                    context_.options.allVersions ? fmt::format(" ({} version{})", gone, gone == 1 ? "" : "s") : "";
                context_.report.Line("removed " + Join(key.first) + versions);
                context_.report.Count(record.kind);
            }
        }
        for (const auto& entry : objects_) {
            const auto was = before.find(entry.first);
            const auto is = after.find(entry.first);
            const bool stays = was != before.end() && is != after.end() && is->second.versions >= was->second.versions;
            const bool told = std::count(kept_.begin(), kept_.end(), entry.second.StoredParts()) > 0;
            if (!stays || told || PendingSignal() != 0) continue;
            context_.report.Failed(entry.second.Shown(), ActiveAtOnly() ? notActive : "is still there");
        }
    }

    Context& context_;
    Session& session_;
    std::vector<NamePattern> patterns_;
    std::map<Key, StoredObject> objects_;
    std::set<Key> files_;      // of one name with a directory, objects holds just one
    std::vector<Parts> kept_;  // reported already; the directories above them stay
};

NamePattern PatternOf(const std::string& typed, const Options& options) {
    const Parts parts = ParsePath(typed);
    if (typed.empty()) throw UsageError("an empty path deletes nothing; the top is /");
    if (parts.empty() && !options.recursive) throw UsageError("/: deleting everything takes --recursive");
    if (!parts.empty() && NamePattern(Parts(parts.begin(), parts.end() - 1), !options.literal).IsWild()) {
        throw UsageError(typed + ": wildcards stand in the last part only (--literal takes them as they are)");
    }
    return {parts, !options.literal};
}

}  // namespace

void RunDelete(Context& context) {
    std::vector<NamePattern> patterns;
    for (const std::string& typed : context.options.paths) patterns.push_back(PatternOf(typed, context.options));
    Session session(context.connection);
    session.Handle();
    Remover remover(context, session);
    for (size_t i = 0; i < patterns.size(); ++i) {
        Attempt(context.report, context.options.paths[i], [&] { remover.Select(patterns[i]); });
    }
    remover.Narrow();
    const std::string question = fmt::format("delete {} objects", remover.Count());
    if (remover.Count() > 1 && !Confirmed(context.options.yes, question, "yes")) {
        throw Failure("not confirmed, nothing deleted");
    }
    if (remover.Count() > 0) remover.Remove();
    CheckInterrupt();
    context.report.Summary("delete");
}

}  // namespace tsmctl
