#include "Vanished.h"

#include <fmt/format.h>

#include <algorithm>

#include "Errors.h"
#include "Sender.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

// A directory that the library made has no text.
bool MayGo(const std::optional<StoredObject>& object) {
    return !object || IsFromTree(*object) || (object->directory && object->text.empty());
}

}  // namespace

void KeptDirectories::RememberAbove(const Parts& object) {
    for (const Parts& directory : DirectoriesAbove(object)) {
        for (StoredObject& stored : List(session_, NamePattern(directory, false), {})) {
            if (stored.directory && stored.info) directories_.push_back(std::move(stored));
        }
    }
}

void KeptDirectories::Restore(bool evenEmpty) {
    for (const StoredObject& directory : directories_) {
        const auto restore = [&] {
            const NamePattern pattern(directory.PlainParts(), false);
            const auto now = List(session_, pattern, {});
            const bool kept = std::any_of(now.begin(), now.end(),
                                          [](const auto& object) { return object.directory && bool(object.info); });
            if (kept) return;
            const bool inUse = evenEmpty || !now.empty() || !ListIn(session_, directory.StoredPath(), {}).empty();
            // Versions that are left below are found through the directory, even if it is not active.
            if (!inUse && ListIn(session_, directory.StoredPath(), {true, "", TSM_OBJECTS_ANY}).empty()) return;
            Upload(session_, {directory.path, directory.name}, 0, *directory.info, "", mgmtClass_).Commit();
            RequireStored(session_, directory.PlainParts(), true, directory.text);
            if (!inUse) DeleteObject(session_, directory, false, "");
        };
        AttemptAnyway(report_, directory.ObjectPath(), [&] { session_.Retry(restore); });
    }
}

bool IsFromTree(const StoredObject& object) {
    return object.info && object.info->kind != Kind::Stream;
}

void WarnOfOtherKind(Report& report, const LocalItem& item) {
    const char* const kind = item.info.kind == Kind::Directory ? "file" : "directory";
    report.Warn(item.local, fmt::format("a {} of this name is stored and stays; restore takes the newer", kind));
}

long long Vanished::Remove(const Parts& folder, const StoredFolder& gone, const std::vector<LocalItem>& replaced,
                           bool othersStay, size_t depth) {
    gone_ = 0;
    tried_.clear();
    KeptDirectories kept(session_, report_, mgmtClass_);
    if (!othersStay) {
        const Parts inside = Append(folder, {"x"});
        RequireNoFilesAbove(session_, inside, {}, [&](const StoredObject& file) {
            return IsFromTree(file) && file.PlainParts().size() > depth;
        });
        kept.RememberAbove(inside);
    }
    const auto nameOf = [&](const LocalItem& item) { return Append(folder, {SplitAtSlash(item.object).back()}); };
    // What the library removed in passing comes back also after a signal.
    AttemptAnyway(report_, Join(folder), [&] {
        RemoveEntries(folder, gone);
        for (const LocalItem& item : replaced) {
            Attempt(report_, item.local, [&] { RemoveOtherKind(nameOf(item), item.info.kind == Kind::Directory); });
        }
    });
    if (report_.IsDryRun()) return gone_;
    kept.Restore(true);
    for (const LocalItem& item : replaced) {
        AttemptAnyway(report_, item.local, [&] { CheckReplaced(nameOf(item), item); });
    }
    CheckInterrupt();
    return gone_;
}

// A deletion's 0 is no proof: what counts is what is listed afterwards. False when something stays.
bool Vanished::RemoveEntries(const Parts& folder, const StoredFolder& entries) {
    if (entries.empty()) return true;
    const auto plain = [&](const std::string& name) { return Append(folder, {Unescape(name)}); };
    for (const auto& [name, stored] : entries) {
        const Parts object = plain(name);
        Attempt(report_, Join(object), [&, &pair = stored] { RemoveEntry(object, pair); });
    }
    const auto count = [](const StoredPair& pair) { return (pair.file ? 1 : 0) + (pair.directory ? 1 : 0); };
    StoredFolder after = report_.IsDryRun() ? StoredFolder() : ListFolder(session_, folder);
    bool all = true;
    for (const auto& [name, stored] : entries) {
        const bool stays = report_.IsDryRun() && tried_.count(plain(name)) == 0;
        const int left = count(stays ? stored : after[name]);
        gone_ += count(stored) - left;
        if (left == 0) {
            report_.Did("removed", Join(plain(name)));
            continue;
        }
        all = false;
        if (tried_.count(plain(name)) > 0) report_.Failed(Join(plain(name)), "is gone here, and cannot be removed");
    }
    return all;
}

void Vanished::RemoveEntry(const Parts& object, const StoredPair& stored) {
    for (const bool directory : {false, true}) {
        const auto& there = stored.Of(directory);
        if (there && keep_(object, directory)) return;
        if (MayGo(there)) continue;
        if (IsDamaged(*there)) {
            report_.Warn(Join(object), "is gone here, but stays: its information text is damaged, or a newer tsmctl's");
            report_.CountLoss("gone here, but left as it is stored");
        }
        return;
    }
    // The name alone counts for a deletion: a file and a directory of one name go together.
    if (stored.directory && !RemoveEntries(object, ListFolder(session_, object))) return;
    // The library removes by itself what it made.
    const bool ours = stored.file || IsFromTree(*stored.directory);
    if (ours && !report_.IsDryRun()) {
        DeleteObject(session_, stored.file ? *stored.file : *stored.directory, false, "");
    }
    if (ours || report_.IsDryRun()) tried_.insert(object);
}

void Vanished::RemoveOtherKind(const Parts& object, bool isDirectory) {
    if (!report_.IsDryRun() && !ListOne(session_, object).Of(isDirectory)) throw Failure(notStored);
    if (keep_(object, !isDirectory)) return;
    if (!isDirectory && !RemoveEntries(object, ListFolder(session_, object))) return;
    const StoredPair now = ListOne(session_, object);
    const auto& old = now.Of(!isDirectory);
    if (!old || !IsFromTree(*old)) return;
    if (report_.IsDryRun()) return CountOtherKind(object, isDirectory);
    // Of what was active at that moment, the new one was not there yet.
    const auto& other = now.Of(isDirectory);
    DeleteObject(session_, *old, false, other && other->date > old->date ? old->date : "");
}

void Vanished::CountOtherKind(const Parts& object, bool isDirectory) {
    ++gone_;
    report_.Did("removed", Join(object), isDirectory ? "the file" : "the directory");
}

void Vanished::CheckReplaced(const Parts& object, const LocalItem& item) {
    const bool isDirectory = item.info.kind == Kind::Directory;
    StoredPair now;
    session_.Retry([&] {
        now = ListOne(session_, object);
        if (now.Of(isDirectory)) return;
        Buffer buffer(pieceSize);
        std::string text;
        StoreItem(session_, buffer, item, mgmtClass_, text, report_);
        RequireStored(session_, object, isDirectory, text);
    });
    now.Of(!isDirectory) ? WarnOfOtherKind(report_, item) : CountOtherKind(object, isDirectory);
}

}  // namespace tsmctl
