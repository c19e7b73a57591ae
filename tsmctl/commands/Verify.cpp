// verify and diff: compare what is stored with the local files, byte for byte or without reading them, or with what was
// stored at a moment, and name each difference.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <map>
#include <utility>

#include "Chosen.h"
#include "Errors.h"
#include "LocalTree.h"
#include "Parallel.h"
#include "Transfer.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct VerifyOptions {
    SourceOptions source;
    int jobs = usualReaders;
};

struct DiffOptions {
    Chosen chosen;
    std::string local;
};

// What the information text says, for people.
using Said = std::vector<std::pair<const char*, std::string>>;
Said Describe(const Info& info, int version) {
    std::tm local = {};
    const bool shown = localtime_r(&info.mtime.tv_sec, &local);
    const std::string time =
        shown ? fmt::format("{:%F %T}.{:09} {:%z}", local, info.mtime.tv_nsec, local) : TimeText(info.mtime);
    Said said = {{"mode", ModeText(info.mode)}, {"modification time", time}};
    if (version < 2) return said;
    said.emplace_back("owner and group", fmt::format("{}:{}", info.uid, info.gid));
    said.emplace_back("device", FieldOf(info.fields, "device"));
    return said;
}

// What the information text tells to be different. Of a stream it tells only the kind.
std::vector<std::string> Differences(const Info& here, const StoredObject& object) {
    const Kind kind = object.GetKind();
    if (here.kind != (kind == Kind::Stream ? Kind::File : kind)) {
        return {fmt::format("{} here, {} stored", KindName(here.kind), KindName(kind))};
    }
    std::vector<std::string> found;
    if (!object.info || kind == Kind::Stream) return found;
    const Said one = Describe(here, object.info->version);
    const Said other = Describe(*object.info, object.info->version);
    for (size_t i = 0; i < one.size(); ++i) {
        const auto& [what, text] = one[i];
        if (text != other[i].second) found.push_back(fmt::format("{} {} here, {} stored", what, text, other[i].second));
    }
    return found;
}

// Goes through a local tree and the stored one at the same time, directory by directory.
class Comparison {
public:
    // Gets what is here and what is stored; one of them may be null.
    using Visit = std::function<void(const LocalItem*, const StoredObject*, const Parts& plain)>;

    // above is the number of parts in front of the paths that exclusions match.
    Comparison(const Chosen& chosen, size_t above, Report& report, Session& session, Visit visit)
        : chosen_(chosen), above_(above), report_(report), session_(session), visit_(std::move(visit)) {}

    void Compare(const Source& source, bool required) const {
        const LocalItem top = Look(source);
        // The directory that the entries of "/" are stored in was not stored from it.
        if (source.isRoot) return CompareIn(&top, source.object, nullptr);
        auto objects = List(session_, NamePattern(source.object, false), chosen_.selection);
        if (required && objects.empty()) throw NotFound();
        CompareEntry(&top, source.object, objects.empty() ? nullptr : &objects.back());
    }

private:
    void CompareEntry(const LocalItem* item, const Parts& plain, const StoredObject* object) const {
        const bool isDirectory = item ? item->info.kind == Kind::Directory : object->directory;
        const bool isSocket = !object && item->info.kind == Kind::Other;
        const bool canBeCompared = !item || !object || Attempt(report_, item->local, [&] { RequireKnown(*object); });
        if (canBeCompared && !isSocket) visit_(item, object, plain);
        if (isDirectory || (object && object->directory)) CompareIn(isDirectory ? item : nullptr, plain, object);
    }

    void CompareInside(const LocalItem* item, const Parts& plain, const StoredObject* object) const {
        const bool isDirectory = item ? item->info.kind == Kind::Directory : object->directory;
        const Parts below(plain.begin() + static_cast<std::ptrdiff_t>(above_), plain.end());
        if (!chosen_.exclusions.LeaveOut(below, isDirectory)) CompareEntry(item, plain, object);
    }

    void CompareIn(const LocalItem* directory, const Parts& plain, const StoredObject* object) const {
        CheckInterrupt();
        LocalFolder folder;
        if (directory && !Attempt(report_, directory->local, [&] { folder = Read(*directory, report_); })) return;
        std::map<std::string, std::vector<StoredObject>> stored;  // of one name, the newest last
        for (StoredObject& entry :
             ListIn(session_, object && object->directory ? object->StoredPath() : StoredPathOf(plain),
                    chosen_.selection)) {
            stored[Unescape(entry.name)].push_back(std::move(entry));
        }
        for (const LocalItem& item : folder.entries) {
            const Parts inside = SplitAtSlash(item.object);
            const auto there = stored.extract(inside.back());
            if (!item.unreadable) CompareInside(&item, inside, there ? &there.mapped().back() : nullptr);
        }
        folder.entries = {};
        if (!folder.whole) return;
        for (const auto& [name, entries] : stored) {
            for (const StoredObject& entry : entries) CompareInside(nullptr, Append(plain, {name}), &entry);
        }
    }

    const Chosen& chosen_;
    const size_t above_;
    Report& report_;
    Session& session_;
    const Visit visit_;
};

void VerifyOne(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& object, Report& report) {
    const Kind kind = object.GetKind();
    std::vector<std::string> differences = Differences(item.info, object);
    if (item.info.kind == (kind == Kind::Stream ? Kind::File : kind)) {
        const Content there = ContentOf(session, buffer, object, "", report);
        const Content here = ContentOf(item, buffer, there.size + 1, report);
        const bool withAttributes = object.info && object.info->version > 1 && kind != Kind::Stream;
        if (here.digest != there.digest) differences.emplace_back("content differs");
        if (withAttributes && here.attributes != there.attributes) {
            differences.emplace_back("extended attributes or ACL differ");
        }
    }
    // Comes after the calls that are tried again.
    report.Count(item.info.kind);
    report.Did("compared", item.object);
    for (const std::string& difference : differences) report.Differs(item.local, difference);
}

void VerifyTrees(const VerifyOptions& options, Context& context, Session& session) {
    Report& report = context.report;
    const std::vector<Source> sources = ResolveSources(options.source.paths, options.source.to);
    const Chosen everything;
    Workers workers(context, session, options.jobs);
    const auto visit = [&](const LocalItem* here, const StoredObject* stored, const Parts& plain) {
        if (!here) return report.Differs(Join(plain), "is stored and not here");
        if (!stored) return report.Differs(here->local, "is not stored");
        workers.Do(here->local, [&report, item = *here, object = *stored](Session& own, Buffer& buffer) {
            own.Retry([&] { VerifyOne(own, buffer, item, object, report); });
        });
    };
    const Comparison comparison(everything, 0, report, session, visit);
    for (const Source& source : sources) {
        Attempt(report, source.local, [&] { comparison.Compare(source, false); });
    }
    workers.Finish();
}

void VerifyInput(const VerifyOptions& options, Context& context, Session& session) {
    const Parts name = options.source.InputObject();
    Attempt(context.report, "standard input", [&] {
        Selection files;
        files.objectType = TSM_OBJECTS_FILES;
        const auto found = List(session, NamePattern(name, false), files);
        if (found.empty()) throw NotFound();
        Buffer buffer(pieceSize);
        // Comes first, since whoever writes may have a session that must not stand still. So may this one.
        const std::string here = DigestOf(STDIN_FILENO, buffer);
        session.Drop();
        const Content there = ContentOf(session, buffer, found[0], "", context.report);
        context.report.Count(Kind::Stream);
        context.report.Did("compared", Join(name));
        if (here != there.digest) context.report.Differs(Join(name), "content differs");
    });
}

void Verify(const VerifyOptions& options, Context& context) {
    CheckSource(options.source);
    Session session(context.connection);
    options.source.IsInput() ? VerifyInput(options, context, session) : VerifyTrees(options, context, session);
    context.report.Summary("verify");
}

void DiffLocal(const DiffOptions& options, Context& context, Session& session) {
    Report& report = context.report;
    const NamePattern pattern = options.chosen.Patterns()[0];
    const auto visit = [&](const LocalItem* here, const StoredObject* stored, const Parts& plain) {
        if (here && stored) report.Count(here->info.kind);
        const bool same =
            here && stored && Differences(here->info, *stored).empty() && here->info.size == stored->Size();
        if (!same) report.Differs(!here ? '-' : !stored ? '+' : 'M', Join(plain));
    };
    const Comparison comparison(options.chosen, pattern.Above(), report, session, visit);
    Attempt(report, options.local, [&] { comparison.Compare({options.local, pattern.Plain(), false}, true); });
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
    local ? DiffLocal(options, context, session) : DiffMoments(options, context, session);
    context.report.Summary("diff");
}

}  // namespace

void AddVerify(CommandLine& line) {
    auto [command, options] =
        line.Add<VerifyOptions>("verify", "Compare what is stored with the local files, byte for byte",
                                {"tsmctl verify docs --to nightly -j 4",
                                 "tsmctl restore dumps/docs.tar --to - | tsmctl verify - --as dumps/docs.tar"},
                                Verify);
    AddArguments(command, "PATH", options.source.paths, fileType, "what was stored, as it was given to backup");
    AddPlace(command, options.source);
    AddJobs(command, options.jobs);
}

void AddDiff(CommandLine& line) {
    auto [command, options] = line.Add<DiffOptions>(
        "diff", "Tell what differs from an earlier moment, or from a local tree",
        {"tsmctl diff nightly/docs --local docs", "tsmctl diff dumps --at \"$(date '+%F %T')\""}, Diff);
    AddChosen(command, options.chosen, "object path, may hold * and ? (default: everything)");
    command.add_option("--local", options.local, "compare with this file or folder")->type_name(fileType);
}

}  // namespace tsmctl
