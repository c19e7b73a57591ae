// The directory objects that a path has on the server: one for each of its levels.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "session/ObjectName.h"

namespace connector {

// Calls visit(hl, ll) with the name of each level's directory object, from the top down, until one call gives a result
// other than 0, which is returned. path is a complete high-level name. What comes before its first delimiter is no
// level, nor is the nothing behind one at its end: '/a/b' has the levels ('', '/a') and ('/a', '/b').
template <class Visit>
int ForEachLevel(std::string_view path, std::string_view delimiter, Visit visit) {
    // A level ends at the delimiter's first character, but the levels are joined with the whole of it.
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
inline int CheckLevels(std::string_view path, std::string_view delimiter) {
    if (delimiter.size() == 1 && path.size() <= DSM_MAX_LL_LENGTH) return 0;  // no level is longer than the path
    return ForEachLevel(path, delimiter, [](std::string_view hl, std::string_view ll) {
        return Fits(hl, ll) ? 0 : -DSM_RC_STRING_TOO_LONG;
    });
}

}  // namespace connector
