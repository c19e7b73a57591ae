// The lists of names that a session hands out: arrays of texts with a count.
#pragma once

#include <string>
#include <vector>

namespace connector {

// A list as the session holds it: null and 0 when there is none.
struct HeldNames {
    char**& list;
    int& count;
};

// Replaces an empty list with copies of the names; none leave it empty. Throws std::bad_alloc and leaves it empty.
void HoldNames(const HeldNames& held, const std::vector<std::string>& names);

// Frees a list, if there is one.
void ReleaseNames(const HeldNames& held);

}  // namespace connector
