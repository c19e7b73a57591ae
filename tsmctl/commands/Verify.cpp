// verify and diff: compare what is stored with the local files, byte for byte or without reading them, or with what was
// stored at a moment, and name each difference.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "Arguments.h"
#include "Attributes.h"
#include "Chosen.h"
#include "Errors.h"
#include "LocalTree.h"
#include "Parallel.h"
#include "Transfer.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

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

// For people, in the local time zone.
std::string LocalTime(const timespec& time) {
    std::tm local = {};
    char date[64];
    char zone[16];
    if (!localtime_r(&time.tv_sec, &local) || std::strftime(date, sizeof date, "%F %T", &local) == 0) {
        return TimeText(time);
    }
    std::strftime(zone, sizeof zone, "%z", &local);
    return fmt::format("{}.{:09} {}", date, time.tv_nsec, zone);
}

// What the information text tells to be different. Of a stream it tells only the kind.
std::vector<std::string> Differences(const Info& here, const StoredObject& object) {
    const Kind kind = object.GetKind();
    const auto text = [](const char* what, const std::string& one, const std::string& other) {
        return fmt::format("{}{} here, {} stored", what, one, other);
    };
    if (here.kind != (kind == Kind::Stream ? Kind::File : kind)) return {text("", KindName(here.kind), KindName(kind))};
    std::vector<std::string> found;
    if (!object.info || kind == Kind::Stream) return found;
    const Info& there = *object.info;
    if (here.mode != there.mode) found.push_back(text("mode ", ModeText(here.mode), ModeText(there.mode)));
    if (TimeText(here.mtime) != TimeText(there.mtime)) {
        found.push_back(text("modification time ", LocalTime(here.mtime), LocalTime(there.mtime)));
    }
    if (there.version < 2) return found;
    const auto owner = [](const Info& info) { return fmt::format("{}:{}", info.uid, info.gid); };
    if (owner(here) != owner(there)) found.push_back(text("owner and group ", owner(here), owner(there)));
    const auto device = [](const Info& info) { return FieldOf(info.fields, "device"); };
    if (device(here) != device(there)) found.push_back(text("device ", device(here), device(there)));
    return found;
}

// Goes through a local tree and the stored one at the same time, directory by directory.
class Comparison {
public:
    Comparison(const Chosen& chosen, Report& report, Session& session)
        : chosen_(chosen), report_(report), session_(session) {}
    virtual ~Comparison() = default;
    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    // above is the number of parts in front of the paths that exclusions match.
    void Compare(const Source& source, size_t above, bool required) {
        above_ = above;
        const LocalItem top = Look(source);
        // The directory that the entries of "/" are stored in was not stored from it.
        if (source.isRoot) return CompareIn(top, source.object, nullptr);
        auto objects = List(session_, NamePattern(source.object, false), chosen_.selection);
        if (required && objects.empty()) throw NotFound();
        CompareItem(top, source.object, objects.empty() ? nullptr : &objects.back());
    }

protected:
    virtual void Both(const LocalItem& item, const StoredObject& object) = 0;
    virtual void OnlyHere(const LocalItem& item) = 0;
    virtual void OnlyStored(const std::string& object) = 0;

private:
    void CompareItem(const LocalItem& item, const Parts& plain, const StoredObject* object) {
        if (object) {
            if (Attempt(report_, item.local, [&] { RequireKnown(*object); })) Both(item, *object);
        } else if (item.info.kind != Kind::Other) {
            OnlyHere(item);
        }
        if (item.info.kind == Kind::Directory) {
            CompareIn(item, plain, object);
        } else if (object && object->directory) {
            NameStored(plain, *object);
        }
    }

    void CompareIn(const LocalItem& directory, const Parts& plain, const StoredObject* object) {
        CheckInterrupt();
        LocalFolder folder;
        if (!Attempt(report_, directory.local, [&] { folder = Read(directory, report_); })) return;
        std::map<std::string, StoredObject> stored;  // of several of one name, the newest
        for (StoredObject& entry :
             ListIn(session_, object && object->directory ? object->StoredPath() : StoredPathOf(plain),
                    chosen_.selection)) {
            stored.insert_or_assign(Unescape(entry.name), std::move(entry));
        }
        for (const std::string& name : folder.unreadable) stored.erase(name);
        for (const LocalItem& item : folder.entries) {
            const Parts inside = SplitAtSlash(item.object);
            const auto there = stored.extract(inside.back());
            if (LeftOut(inside, item.info.kind == Kind::Directory)) continue;
            CompareItem(item, inside, there ? &there.mapped() : nullptr);
        }
        folder.entries = {};
        if (!folder.whole) return;
        for (const auto& [name, entry] : stored) {
            const Parts inside = Append(plain, {name});
            if (LeftOut(inside, entry.directory)) continue;
            OnlyStored(Join(inside));
            if (entry.directory) NameStored(inside, entry);
        }
    }

    // What lies below a directory that is none here.
    void NameStored(const Parts& directory, const StoredObject& object) {
        for (const StoredObject& entry : ListIn(session_, object.StoredPath(), chosen_.selection)) {
            const Parts inside = Append(directory, {Unescape(entry.name)});
            if (LeftOut(inside, entry.directory)) continue;
            OnlyStored(Join(inside));
            if (entry.directory) NameStored(inside, entry);
        }
    }

    bool LeftOut(const Parts& plain, bool isDirectory) const {
        return chosen_.exclusions.LeaveOut({plain.begin() + static_cast<std::ptrdiff_t>(above_), plain.end()},
                                           isDirectory);
    }

    const Chosen& chosen_;
    Report& report_;
    Session& session_;
    size_t above_ = 0;
};

class Verifier : public Comparison {
public:
    Verifier(const VerifyOptions& options, Context& context, Session& session)
        : Comparison(everything_, context.report, session),
          report_(context.report),
          workers_(context, session, options.jobs) {}

    void Finish() { workers_.Finish(); }

    // read gives up to length bytes of the local side, fewer at its end.
    template <typename Read>
    void CompareContent(Download& download, Buffer& buffer, const std::string& local, const Read& read) {
        Buffer here(1);
        long long offset = 0;
        for (Piece piece = download.Next(buffer); piece.size > 0; piece = download.Next(buffer)) {
            here.resize(std::max(here.size(), piece.size));
            const size_t got = read(here.data(), piece.size);
            const auto first = static_cast<std::ptrdiff_t>(got);
            const auto unequal = std::mismatch(here.begin(), here.begin() + first, piece.data).first - here.begin();
            offset += unequal;
            report_.Advance(got);
            if (static_cast<size_t>(unequal) < piece.size) {
                return report_.Differs(local, fmt::format("content differs from byte {} on", offset));
            }
        }
        download.Finish();
        if (read(here.data(), 1) != 0) report_.Differs(local, fmt::format("longer here, {} bytes are stored", offset));
    }

private:
    void Both(const LocalItem& item, const StoredObject& object) override {
        workers_.Do(item.local, [this, item, object](Session& session, Buffer& buffer) {
            session.Retry([&] { Verify(session, buffer, item, object); });
        });
    }
    void OnlyHere(const LocalItem& item) override { report_.Differs(item.local, "is not stored"); }
    void OnlyStored(const std::string& object) override { report_.Differs(object, "is stored and not here"); }

    void Verify(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& object) {
        const Kind stored = object.GetKind();
        const std::vector<std::string> differences = Differences(item.info, object);
        const bool sameKind = item.info.kind == (stored == Kind::Stream ? Kind::File : stored);
        std::string there = object.info ? object.info->fields : "";
        UniqueFd here;
        if (sameKind) {
            here = OpenItem(item, item.info.kind == Kind::File ? 0 : O_PATH);
            if (!object.directory) there = VerifyContent(session, buffer, item, object, here);
        }
        // Comes after the calls that are tried again.
        report_.Count(item.info.kind);
        report_.Did("compared", item.object);
        for (const std::string& difference : differences) report_.Differs(item.local, difference);
        if (!sameKind || !object.info || object.info->version < 2 || stored == Kind::Stream) return;
        if (AttributesIn(there) != AttributesIn(ReadAttributes(here.Get(), report_))) {
            report_.Differs(item.local, "extended attributes or ACL differ");
        }
    }

    // Returns what is stored beside the content.
    std::string VerifyContent(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& object,
                              const UniqueFd& here) {
        Download download(session, object, "");
        if (item.info.kind == Kind::Link) {
            const std::string target = ReadLink(item);
            const std::string there = ReceiveLinkTarget(download, buffer);
            report_.Advance(target.size());
            if (target != there)
                report_.Differs(item.local, fmt::format("link to {} here, to {} stored", target, there));
        } else {
            CompareContent(download, buffer, item.local, [&](unsigned char* memory, size_t length) {
                return IsSpecial(item.info.kind) ? 0 : ReadFull(here.Get(), memory, length);
            });
        }
        return download.Header();
    }

    const Chosen everything_;
    Report& report_;
    Workers workers_;
};

void VerifyTrees(const VerifyOptions& options, Context& context, Session& session) {
    const std::vector<Source> sources = ResolveSources(options.source.paths, options.source.to);
    Verifier verifier(options, context, session);
    for (const Source& source : sources) {
        Attempt(context.report, source.local, [&] { verifier.Compare(source, 0, false); });
    }
    verifier.Finish();
}

void VerifyInput(const VerifyOptions& options, Context& context, Session& session) {
    const Parts name = options.source.InputObject();
    Attempt(context.report, "standard input", [&] {
        Selection files;
        files.objectType = TSM_OBJECTS_FILES;
        const auto found = List(session, NamePattern(name, false), files);
        if (found.empty()) throw NotFound();
        Buffer buffer(pieceSize);
        context.report.Count(Kind::Stream);
        context.report.Did("compared", Join(name));
        Download download(session, found[0], "");
        Verifier(options, context, session)
            .CompareContent(download, buffer, Join(name), [](unsigned char* memory, size_t length) {
                return ReadFull(STDIN_FILENO, memory, length);
            });
    });
}

void Verify(const VerifyOptions& options, Context& context) {
    CheckSource(options.source);
    Session session(context.connection);
    options.source.IsInput() ? VerifyInput(options, context, session) : VerifyTrees(options, context, session);
    context.report.Summary("verify");
}

class LocalDiff : public Comparison {
public:
    LocalDiff(const Chosen& chosen, Report& report, Session& session)
        : Comparison(chosen, report, session), report_(report) {}

private:
    void Both(const LocalItem& item, const StoredObject& object) override {
        report_.Count(item.info.kind);
        const bool same = Differences(item.info, object).empty() && item.info.size == object.Size();
        if (!same) report_.Differs('M', item.object);
    }
    void OnlyHere(const LocalItem& item) override { report_.Differs('+', item.object); }
    void OnlyStored(const std::string& object) override { report_.Differs('-', object); }

    Report& report_;
};

void DiffLocal(const DiffOptions& options, Context& context, Session& session) {
    const NamePattern pattern = options.chosen.Patterns()[0];
    Attempt(context.report, options.local, [&] {
        LocalDiff(options.chosen, context.report, session)
            .Compare({options.local, pattern.Plain(), false}, pattern.Above(), true);
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

void AddVerify(CommandLine& line) {
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App& command = line.Add("verify", "Compare what is stored with the local files, byte for byte",
                                 {"tsmctl verify docs --to nightly -j 4",
                                  "tsmctl restore dumps/docs.tar --to - | tsmctl verify - --as dumps/docs.tar"},
                                 [options](Context& context) { Verify(*options, context); });
    AddPaths(command, options->source.paths, fileType, "what was stored, as it was given to backup");
    AddPlace(command, options->source);
    AddJobs(command, options->jobs);
}

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
