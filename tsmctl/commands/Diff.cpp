// diff: says what differs between two moments, or between what is stored and a local tree, without reading contents.
#include <memory>

#include "Arguments.h"
#include "Chosen.h"
#include "Errors.h"
#include "HelpFormatter.h"
#include "LocalTree.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct DiffOptions {
    Chosen chosen;
    std::string local;
};

bool SameAsHere(const LocalItem& item, const StoredObject& object) {
    const Info& here = item.info;
    const bool stream = object.GetKind() == Kind::Stream;
    if (here.kind != (stream ? Kind::File : object.GetKind()) || here.size != object.Size()) return false;
    if (!object.info || stream) return true;
    const Info& there = *object.info;
    const bool same = here.mode == there.mode && TimeText(here.mtime) == TimeText(there.mtime);
    const auto device = [](const Info& info) { return FieldOf(info.fields, "device"); };
    const bool owned = here.uid == there.uid && here.gid == there.gid && device(here) == device(there);
    return same && (owned || there.version < 2);
}

// Compares a stored directory with a local one, and what lies below.
class LocalDiff {
public:
    LocalDiff(const DiffOptions& options, Report& report, Session& session)
        : options_(options), report_(report), session_(session) {}

    void Compare(const LocalItem& item, const StoredObject& object) {
        report_.Count(item.info.kind);
        if (!SameAsHere(item, object)) report_.Differs('M', item.object);
        if (item.info.kind == Kind::Directory && object.directory) CompareIn(item, object.StoredPath());
    }

private:
    void CompareIn(const LocalItem& directory, const std::string& path) {
        CheckInterrupt();
        const LocalFolder folder = Read(directory, report_);
        std::map<std::string, StoredObject> stored;
        for (StoredObject& object : ListIn(session_, path, options_.chosen.selection)) {
            stored.insert_or_assign(Unescape(object.name), std::move(object));
        }
        for (const std::string& name : folder.unreadable) stored.erase(name);
        for (const LocalItem& item : folder.entries) {
            const bool isDirectory = item.info.kind == Kind::Directory;
            const Parts plain = SplitAtSlash(item.object);
            const auto there = stored.extract(plain.back());
            if (options_.chosen.exclusions.LeaveOut(Below(plain), isDirectory)) continue;
            if (there) {
                Compare(item, there.mapped());
            } else if (item.info.kind != Kind::Other) {
                report_.Differs('+', item.object);
            }
        }
        for (const auto& [name, object] : stored) {
            const Parts plain = Append(SplitAtSlash(directory.object), {name});
            const bool leftOut = options_.chosen.exclusions.LeaveOut(Below(plain), object.directory);
            if (folder.whole && !leftOut) report_.Differs('-', Join(plain));
        }
    }

    // The path from the last part of the one that was given.
    Parts Below(const Parts& plain) const {
        const size_t above = options_.chosen.Patterns()[0].Above();
        return {plain.begin() + static_cast<std::ptrdiff_t>(above), plain.end()};
    }

    const DiffOptions& options_;
    Report& report_;
    Session& session_;
};

void DiffLocal(const DiffOptions& options, Context& context, Session& session) {
    const NamePattern pattern = options.chosen.Patterns()[0];
    Attempt(context.report, options.local, [&] {
        const LocalItem top = Look({options.local, pattern.Plain(), false});
        const auto objects = List(session, pattern, Scope::Self, options.chosen.selection);
        if (objects.empty()) throw NotFound();
        LocalDiff(options, context.report, session).Compare(top, objects.back());
    });
}

void DiffMoments(DiffOptions options, Context& context, Session& session) {
    Report& report = context.report;
    options.chosen.selection.marked = options.chosen.selection.andNow = true;
    Walk(context, session, options.chosen, [&](const std::vector<StoredObject>& versions, const Parts&, size_t) {
        std::map<std::pair<std::string, bool>, std::pair<const StoredObject*, const StoredObject*>> pairs;
        for (const StoredObject& object : versions) {
            auto& [then, now] = pairs[{object.StoredPath(), object.directory}];
            if (object.chosen) then = &object;
            if (object.active) now = &object;
        }
        for (const auto& [key, pair] : pairs) {
            const auto& [then, now] = pair;
            report.Count((now ? now : then)->GetKind());
            const bool same = then && now && then->text == now->text && then->announced == now->announced &&
                              (now->info || then->date == now->date);
            if (!same) report.Differs(!then ? '+' : !now ? '-' : 'M', (now ? now : then)->ObjectPath());
        }
        return true;
    });
}

void Diff(const DiffOptions& options, Context& context) {
    const std::vector<NamePattern> patterns = options.chosen.Patterns();
    const bool local = !options.local.empty();
    if (!local && options.chosen.selection.at.empty()) throw UsageError("diff needs --at, --local or both");
    if (local && (patterns.size() > 1 || patterns[0].IsRoot() || patterns[0].IsWild())) {
        throw UsageError("--local needs one PATH, without wildcards");
    }
    Session session(context.connection);
    if (local) {
        DiffLocal(options, context, session);
    } else {
        DiffMoments(options, context, session);
    }
    context.report.Summary("diff");
}

}  // namespace

void AddDiff(CommandLine& line) {
    const auto options = std::make_shared<DiffOptions>();
    CLI::App& command =
        line.Add("diff", "Tell what differs from an earlier moment, or from a local tree",
                 {"tsmctl diff nightly/docs --local docs", "tsmctl diff dumps --at \"$(date '+%F %T')\""},
                 [options](Context& context) { Diff(*options, context); });
    AddChosen(command, options->chosen, "object path, may hold * and ? (default: everything)");
    command.add_option("--local", options->local, "compare with this file or folder")->type_name(fileType);
}

}  // namespace tsmctl
