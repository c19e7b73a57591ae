#include "TreeBackup.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <tuple>
#include <utility>

#include "Errors.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

// So many objects are sent before it is checked that they are stored, for which all sessions have to be idle.
constexpr size_t mostUnchecked = 1000;

// What shows whether something changed. Content and attributes do not without the ctime.
std::string StateOf(Info info, bool withCtime) {
    if (!withCtime) info.ctime = {};
    info.fields = FieldOf(info.fields, "link") + " " + FieldOf(info.fields, "device");
    return FormatInfo(info);
}

// Whether content and attributes are what is stored, by reading both. What cannot be read is not.
bool HoldsTheSame(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& stored,
                  Report& report) try {
    const Content there = ContentOf(session, buffer, stored, "", report);
    const Content here = ContentOf(item, buffer, there.size + 1, report);
    return here.digest == there.digest && here.attributes == there.attributes;
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
    const auto counts = [](const auto& entry) {
        return entry.first != "lost+found" && (!entry.second.file || IsFromTree(*entry.second.file));
    };
    for (const LocalItem& item : here.entries) {
        const auto found = folder.stored.find(Escape(SplitAtSlash(item.object).back()));
        if (found != folder.stored.end() && counts(*found)) return;
    }
    const auto stored = std::count_if(folder.stored.begin(), folder.stored.end(), counts);
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
        *folder.incomplete = true;
    }
}

void TreeBackup::Walk(LocalFolder here, Folder& folder) {
    // Directories come last, when the memory of all else is free again.
    std::stable_partition(here.entries.begin(), here.entries.end(),
                          [](const LocalItem& item) { return item.info.kind != Kind::Directory; });
    for (; !here.entries.empty(); here.entries.pop_front()) {
        const LocalItem& item = here.entries.front();
        const Parts object = SplitAtSlash(item.object);
        if (item.unreadable || LeavesOut(object, item.info.kind == Kind::Directory)) {
            folder.stored.erase(Escape(object.back()));
        } else if (item.info.kind == Kind::Other) {
            context_.report.Warn(item.local, "socket, skipped");
        } else {
            StoreItem(item, folder);
        }
    }
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
    const bool like = !options_.full && !hidden && before && before->info &&
                      StateOf(item.info, !options_.checksum) == StateOf(*before->info, !options_.checksum);
    const Change change = like ? Change::Unchanged : before || replaces ? Change::Changed : Change::New;
    if (!isDirectory) return Send(item, folder, change, before);
    Folder inside;
    inside.object = object;
    if (!before) inside.incomplete = folder.incomplete;
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
        return Count(item, change);
    }
    Sent& sent = sent_.emplace_back(Sent{item, change, folder.incomplete, before ? before->date : ""});
    const auto work = [this, &sent, like = compare ? before : std::nullopt](Session& session, Buffer& buffer) {
        if (like && HoldsTheSame(session, buffer, sent.item, *like, context_.report)) {
            sent.before.clear();
            sent.text = like->text;
            sent.committed = true;
        } else {
            if (like) sent.change = Change::Changed;
            Store(session, buffer, sent);
        }
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

void TreeBackup::Count(const LocalItem& item, Change change) {
    if (change != Change::Unchanged) {
        context_.report.Did("stored", item.object, change == Change::New ? "new" : "changed");
    }
    context_.report.Count(item.info.kind);
    context_.report.CountChange(change);
}

void TreeBackup::Finish(const Incomplete& only) {
    workers_.Finish();
    std::map<Parts, std::list<Sent>> folders;
    for (auto next = sent_.begin(); next != sent_.end();) {
        const auto sent = next++;
        if (only && sent->incomplete != only) continue;
        Parts folder = SplitAtSlash(sent->item.object);
        folder.pop_back();
        std::list<Sent>& inside = folders[folder];
        inside.splice(inside.end(), sent_, sent);
    }
    for (auto& [folder, all] : folders) {
        Attempt(context_.report, Join(folder), [&, &path = folder, &sent = all] {
            const StoredFolder now = ListFolder(session_, path);
            for (Sent& each : sent) Check(each, now);
        });
        for (const Sent& sent : all) *sent.incomplete = *sent.incomplete || !sent.checked;
    }
}

void TreeBackup::Check(Sent& sent, const StoredFolder& now) {
    if (!sent.committed) return;  // has failed already
    const bool isDirectory = sent.item.info.kind == Kind::Directory;
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
    sent.checked = isThere || Attempt(context_.report, sent.item.local, storeAgain);
    if (sent.checked) Count(sent.item, sent.change);
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
    if (sent_.size() >= mostUnchecked) Finish();
    if (gone.empty() && folder.replaced.empty()) return;
    Finish(folder.incomplete);
    if (*folder.incomplete) {
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
