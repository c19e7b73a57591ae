// What a backup leaves out of the trees that it stores.
#pragma once

#include <string>
#include <vector>

#include "LocalTree.h"

namespace tsmctl {

struct Exclusions {
    std::vector<std::string> patterns;
    bool oneFileSystem = false;
    bool caches = false;

    // Whether a pattern matches the path, whose parts begin with that of the tree. The last parts of the path have to
    // match; all of them, if the pattern begins with a slash; and a directory, if it ends in one.
    bool LeaveOut(const Parts& path, bool directory) const;
    // Why the entries of a directory are not stored, or null.
    const char* WhyClosed(const LocalItem& directory, const LocalFolder& folder, dev_t top) const;
};

}  // namespace tsmctl
