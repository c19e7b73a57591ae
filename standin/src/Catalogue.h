// What the store knows about a node's filespaces and versions: one connection for reading.
//
// A transaction of the API collects its operations in memory, with large data already in the store's incoming/;
// Commit has the store carry them out in one change.
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
#include "Policy.h"
#include "Store.h"
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
    std::unique_ptr<IncomingData> data;  // null while bytes is 0
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
    std::int64_t id, stored, ended;  // moments; ended is 0 while active
    std::string_view hl, ll, mgmtClass, owner, info;
    dsUint8_t type;
    dsUint32_t copyGroup;
    std::int64_t sizeEstimate;
};

// A name with the wildcards * and ?. Both match bytes of any value.
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
    std::int64_t pointInTime = 0;  // local time, 0 for none
};

class VersionListing {
public:
    std::optional<Version> Next();

private:
    friend class Catalogue;
    VersionListing(Statement rows, Pattern hl, Pattern ll, Database& database, const Policy& policy, std::int64_t fs);
    bool IsGone(const Version& version);

    Statement rows_;
    Pattern hl_, ll_;
    Database& database_;
    const Policy& policy_;
    ObjectKey object_;  // of gone_
    std::map<std::int64_t, std::string> gone_;
    std::int64_t moment_;
};

// Look-ups of a node, by a connection of its session or by the one that changes the store.
struct NodeView {
    Database& database;
    const Policy& policy;
    std::int64_t node;

    std::optional<std::int64_t> FindFilespace(const std::string& name) const;
    std::int64_t NeedFilespace(const std::string& name) const;
    bool Has(const ObjectName& name, const char* condition) const;
    bool HasActive(const ObjectName& name) const { return Has(name, "ended IS NULL"); }
    bool HasVersions(const ObjectName& name) const;  // that are kept
    // False: nothing to do. Throws Refusal when the new name is taken.
    bool CheckRenaming(const Renaming& renaming) const;
};

class Catalogue {
public:
    Catalogue(std::shared_ptr<Store> store, const Policy& policy);

    // All further calls act for this node. An unknown one is registered with the password, which expires when it is
    // this many days old.
    void SignOn(const std::string& node, const std::string& password, std::optional<std::int64_t> passwordDays);

    bool Register(const Filespace& filespace);  // false: was known already
    void DeleteFilespace(const std::string& name);
    void SetAccess(const AccessRule& rule);
    Statement Filespaces();  // name, type, info, occupancy, capacity
    VersionListing List(const VersionFilter& filter);

    NodeView View() { return {database_, policy_, node_}; }
    // Remembers the answer, so that another process's deletion is noticed by the commit only.
    bool HasFilespace(const std::string& name);
    // The data of a version of this node, and its name for messages.
    struct Found {
        StoredData data;
        std::string name;
    };
    std::optional<Found> Find(std::int64_t id);
    DataReader Open(const StoredData& data);

    // All or nothing. Throws Refusal with the reason when the store has moved on since the operations were
    // accepted.
    void Commit(std::vector<Operation>& operations);

    const Store& InStore() const { return *store_; }

private:
    const std::shared_ptr<Store> store_;
    const Policy& policy_;
    Database database_;
    std::int64_t node_ = 0;
    std::optional<std::string> known_;  // a filespace that was there after knownSince_ deletions
    unsigned knownSince_ = 0;
};

}  // namespace standin
