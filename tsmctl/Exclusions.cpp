#include "Exclusions.h"

#include <algorithm>

namespace tsmctl {
namespace {

bool Matches(const std::string& pattern, const Parts& path, bool directory) {
    Parts parts = SplitAtSlash(pattern);
    const bool whole = parts.size() > 1 && parts.front().empty();
    const bool onlyDirectories = parts.size() > 1 && parts.back().empty();
    parts.erase(std::remove(parts.begin(), parts.end(), ""), parts.end());
    if (parts.empty() || parts.size() > path.size() || (onlyDirectories && !directory)) return false;
    if (whole && parts.size() != path.size()) return false;
    const Parts end(path.end() - static_cast<std::ptrdiff_t>(parts.size()), path.end());
    return NamePattern(parts, true).Matches(end);
}

}  // namespace

bool Exclusions::LeaveOut(const Parts& path, bool directory) const {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string& pattern) { return Matches(pattern, path, directory); });
}

const char* Exclusions::WhyClosed(const LocalItem& directory, const LocalFolder& folder, dev_t top) const {
    if (folder.isStore) return "is the store of a server; what it holds is left out";
    if (caches && folder.isCache) return "is a cache; what it holds is left out";
    if (oneFileSystem && directory.device != top) return "is another file system; what it holds is left out";
    return nullptr;
}

}  // namespace tsmctl
