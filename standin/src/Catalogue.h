// What the store knows about nodes, filespaces and versions: one connection to its SQLite catalogue.
//
// A transaction of the API collects its operations in memory, with the data already in the store's incoming/;
// Commit carries them out in one SQL transaction, so the store's write lock is held only for that moment.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Database.h"
#include "ObjectData.h"
#include "dsmapitd.h"

namespace standin {

struct ObjectName {
    std::string fs, hl, ll;
    dsUint8_t type = 0;
};
bool operator==(const ObjectName& a, const ObjectName& b);

struct Filespace {
    std::string name, type, info;
    std::int64_t occupancy = 0, capacity = 0;
};

struct AccessRule {
    ObjectName name;
    int type = 0;
    std::string node, owner;
};

struct NewVersion {
    ObjectName name;
    std::string mgmtClass, owner, info;
    std::int64_t sizeEstimate = 0;
    std::int64_t bytes = 0;
    std::unique_ptr<IncomingFile> data;  // null while bytes is 0
    std::int64_t id = 0;                 // given by the commit
};
struct Deactivation {
    ObjectName name;
};
struct Removal {
    std::int64_t id;
};
struct Renaming {
    ObjectName from, to;
    bool merge;
};
using Operation = std::variant<NewVersion, Deactivation, Removal, Renaming>;

// A row of a listing; the texts are valid until the next one is fetched.
struct Version {
    std::int64_t id, stored, ended;  // moments as YYYYMMDDhhmmss; ended is 0 while active
    std::string_view hl, ll, mgmtClass, owner, info;
    dsUint8_t type;
    dsUint32_t copyGroup;
    std::int64_t sizeEstimate;
};

// A name with the wildcards * and ?, both of which stand for bytes of any value.
class Pattern {
public:
    explicit Pattern(std::string text);
    bool Matches(std::string_view name) const;
    bool IsExact() const { return literal_ == text_.size(); }
    // The names that begin as the pattern does lie in [Lowest, Above) in byte order.
    std::string Lowest() const { return text_.substr(0, literal_); }
    std::string Above() const;

private:
    std::string text_;
    std::size_t literal_;  // length of the part before the first wildcard
};

struct VersionFilter {
    ObjectName name;  // the filespace exact, high- and low-level name as patterns
    std::string owner;
    dsUint8_t state = 0;
    std::int64_t pointInTime = 0;
};

class VersionListing {
public:
    std::optional<Version> Next();

private:
    friend class Catalogue;
    VersionListing(Statement rows, Pattern hl, Pattern ll)
        : rows_(std::move(rows)), hl_(std::move(hl)), ll_(std::move(ll)) {}

    Statement rows_;
    Pattern hl_, ll_;
};

class Catalogue {
public:
    explicit Catalogue(const std::string& storeDir);

    // Creates the store where there is none and clears away what interrupted processes left in it.
    static void Prepare(const std::string& storeDir);

    // All further calls act for this node. An unknown one is registered with the password.
    void SignOn(const std::string& node, const std::string& password);

    bool Register(const Filespace& filespace);  // false: was known already
    void DeleteFilespace(const std::string& name);
    void SetAccess(const AccessRule& rule);
    bool HasFilespace(const std::string& name) { return FindFilespace(name).has_value(); }
    Statement Filespaces();  // name, type, info, occupancy, capacity
    VersionListing List(const VersionFilter& filter);

    bool HasActive(const ObjectName& name);
    // False: nothing to do. Throws Refusal when the new name is taken.
    bool CheckRenaming(const Renaming& renaming);
    std::optional<std::int64_t> BytesOf(std::int64_t id);  // none: no such version of this node

    // All or nothing. Throws Refusal with the reason when the store has moved on since the operations were
    // accepted.
    void Commit(std::vector<Operation>& operations);

    const ObjectData& Data() const { return data_; }

private:
    std::optional<std::int64_t> FindFilespace(const std::string& name);
    std::int64_t NeedFilespace(const std::string& name);
    template <class... Values>
    int RunOn(const ObjectName& name, const std::string& sql, const Values&... values);
    bool Has(const ObjectName& name, const char* condition);
    bool HasVersions(const ObjectName& name);

    void Apply(NewVersion& version);
    void Apply(const Deactivation& deactivation);
    void Apply(const Removal& removal);
    void Apply(const Renaming& renaming);
    std::int64_t NewId();

    // Data of removed versions: the rows are written with the removal, the files go after the commit, the rows go
    // with the next transaction, which removes files again in case the process had died in between.
    void EmptyGarbage();
    void RemoveGarbageFiles() noexcept;
    void RemoveQuietly(std::int64_t id) const noexcept;

    ObjectData data_;
    Database database_;
    std::int64_t node_ = 0;
};

}  // namespace standin
