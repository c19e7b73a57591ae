// Stores local trees, directory by directory, and makes the stored trees equal to them.
#pragma once

#include <functional>
#include <list>
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
    // Whether something of a directory could not be stored. A new directory shares it with the one above, from which it
    // may have been moved away under another name.
    using Incomplete = std::shared_ptr<bool>;

    // Returns when everything is stored, or all that counts in some directories. A listing of each directory says
    // whether it is, since a commit answers 0 also where the API could not end the object. Throws Interrupted at a
    // signal.
    void Finish(const Incomplete& only = nullptr);

private:
    // What was sent, and no listing has shown yet that it is stored. A session fills in what became of it.
    struct Sent {
        LocalItem item;
        Change change;
        Incomplete incomplete;
        std::string before;     // date of the version until now
        std::string text = {};  // of the last try
        bool committed = false;
        bool checked = false;
    };
    // A directory while it is stored.
    struct Folder {
        Parts object;
        StoredFolder stored;              // in the end, what is not here
        std::vector<LocalItem> replaced;  // stored as the other kind too
        bool othersStay = false;          // something in it does
        Incomplete incomplete = std::make_shared<bool>(false);
    };

    void Enter(const LocalItem& directory, Folder& folder, const std::function<void()>& store);
    void Walk(LocalFolder here, Folder& folder);
    void CheckTop(const Folder& folder, const LocalFolder& here) const;
    // before is what is stored of it.
    void Send(const LocalItem& item, Folder& folder, Change change, const std::optional<StoredObject>& before);
    void Store(Session& session, Buffer& buffer, Sent& sent) const;
    void StoreItem(const LocalItem& item, Folder& folder);
    void Settle(Folder& folder);
    void Check(Sent& sent, const StoredFolder& now);
    void Count(const LocalItem& item, Change change);
    bool LeavesOut(const Parts& object, bool directory) const;

    const TreeOptions& options_;
    Context& context_;
    Session& session_;
    const StoreFunction store_;
    Buffer buffer_;
    std::list<Sent> sent_;
    Workers workers_;  // ends before what it works on
    Vanished vanished_;
    bool secondPassed_ = false;  // since the backup began
    bool headStored_ = false;    // whether the directories above the trees are there
    size_t head_ = 0;            // how many there are
    LocalItem top_;
};

}  // namespace tsmctl
