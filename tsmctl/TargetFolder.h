// The folder that a restore writes into. Nothing leaves it: every step goes through an open directory and no symbolic
// link on the way is followed, whether the restore made it or found it.
#pragma once

#include <sys/stat.h>

#include <string>

#include "LocalTree.h"
#include "ObjectInfo.h"

namespace tsmctl {

class TargetFolder {
public:
    // Creates the folder where it is missing. The folder itself may be reached through links.
    explicit TargetFolder(const std::string& path);

    // Opens a directory below; creates what is missing of it.
    UniqueFd Open(const Parts& parts) const;
    // The same, the last level with the mode. False when it existed.
    bool Make(Parts parts, mode_t mode) const;

private:
    UniqueFd root_;
};

// The owner is not kept, so the right to act as the owner or the group is not either.
constexpr mode_t setIds = S_ISUID | S_ISGID;

// Throws Failure for a part that no file can be called, or that leads elsewhere.
void RequireSafe(const Parts& parts);

// A file that has its own name only when Publish has been called; until then it has a temporary one, and it is
// removed when the object ends.
class NewEntry {
public:
    // directory outlives the entry. Throws Failure where the name is taken and may not be replaced.
    NewEntry(const UniqueFd& directory, std::string name, bool replace);
    ~NewEntry();
    NewEntry(const NewEntry&) = delete;
    NewEntry& operator=(const NewEntry&) = delete;

    int CreateFile();
    void CreateLink(const std::string& target);
    // Without an info, a file gets the other mode.
    void Publish(const std::optional<Info>& info, mode_t otherMode);

private:
    const UniqueFd& directory_;
    const std::string name_;
    const std::string temporary_;
    const bool replace_;
    UniqueFd file_;
    bool exists_ = false;
};

}  // namespace tsmctl
