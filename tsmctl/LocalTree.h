// The local files and trees that are backed up or verified.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Files.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"
#include "Report.h"

namespace tsmctl {

struct LocalItem {
    std::string local;   // path
    std::string object;  // plain object path
    Info info;
    std::shared_ptr<const UniqueFd> top;  // the folder that holds the path that was typed; links may lead to it
    size_t below = 0;                     // where the part below top begins in local
    dev_t device = 0;                     // its file system
    bool unreadable = false;              // is there, and could not be looked at
};
// Opens for reading, or with O_PATH in the flags only to look at its attributes. No link below the item's top is
// followed, whatever has changed since the scan.
UniqueFd OpenItem(const LocalItem& item, int flags);
// The target of a link, opened with O_PATH.
std::string ReadLink(const UniqueFd& link);

// A path of the command line, and the object path that it is stored under.
struct Source {
    std::string local;
    Parts object;
    bool isRoot;  // "/" has no name of its own: its entries go directly below the object path
};
// Throws UsageError when two paths have the same object path.
std::vector<Source> ResolveSources(const std::vector<std::string>& paths, const std::string& to);

// The source itself. Throws Failure when it cannot be read or is a special file.
LocalItem Look(const Source& source);

// What a directory holds, ordered by name.
struct LocalFolder {
    std::deque<LocalItem> entries;
    bool whole = true;     // false when reading broke off
    bool isCache = false;  // marked by a file CACHEDIR.TAG
    bool isStore = false;  // the store of an embedded server
};
// What cannot be read is reported. Throws Failure when the directory cannot be opened.
LocalFolder Read(const LocalItem& directory, Report& report);

}  // namespace tsmctl
