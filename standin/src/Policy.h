// How long versions are kept. Rules are applied at the moment of a query, whether or not the rows are removed already;
// whoever changes an object removes what it need not keep, and so does each set-up for the whole store.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Database.h"

namespace standin {

class Store;

// What holds for the objects of a management class; no value is no limit. Days count from when a version became
// inactive. The active version counts as one of existing, and is always kept.
struct Retention {
    std::optional<std::int64_t> existing, deleted;    // versions of an object, while it has an active one or has none
    std::optional<std::int64_t> extraDays, lastDays;  // lastDays: of the newest one where no active one is left
};

struct ObjectKey {
    std::int64_t fs;
    std::string hl, ll;
    std::int64_t type;
};

class Policy {
public:
    std::map<std::string, Retention> classes;  // one that is not here keeps everything

    bool KeepsAll() const { return classes.empty(); }

    // The versions of an object that are not kept any more at a moment: the names of their files by their ids. They
    // are older than all others, so what remains is judged the same when they are removed. The class of the active
    // version, else of the one that ended last, holds for all.
    std::map<std::int64_t, std::string> Gone(Database& database, const ObjectKey& key, std::int64_t moment) const;

    // Removes from the store what neither the server's clock nor the machine's keeps. A server's clock set ahead shows
    // what will be gone, but removes nothing.
    void Apply(Store& store) const;
};

}  // namespace standin
