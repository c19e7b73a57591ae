// The folder that a restore writes into. Nothing is written outside of it: every step goes through an open directory,
// and no symbolic link on the way is followed.
#pragma once

#include <sys/stat.h>

#include <string>

#include "LocalTree.h"
#include "ObjectInfo.h"

namespace tsmctl {

class TargetFolder {
public:
    // Creates the folder if it is missing. Links may lead to the folder itself.
    explicit TargetFolder(const std::string& path);

    // Opens a directory below, and creates what is missing.
    UniqueFd Open(const Parts& parts) const;
    // Creates a directory below with this mode. False when it existed.
    bool Make(Parts parts, mode_t mode) const;

private:
    UniqueFd root_;
};

// These bits are not restored: since the owner is not kept, they would give rights to whoever restores.
constexpr mode_t setIds = S_ISUID | S_ISGID;

// Throws Failure for a part that cannot be the name of a file, or that leads elsewhere.
void RequireSafe(const Parts& parts);

// A file or link that is being restored. It has a temporary name until Publish, and is removed without it.
class NewEntry {
public:
    // directory outlives the entry. Throws Failure where the name exists and may not be replaced.
    NewEntry(const UniqueFd& directory, std::string name, bool replace);
    ~NewEntry();
    NewEntry(const NewEntry&) = delete;
    NewEntry& operator=(const NewEntry&) = delete;

    int CreateFile();
    void CreateLink(const std::string& target);
    // Sets mode and time, flushes, and gives the entry its name. Without an info, a file gets the other mode.
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
