#include "TreeBackup.h"

#include <fcntl.h>

#include <chrono>
#include <ctime>
#include <set>
#include <thread>
#include <tuple>
#include <utility>

#include "Attributes.h"
#include "Errors.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

// A change within one tick of the system's clock leaves the ctime as it is.
void WaitForTheNextTick(const timespec& changed) {
    constexpr auto tick = std::chrono::milliseconds(20);
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto age =
        std::chrono::seconds(now.tv_sec - changed.tv_sec) + std::chrono::nanoseconds(now.tv_nsec - changed.tv_nsec);
    if (age >= age.zero() && age < tick) std::this_thread::sleep_for(tick - age);
}

// So many objects are sent before it is checked that they are stored, for which all sessions have to be idle.
constexpr size_t mostUnchecked = 1000;

// Whether the item looks like what is stored. Content and attributes do not change without the ctime.
bool LooksTheSame(const LocalItem& item, const Info& stored, bool withCtime) {
    const Info& here = item.info;
    const auto same = [&](const char* key) { return FieldOf(here.fields, key) == FieldOf(stored.fields, key); };
    return stored.version == here.version && here.kind == stored.kind && here.mode == stored.mode &&
           here.size == stored.size && TimeText(here.mtime) == TimeText(stored.mtime) &&
           (!withCtime || TimeText(here.ctime) == TimeText(stored.ctime)) && here.uid == stored.uid &&
           here.gid == stored.gid && same("link") && same("device");
}

// Whether content and attributes are what is stored, by reading both. What cannot be read is not.
bool HoldsTheSame(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& stored,
                  Report& report) try {
    std::string attributes = stored.info->fields;
    if (!stored.directory) {
        Download download(session, stored, "");
        Receive(download, buffer, [](const Piece&) {});
        attributes = download.Header();
        Sha256 content;
        if (item.info.kind == Kind::File) {
            AddFile(content, OpenItem(item), buffer);
        } else if (item.info.kind == Kind::Link) {
            const std::string target = ReadLink(item);
            content.Add(target.data(), target.size());
        }
        if (content.Hex() != download.Digest()) return false;
    }
    return AttributesIn(attributes) == AttributesIn(ReadAttributes(OpenItem(item, O_PATH).Get(), report));
} catch (const Failure&) {
    return false;
}

}  // namespace

TreeBackup::TreeBackup(const TreeOptions& options, Context& context, Session& session, StoreFunction store)
    : options_(options),
      context_(context),
      session_(session),
      store_(std::move(store)),
      buffer_(pieceSize),
      workers_(context, session, options.jobs),
      vanished_(
          session, context.report, [this](const Parts& object, bool directory) { return LeavesOut(object, directory); },
          [this](const LocalItem& item) {
              std::string text;
              store_(session_, buffer_, item, text);
              return text;
          },
          options.mgmtClass) {
    for (const Change change : {Change::New, Change::Changed, Change::Unchanged, Change::Gone}) {
        context.report.CountChange(change, 0);
    }
}

void TreeBackup::Run(const Source& source) {
    Attempt(context_.report, source.local, [&] {
        top_ = Look(source);
        const bool isDirectory = top_.info.kind == Kind::Directory;
        head_ = source.object.size() - (source.isRoot ? 0 : 1);
        Folder folder;
        folder.object = {source.object.begin(), source.object.begin() + static_cast<std::ptrdiff_t>(head_)};
        if (source.isRoot) return Enter(top_, folder, [] {});
        if (LeavesOut(source.object, isDirectory)) return;
        const StoredPair stored = ListOne(session_, source.object);
        if (!isDirectory && stored.directory && !options_.force && !options_.keepVanished) {
            throw Failure("was a directory when it was stored; --force stores what it is now in its place");
        }
        folder.stored[Escape(source.object.back())] = stored;
        StoreItem(top_, folder);
        Settle(folder);
    });
}

bool TreeBackup::LeavesOut(const Parts& object, bool directory) const {
    return options_.exclusions.LeaveOut({object.begin() + static_cast<std::ptrdiff_t>(head_), object.end()}, directory);
}

void TreeBackup::CheckTop(const Folder& folder, const LocalFolder& here) const {
    std::set<std::string> names(here.unreadable.begin(), here.unreadable.end());
    for (const LocalItem& item : here.entries) names.insert(SplitAtSlash(item.object).back());
    size_t stored = 0;
    for (const auto& [name, pair] : folder.stored) {
        const std::string plain = Unescape(name);
        if (plain == "lost+found" || (pair.file && !IsFromTree(*pair.file))) continue;
        if (names.count(plain) > 0) return;
        ++stored;
    }
    if (stored > 1 || (stored == 1 && here.entries.empty())) {
        throw Failure(
            "holds nothing of what is stored of it, as if another file system were here; nothing is stored "
            "or removed (--force stores it as it is, --keep-vanished removes nothing)");
    }
}

// Stores the directory by the function given, and then what it holds.
void TreeBackup::Enter(const LocalItem& directory, Folder& folder, const std::function<void()>& store) {
    Report& report = context_.report;
    LocalFolder here;
    const char* closed = nullptr;
    const bool readable = Attempt(report, directory.local, [&] {
        // What another run stores from now on is not taken for gone.
        StoredFolder stored = ListFolder(session_, folder.object);
        here = Read(directory, report);
        closed = here.isStore                                                ? "is the store of a server"
                 : here.isCache && options_.withoutCaches                    ? "is a cache"
                 : directory.device != top_.device && options_.oneFileSystem ? "is another file system"
                                                                             : nullptr;
        if (!closed) folder.stored = std::move(stored);
    });
    const bool isTop = directory.local == top_.local;
    if (isTop && readable && !options_.force && !options_.keepVanished) CheckTop(folder, here);
    store();
    if (closed) {
        report.Note(directory.local + " " + closed + "; what it holds is left out");
    } else if (readable) {
        Walk(std::move(here), folder);
    } else {
        ++*folder.unfinished;
    }
}

void TreeBackup::Walk(LocalFolder here, Folder& folder) {
    std::vector<LocalItem> directories;
    for (const std::string& name : here.unreadable) folder.stored.erase(Escape(name));
    for (LocalItem& item : here.entries) {
        const Parts object = SplitAtSlash(item.object);
        const bool isDirectory = item.info.kind == Kind::Directory;
        if (LeavesOut(object, isDirectory)) {
            folder.stored.erase(Escape(object.back()));
        } else if (item.info.kind == Kind::Other) {
            context_.report.Warn(item.local, "socket, skipped");
        } else if (isDirectory) {
            directories.push_back(std::move(item));
        } else {
            StoreItem(item, folder);
        }
    }
    here.entries = {};
    for (const LocalItem& item : directories) StoreItem(item, folder);
    if (here.whole) Settle(folder);
}

void TreeBackup::StoreItem(const LocalItem& item, Folder& folder) {
    const bool isDirectory = item.info.kind == Kind::Directory;
    const Parts object = SplitAtSlash(item.object);
    StoredPair stored;
    if (auto node = folder.stored.extract(Escape(object.back()))) stored = std::move(node.mapped());
    const auto& other = stored.Of(!isDirectory);
    const bool replaces = bool(other);
    if (replaces) folder.replaced.push_back(item);
    folder.othersStay = folder.othersStay || !replaces;
    const auto& before = stored.Of(isDirectory);
    // A restore takes the newer kind.
    const bool hidden =
        before && other && std::tie(other->date, other->directory) > std::tie(before->date, before->directory);
    const bool like =
        !options_.full && !hidden && before && before->info && LooksTheSame(item, *before->info, !options_.checksum);
    const Change change = like ? Change::Unchanged : before || replaces ? Change::Changed : Change::New;
    if (!isDirectory) return Send(item, folder, change, before);
    Folder inside;
    inside.object = object;
    if (!before) inside.unfinished = folder.unfinished;
    Enter(item, inside, [&] { Send(item, folder, change, before); });
}

// A listing says what became of an earlier try, so that nothing is stored twice.
void TreeBackup::Store(Session& session, Buffer& buffer, Sent& sent) const {
    session.Retry([&] {
        const bool isThere =
            !sent.text.empty() && IsStoredAs(ListOne(session, SplitAtSlash(sent.item.object)),
                                             sent.item.info.kind == Kind::Directory, sent.text, sent.before);
        if (!isThere) store_(session, buffer, sent.item, sent.text);
        sent.committed = true;
    });
}

void TreeBackup::Send(const LocalItem& item, Folder& folder, Change change, const std::optional<StoredObject>& before) {
    Report& report = context_.report;
    const bool compare = change == Change::Unchanged && options_.checksum;
    if ((change == Change::Unchanged && !compare) || report.IsDryRun()) {
        report.Step();
        return Count(SplitAtSlash(item.object), item.info.kind, change);
    }
    ++*folder.unfinished;
    ++uncheckedObjects_;
    if (!folder.sending || folder.sending->sent.empty()) {
        folder.sending = std::make_shared<Unchecked>(Unchecked{folder.object, folder.unfinished, {}});
        unchecked_.push_back(folder.sending);
    }
    Sent& sent = folder.sending->sent.emplace_back(Sent{item, change, before ? before->date : "", {}, false});
    const auto work = [this, &sent, keep = folder.sending, like = compare ? before : std::nullopt](Session& session,
                                                                                                   Buffer& buffer) {
        if (like && HoldsTheSame(session, buffer, sent.item, *like, context_.report)) {
            sent.before.clear();
            sent.text = like->text;
            sent.committed = true;
        } else {
            if (like) sent.change = Change::Changed;
            WaitForTheNextTick(sent.item.info.ctime);
            Store(session, buffer, sent);
        }
        --*keep->unfinished;
        context_.report.Step();
    };
    // Two sessions that miss the same directory would both create it. So this one stores the directories, and the
    // first file, which creates those that --to names.
    if (item.info.kind == Kind::Directory || !headStored_) {
        const bool done = Attempt(report, item.local, [&] { work(session_, buffer_); });
        headStored_ = headStored_ || done;
    } else {
        workers_.Do(item.local, work);
    }
}

void TreeBackup::Count(const Parts& object, Kind kind, Change change) {
    if (change != Change::Unchanged)
        context_.report.Did("stored", Join(object), change == Change::New ? "new" : "changed");
    context_.report.Count(kind);
    context_.report.CountChange(change);
}

void TreeBackup::Finish() {
    workers_.Finish();
    for (const auto& folder : unchecked_) Check(*folder);
    unchecked_.clear();
    uncheckedObjects_ = 0;
}

void TreeBackup::Check(Unchecked& folder) {
    if (folder.sent.empty()) return;
    Report& report = context_.report;
    const bool listed = Attempt(report, Join(folder.object), [&] {
        const StoredFolder now = ListFolder(session_, folder.object);
        for (Sent& sent : folder.sent) {
            if (!sent.committed) continue;  // has failed already
            const Kind kind = sent.item.info.kind;
            const bool isDirectory = kind == Kind::Directory;
            const Parts object = SplitAtSlash(sent.item.object);
            const auto found = now.find(Escape(object.back()));
            const bool isThere = found != now.end() && IsStoredAs(found->second, isDirectory, sent.text, sent.before);
            // A version of the same second as the one before, as after two runs with --full, cannot be told from it.
            bool again = !isThere && found != now.end() && IsStoredAs(found->second, isDirectory, sent.text);
            if (again && !std::exchange(secondPassed_, true)) std::this_thread::sleep_for(std::chrono::seconds(1));
            const auto storeAgain = [&] {
                session_.Retry([&] {
                    if (std::exchange(again, true)) Store(session_, buffer_, sent);
                    RequireStored(session_, object, isDirectory, sent.text, sent.before);
                });
            };
            if (isThere || Attempt(report, sent.item.local, storeAgain)) {
                Count(object, kind, sent.change);
            } else {
                ++*folder.unfinished;
            }
        }
    });
    if (!listed) ++*folder.unfinished;
    folder.sent.clear();
}

void TreeBackup::Settle(Folder& folder) {
    Report& report = context_.report;
    StoredFolder gone;
    for (const auto& [name, stored] : folder.stored) {
        const bool mayGo = (!stored.file || IsFromTree(*stored.file)) && !folder.object.empty();
        const bool isTold = stored.file && IsDamaged(*stored.file) && !folder.object.empty();
        if ((mayGo || isTold) && !options_.keepVanished) gone.emplace(name, stored);
        folder.othersStay = folder.othersStay || !mayGo;
    }
    if (uncheckedObjects_ >= mostUnchecked) Finish();
    if (gone.empty() && folder.replaced.empty()) return;
    workers_.Finish();
    for (const auto& sent : unchecked_) {
        if (sent->unfinished == folder.unfinished) Check(*sent);
    }
    if (*folder.unfinished > 0) {
        return report.Note(Join(folder.object) + ": what is gone stays stored, since not everything here could be");
    }
    if (options_.keepVanished) {
        for (const LocalItem& item : folder.replaced) WarnOfOtherKind(report, item);
        return;
    }
    Attempt(report, Join(folder.object), [&] {
        report.CountChange(Change::Gone,
                           vanished_.Remove(folder.object, gone, folder.replaced, folder.othersStay, head_));
    });
}

}  // namespace tsmctl
