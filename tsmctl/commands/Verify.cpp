#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <set>

#include "Commands.h"
#include "Errors.h"
#include "Parallel.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

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

// Names a difference as a result, and counts it as what it is: something that is not as it should be.
class Verifier {
public:
    explicit Verifier(Context& owner) : context_(owner) {}

    void Differs(const std::string& subject, const std::string& text) {
        context_.report.Differs(subject + ": " + text);
    }

    void Compare(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& object) {
        const Kind stored = object.GetKind();
        context_.report.Count(item.info.kind);
        const bool sameKind = stored == item.info.kind || (stored == Kind::Stream && item.info.kind == Kind::File);
        if (!sameKind) {
            return Differs(item.local, fmt::format("{} here, {} stored", KindName(item.info.kind), KindName(stored)));
        }
        if (object.info && stored != Kind::Stream) CompareInfo(item, *object.info);
        if (stored == Kind::Link) {
            CompareLink(session, buffer, item, object);
        } else if (!object.directory) {
            const UniqueFd file = OpenItem(item);
            CompareContent(session, buffer, item.local, object,
                           [&](unsigned char* memory, size_t length) { return ReadFull(file.Get(), memory, length); });
        }
    }

    // read gives up to length bytes of the local side, fewer at its end.
    template <typename Read>
    void CompareContent(Session& session, Buffer& buffer, const std::string& local, const StoredObject& object,
                        const Read& read) {
        Download download(session, object, "");
        Buffer here(pieceSize);
        long long offset = 0;
        while (const size_t count = download.Next(buffer)) {
            const size_t got = read(here.data(), count);
            const auto first = static_cast<std::ptrdiff_t>(got);
            const auto unequal = std::mismatch(here.begin(), here.begin() + first, buffer.begin()).first - here.begin();
            offset += unequal;
            context_.report.Advance(got);
            if (static_cast<size_t>(unequal) < count) {
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
    }

    void CompareLink(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& object) {
        const std::string here = ReadLink(item);
        std::string there;
        Download download(session, object, "");
        while (const size_t count = download.Next(buffer)) {
            there.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
            if (there.size() > pieceSize) throw Failure("the stored target of the link is too long");
        }
        download.Finish();
        context_.report.Advance(here.size());
        if (here != there) {
            Differs(item.local, fmt::format("link to {} here, to {} stored", here, there));
        }
    }

    Context& context_;
};

void VerifyTrees(Context& context, Session& session) {
    Verifier verifier(context);
    std::vector<LocalItem> items;
    std::vector<std::string> unreadable;
    std::map<std::string, StoredObject> stored;
    for (const Landing& landing : MapPaths(context.options.paths, context.options.to)) {
        Scan(landing, context.report, items, unreadable);
        for (StoredObject& object : List(session, NamePattern(landing.object, false), Scope::Tree, {})) {
            // The folder that "/" lands in belongs to nobody.
            if (!landing.top || object.PlainParts().size() > landing.object.size()) {
                stored.emplace(object.Shown(), std::move(object));
            }
        }
    }
    std::set<std::string> known(unreadable.begin(), unreadable.end());
    std::vector<std::pair<const LocalItem*, const StoredObject*>> pairs;
    long long bytes = 0;
    for (const LocalItem& item : items) {
        known.insert(item.object);
        const auto found = stored.find(item.object);
        if (found != stored.end()) {
            pairs.emplace_back(&item, &found->second);
            bytes += item.info.size.value_or(0);
        } else if (item.info.kind != Kind::Other) {
            verifier.Differs(item.local, "is not stored");
        }
    }
    context.report.ExpectBytes(bytes);
    const auto inUnreadable = [&](const std::string& name) {
        return std::any_of(unreadable.begin(), unreadable.end(), [&](const std::string& folder) {
            return name.compare(0, folder.size() + 1, folder + "/") == 0;
        });
    };
    for (const auto& [name, object] : stored) {
        if (known.count(name) == 0 && !inUnreadable(name)) verifier.Differs(name, "is stored and not here");
    }
    const Job job = {[&](size_t i) { return pairs[i].first->local; },
                     [&](Session& own, Buffer& buffer, size_t i) {
                         verifier.Compare(own, buffer, *pairs[i].first, *pairs[i].second);
                     }};
    RunParallel(context, session, 0, pairs.size(), job);
}

void VerifyInput(Context& context, Session& session) {
    const Parts name = Append(ParsePath(context.options.to), ParsePath(context.options.as));
    Attempt(context.report, "standard input", [&] {
        Selection files;
        files.objectType = 2;
        const auto found = List(session, NamePattern(name, false), Scope::Self, files);
        if (found.empty()) throw Failure(CodeText("not found", -2));
        Buffer buffer(pieceSize);
        context.report.Count(Kind::Stream);
        Verifier(context).CompareContent(
            session, buffer, Join(name), found[0],
            [](unsigned char* memory, size_t length) { return ReadFull(0, memory, length); });
    });
}

}  // namespace

void RunVerify(Context& context) {
    Session session(context.connection);
    context.options.as.empty() ? VerifyTrees(context, session) : VerifyInput(context, session);
    context.report.Summary("verify");
}

}  // namespace tsmctl
