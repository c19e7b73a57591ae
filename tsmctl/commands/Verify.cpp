// verify: compares active versions with the local files or standard input, and names each difference.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <set>

#include "Arguments.h"
#include "Attributes.h"
#include "Errors.h"
#include "HelpFormatter.h"
#include "Inventory.h"
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

class Verifier {
public:
    explicit Verifier(Report& report) : report_(report) {}

    // A difference is a result, and makes the command fail.
    void Differs(const std::string& subject, const std::string& text) { report_.Differs(subject, text); }

    void Compare(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& object) {
        const Kind stored = object.GetKind();
        const bool sameKind = stored == item.info.kind || (stored == Kind::Stream && item.info.kind == Kind::File);
        if (!sameKind) {
            report_.Count(item.info.kind);
            return Differs(item.local, fmt::format("{} here, {} stored", KindName(item.info.kind), KindName(stored)));
        }
        std::string there = object.info ? object.info->fields : "";
        const UniqueFd here = OpenItem(item, item.info.kind == Kind::File ? 0 : O_PATH);
        if (!object.directory) {
            Download download(session, object, "");
            if (stored == Kind::Link) {
                CompareLink(download, buffer, item);
            } else {
                CompareContent(download, buffer, item.local, [&](unsigned char* memory, size_t length) {
                    return IsSpecial(stored) ? 0 : ReadFull(here.Get(), memory, length);
                });
            }
            there = download.Header();
        }
        // Comes after the calls that are tried again.
        report_.Count(item.info.kind);
        report_.Did("compared", item.object);
        if (object.info && stored != Kind::Stream) CompareInfo(item, *object.info);
        if (!object.info || object.info->version < 2 || stored == Kind::Stream) return;
        if (AttributesIn(there) != AttributesIn(ReadAttributes(here.Get(), report_))) {
            Differs(item.local, "extended attributes or ACL differ");
        }
    }

    // read gives up to length bytes of the local side, fewer at its end.
    template <typename Read>
    void CompareContent(Download& download, Buffer& buffer, const std::string& local, const Read& read) {
        Buffer here(pieceSize);
        long long offset = 0;
        for (Piece piece = download.Next(buffer); piece.size > 0; piece = download.Next(buffer)) {
            const size_t got = read(here.data(), piece.size);
            const auto first = static_cast<std::ptrdiff_t>(got);
            const auto unequal = std::mismatch(here.begin(), here.begin() + first, piece.data).first - here.begin();
            offset += unequal;
            report_.Advance(got);
            if (static_cast<size_t>(unequal) < piece.size) {
                return Differs(local, fmt::format("content differs from byte {} on", offset));
            }
        }
        download.Finish();
        if (read(here.data(), 1) != 0) Differs(local, fmt::format("longer here, {} bytes are stored", offset));
    }

private:
    void CompareInfo(const LocalItem& item, const Info& stored) {
        const auto differs = [&](const char* what, const std::string& here, const std::string& there) {
            Differs(item.local, fmt::format("{} {} here, {} stored", what, here, there));
        };
        if (item.info.mode != stored.mode) differs("mode", ModeText(item.info.mode), ModeText(stored.mode));
        const timespec& here = item.info.mtime;
        const timespec& there = stored.mtime;
        if (here.tv_sec != there.tv_sec || here.tv_nsec != there.tv_nsec) {
            differs("modification time", LocalTime(here), LocalTime(there));
        }
        if (stored.version < 2) return;
        const auto owner = [](const Info& info) { return fmt::format("{}:{}", info.uid, info.gid); };
        if (owner(item.info) != owner(stored)) differs("owner and group", owner(item.info), owner(stored));
        const auto device = [](const Info& info) { return FieldOf(info.fields, "device"); };
        if (device(item.info) != device(stored)) differs("device", device(item.info), device(stored));
    }

    void CompareLink(Download& download, Buffer& buffer, const LocalItem& item) {
        const std::string here = ReadLink(item);
        const std::string there = ReceiveLinkTarget(download, buffer);
        report_.Advance(here.size());
        if (here != there) {
            Differs(item.local, fmt::format("link to {} here, to {} stored", here, there));
        }
    }

    Report& report_;
};

// What is stored where the paths were stored, by object path.
std::map<std::string, StoredObject> FindStored(const std::vector<Source>& sources, Session& session) {
    std::map<std::string, StoredObject> stored;
    for (const Source& source : sources) {
        for (StoredObject& object : List(session, NamePattern(source.object, false), Scope::Tree, {})) {
            // The directory that the entries of "/" are stored in was not stored from it.
            if (source.isRoot && object.PlainParts().size() <= source.object.size()) continue;
            stored.emplace(object.ObjectPath(), std::move(object));
        }
    }
    return stored;
}

void VerifyTrees(const VerifyOptions& options, Context& context) {
    const std::vector<Source> sources = ResolveSources(options.source.paths, options.source.to);
    Session session(context.connection);
    Verifier verifier(context.report);
    std::vector<LocalItem> items;
    std::vector<std::string> unreadable;
    for (const Source& source : sources) Scan(source, context.report, items, unreadable);
    const std::map<std::string, StoredObject> stored = FindStored(sources, session);

    std::set<std::string> here(unreadable.begin(), unreadable.end());
    std::vector<std::pair<const LocalItem*, const StoredObject*>> pairs;
    for (const LocalItem& item : items) {
        here.insert(item.object);
        const auto found = stored.find(item.object);
        if (found != stored.end()) {
            pairs.emplace_back(&item, &found->second);
            context.report.Expect(item.info.size);
        } else if (item.info.kind != Kind::Other) {
            verifier.Differs(item.local, "is not stored");
        }
    }
    const auto isInUnreadable = [&](const std::string& name) {
        return std::any_of(unreadable.begin(), unreadable.end(), [&](const std::string& folder) {
            return name.compare(0, folder.size() + 1, folder + "/") == 0;
        });
    };
    for (const auto& [name, object] : stored) {
        if (here.count(name) == 0 && !isInUnreadable(name)) verifier.Differs(name, "is stored and not here");
    }
    const Job job = {[&](size_t i) { return pairs[i].first->local; },
                     [&](Session& own, Buffer& buffer, size_t i) {
                         verifier.Compare(own, buffer, *pairs[i].first, *pairs[i].second);
                     }};
    RunParallel(context, session, options.jobs, pairs.size(), job);
}

void VerifyInput(const VerifyOptions& options, Context& context) {
    const Parts name = options.source.InputObject();
    Session session(context.connection);
    Attempt(context.report, "standard input", [&] {
        Selection files;
        files.objectType = TSM_OBJECTS_FILES;
        const auto found = List(session, NamePattern(name, false), Scope::Self, files);
        if (found.empty()) throw NotFound();
        Buffer buffer(pieceSize);
        context.report.Count(Kind::Stream);
        context.report.Did("compared", Join(name));
        Download download(session, found[0], "");
        Verifier(context.report).CompareContent(download, buffer, Join(name), [](unsigned char* memory, size_t length) {
            return ReadFull(STDIN_FILENO, memory, length);
        });
    });
}

void Verify(const VerifyOptions& options, Context& context) {
    CheckSource(options.source);
    if (options.source.IsInput()) {
        VerifyInput(options, context);
    } else {
        VerifyTrees(options, context);
    }
    context.report.Summary("verify");
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

}  // namespace tsmctl
