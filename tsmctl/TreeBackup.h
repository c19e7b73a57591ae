// Stores local trees, directory by directory, and makes the stored trees equal to them.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Inventory.h"
#include "LocalTree.h"
#include "Parallel.h"
#include "Vanished.h"

namespace tsmctl {

struct TreeOptions {
    Exclusions exclusions;
    bool oneFileSystem = false;
    bool withoutCaches = false;
    bool full = false;
    bool checksum = false;
    bool keepVanished = false;
    bool force = false;
    std::string mgmtClass;
    int jobs = usualSessions;
};

class TreeBackup {
public:
    // Puts the information text into the last argument before it commits.
    using StoreFunction = std::function<void(Session&, Buffer&, const LocalItem&, std::string&)>;

    TreeBackup(const TreeOptions& options, Context& context, Session& session, StoreFunction store);

    // Reports what fails, and goes on.
    void Run(const Source& source);
    // Returns when everything is stored. A listing of each directory says whether it is, since a commit answers 0 also
    // where the API could not end the object. Throws Interrupted at a signal.
    void Finish();

private:
    struct Sent {
        LocalItem item;
        Change change;
        std::string before;  // date of the version until now
        std::string text;    // of the last try
        bool committed = false;
    };
    using Counter = std::shared_ptr<std::atomic<size_t>>;
    // What was sent to a directory, and no listing has shown yet that it is stored. The sessions fill in what became of
    // it.
    struct Unchecked {
        Parts object;
        Counter unfinished;
        std::deque<Sent> sent;
    };
    // A directory while it is stored.
    struct Folder {
        Parts object;
        StoredFolder stored;              // in the end, what is not here
        std::vector<LocalItem> replaced;  // stored as the other kind too
        std::shared_ptr<Unchecked> sending;
        bool othersStay = false;  // something in it does
        // What has not been stored, or not yet. A new directory counts in the one above, from which it may have been
        // moved away under another name.
        Counter unfinished = std::make_shared<std::atomic<size_t>>(0);
    };

    void Enter(const LocalItem& directory, Folder& folder, const std::function<void()>& store);
    void Walk(LocalFolder here, Folder& folder);
    void CheckTop(const Folder& folder, const LocalFolder& here) const;
    // before is what is stored of it.
    void Send(const LocalItem& item, Folder& folder, Change change, const std::optional<StoredObject>& before);
    void Store(Session& session, Buffer& buffer, Sent& sent) const;
    void StoreItem(const LocalItem& item, Folder& folder);
    void Settle(Folder& folder);
    void Check(Unchecked& folder);
    void Count(const Parts& object, Kind kind, Change change);
    bool LeavesOut(const Parts& object, bool directory) const;

    const TreeOptions& options_;
    Context& context_;
    Session& session_;
    const StoreFunction store_;
    Buffer buffer_;
    Workers workers_;
    Vanished vanished_;
    std::vector<std::shared_ptr<Unchecked>> unchecked_;
    size_t uncheckedObjects_ = 0;  // at most as many are in them
    bool secondPassed_ = false;    // since the backup began
    bool headStored_ = false;      // whether the directories above the trees are there
    size_t head_ = 0;              // how many there are
    LocalItem top_;
};

}  // namespace tsmctl
