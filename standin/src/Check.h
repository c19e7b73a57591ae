// Reads everything in a store and tells what is wrong with it. Nothing is ever deleted.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace standin {

struct Finding {
    std::string kind;   // mark, files, catalogue, version, orphan
    std::string where;  // a path below the store, or an object's name
    std::string text;
    std::string moved;  // where to below the store; empty: it stays
};

struct Checked {
    std::int64_t versions = 0, bytes = 0;  // what was read and found right
};

// Reports each finding as it comes up. Without repair nothing is changed, and hosts may be at work. A repair keeps
// hosts out, moves what belongs to no version to lost+found/, and replaces a damaged catalogue by one of its readable
// rows. Throws std::exception when the folder cannot be checked as a store.
Checked Check(const std::string& storeDir, bool repair, const std::function<void(const Finding&)>& report);

}  // namespace standin
