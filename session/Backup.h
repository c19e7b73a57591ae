// The directory objects that stand above an object.
#ifndef SESSION_BACKUP_H
#define SESSION_BACKUP_H

#include <algorithm>
#include <string>
#include <string_view>

// Calls visit(hl, ll) with the name of the directory object of each level of path, a complete high-level name, from
// the top down, until one gives a result other than 0, which is returned. What stands before the first delimiter is
// no level, nor is what stands behind one at the end.
template <class Visit>
int ForEachLevel(std::string_view path, std::string_view delimiter, Visit visit) {
    // The levels end at the delimiter's first character and are joined with the whole of it.
    std::string expanded;
    std::string_view joined = path;
    if (delimiter.size() > 1) {
        for (const char c : path) expanded.append(c == delimiter[0] ? delimiter : std::string_view(&c, 1));
        joined = expanded;
    }
    std::size_t at = path.find(delimiter[0]);
    std::size_t above = at;  // length of the names above, joined
    while (at < path.size() && at + 1 < path.size()) {
        const std::size_t next = std::min(path.find(delimiter[0], at + 1), path.size());
        const std::size_t size = delimiter.size() + (next - at - 1);
        if (const int result = visit(joined.substr(0, above), joined.substr(above, size))) return result;
        above += size;
        at = next;
    }
    return 0;
}

// Returns 0, or -2120 when the name of a level does not fit its fields.
int CheckLevels(std::string_view path, std::string_view delimiter);

#endif
