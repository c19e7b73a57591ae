#include "Catalogue.h"

#include <crypt.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Refusal.h"
#include "TestControl.h"
#include "dsmrc.h"

namespace standin {
namespace {

// Rows of version lie in the order of a listing, so that one reads them from the table itself. The next id is kept
// apart from the rows because it must never go back: data of a removed version may outlive it for a while.
constexpr const char* schema = R"(
    CREATE TABLE node (id INTEGER PRIMARY KEY, name BLOB NOT NULL UNIQUE, secret BLOB NOT NULL);
    CREATE TABLE filespace (
        id INTEGER PRIMARY KEY AUTOINCREMENT, node INTEGER NOT NULL, name BLOB NOT NULL, type BLOB NOT NULL,
        info BLOB NOT NULL, occupancy INTEGER NOT NULL, capacity INTEGER NOT NULL, UNIQUE (node, name));
    CREATE TABLE access (
        fs INTEGER NOT NULL, hl BLOB NOT NULL, ll BLOB NOT NULL, object_type INTEGER NOT NULL,
        access_type INTEGER NOT NULL, node BLOB NOT NULL, owner BLOB NOT NULL,
        PRIMARY KEY (fs, hl, ll, object_type, access_type, node, owner)) WITHOUT ROWID;
    CREATE TABLE version (
        fs INTEGER NOT NULL, hl BLOB NOT NULL, ll BLOB NOT NULL, type INTEGER NOT NULL, id INTEGER NOT NULL UNIQUE,
        stored INTEGER NOT NULL, ended INTEGER, class BLOB NOT NULL, copy_group INTEGER NOT NULL, owner BLOB NOT NULL,
        estimate INTEGER NOT NULL, bytes INTEGER NOT NULL, info BLOB NOT NULL,
        PRIMARY KEY (fs, hl, ll, type, id)) WITHOUT ROWID;
    CREATE TABLE counter (next_id INTEGER NOT NULL);
    INSERT INTO counter VALUES (1);
    CREATE TABLE garbage (id INTEGER PRIMARY KEY);
    PRAGMA user_version = 1;
)";
constexpr std::int64_t schemaVersion = 1;

// For statements whose first four values are the key of an object.
#define THIS_NAME "fs = ?1 AND hl = ?2 AND ll = ?3 AND type = ?4"
constexpr const char* deactivate = "UPDATE version SET ended = ?5 WHERE " THIS_NAME " AND ended IS NULL";

std::string Hashed(const std::string& password, const std::string& setting) {
    crypt_data work{};
    const char* const hash = crypt_r(password.c_str(), setting.c_str(), &work);
    std::string result = hash && hash[0] != '*' ? hash : "";
    explicit_bzero(&work, sizeof work);
    if (result.empty()) throw std::runtime_error("password cannot be hashed");
    return result;
}

std::string NewSecret(const std::string& password) {
    const std::unique_ptr<char, decltype(&std::free)> setting(crypt_gensalt_ra("$6$", 5000, nullptr, 0), &std::free);
    if (!setting) throw std::system_error(errno, std::generic_category(), "no salt for a password");
    return Hashed(password, setting.get());
}

}  // namespace

bool operator==(const ObjectName& a, const ObjectName& b) {
    return a.type == b.type && a.ll == b.ll && a.hl == b.hl && a.fs == b.fs;
}

// ------------------------------------------------------------------ patterns

Pattern::Pattern(std::string text)
    : text_(std::move(text)), literal_(std::min(text_.find_first_of("*?"), text_.size())) {}

bool Pattern::Matches(std::string_view name) const {
    const std::string_view pattern = text_;
    std::size_t p = 0, n = 0;
    std::size_t star = pattern.npos, resume = 0;  // the last * seen, and where its run ends so far
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = n;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++p;
            ++n;
        } else if (star != pattern.npos) {
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == pattern.npos;
}

std::string Pattern::Above() const {
    std::string bound = Lowest();
    if (IsExact()) return bound + '\0';
    while (!bound.empty() && bound.back() == '\xff') bound.pop_back();
    if (bound.empty()) return std::string(DSM_MAX_HL_LENGTH + 1, '\xff');  // above every name there can be
    bound.back() = static_cast<char>(bound.back() + 1);
    return bound;
}

// ------------------------------------------------------------------ the store

Catalogue::Catalogue(const std::string& storeDir) : data_(storeDir), database_(storeDir + "/catalogue.db") {}

void Catalogue::Prepare(const std::string& storeDir) {
    const std::filesystem::path folder(storeDir);
    std::filesystem::create_directories(folder.parent_path());
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), "mkdir " + storeDir);
    }
    const FileDescriptor alone = LockedFolder(storeDir);  // SQLite cannot create one file twice at a time
    Catalogue store(storeDir);
    store.data_.Prepare();

    Database& database = store.database_;
    database.Run("PRAGMA journal_mode = WAL");
    Database::Transaction transaction(database);
    const std::int64_t version = database.Number("PRAGMA user_version");
    if (version == 0) {
        database.Script(schema);
    } else if (version != schemaVersion) {
        throw std::runtime_error("the store was made by another version: " + storeDir);
    }
    store.EmptyGarbage();
    database.Run("UPDATE counter SET next_id = next_id");
    transaction.Overwrite();
    store.data_.RemoveFrom(database.Number("SELECT next_id FROM counter"));
    transaction.Commit();
}

void Catalogue::EmptyGarbage() {
    Statement rows = database_.Query("SELECT id FROM garbage");
    bool any = false;
    for (; rows.Step(); any = true) data_.Remove(rows.Int(0));
    if (any) database_.Run("DELETE FROM garbage");
}

// --------------------------------------------------------- nodes, filespaces

void Catalogue::SignOn(const std::string& node, const std::string& password) {
    const auto known = [&] {
        Statement row = database_.Query("SELECT id, secret FROM node WHERE name = ?1", node);
        if (!row.Step()) return false;
        const std::string secret(row.Bytes(1));
        if (Hashed(password, secret) != secret) throw Refusal(DSM_RC_AUTH_FAILURE);
        node_ = row.Int(0);
        return true;
    };
    if (known()) return;
    const std::string secret = NewSecret(password);
    {
        Database::Transaction transaction(database_);
        database_.Run("INSERT INTO node (name, secret) VALUES (?1, ?2) ON CONFLICT DO NOTHING", node, secret);
        transaction.Commit();
    }
    known();  // again, because another session may have been first
}

std::optional<std::int64_t> Catalogue::FindFilespace(const std::string& name) {
    Statement row = database_.Query("SELECT id FROM filespace WHERE node = ?1 AND name = ?2", node_, name);
    if (!row.Step()) return std::nullopt;
    return row.Int(0);
}

std::int64_t Catalogue::NeedFilespace(const std::string& name) {
    const std::optional<std::int64_t> id = FindFilespace(name);
    if (!id) throw Refusal(DSM_RC_FS_NOT_REGISTERED);
    return *id;
}

bool Catalogue::Register(const Filespace& filespace) {
    if (HasFilespace(filespace.name)) return false;  // spares the write lock
    Database::Transaction transaction(database_);
    const int added = database_.Run(
        "INSERT INTO filespace (node, name, type, info, occupancy, capacity) VALUES (?1, ?2, ?3, ?4, ?5, ?6)"
        " ON CONFLICT DO NOTHING",
        node_, filespace.name, filespace.type, filespace.info, filespace.occupancy, filespace.capacity);
    transaction.Commit();
    return added > 0;
}

void Catalogue::DeleteFilespace(const std::string& name) {
    {
        Database::Transaction transaction(database_);
        EmptyGarbage();
        const std::int64_t fs = NeedFilespace(name);
        database_.Run("INSERT INTO garbage SELECT id FROM version WHERE fs = ?1 AND bytes > 0", fs);
        for (const char* table : {"version WHERE fs", "access WHERE fs", "filespace WHERE id"}) {
            database_.Run(std::string("DELETE FROM ") + table + " = ?1", fs);
        }
        transaction.Commit();
    }
    RemoveGarbageFiles();
}

void Catalogue::SetAccess(const AccessRule& rule) {
    Database::Transaction transaction(database_);
    database_.Run("INSERT OR REPLACE INTO access VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)", NeedFilespace(rule.name.fs),
                  rule.name.hl, rule.name.ll, rule.name.type, rule.type, rule.node, rule.owner);
    transaction.Commit();
}

Statement Catalogue::Filespaces() {
    return database_.Query("SELECT name, type, info, occupancy, capacity FROM filespace WHERE node = ?1 ORDER BY name",
                           node_);
}

// ------------------------------------------------------------------- queries

VersionListing Catalogue::List(const VersionFilter& filter) {
    Pattern hl(filter.name.hl), ll(filter.name.ll);
    // Only an equality on hl lets the key narrow ll down as well.
    std::string sql =
        "SELECT id, stored, ended, hl, ll, class, owner, info, type, copy_group, estimate FROM version v"
        " WHERE fs = ?1 AND hl < ?3 AND ll >= ?4 AND ll < ?5 AND (?6 = 255 OR type = ?6)"
        " AND (?7 = 255 OR (?7 = 1) = (ended IS NULL)) AND (?8 = x'' OR owner = ?8)";
    sql += hl.IsExact() ? " AND hl = ?2" : " AND hl >= ?2";
    if (filter.pointInTime != 0) {
        // Histories that a merge joined overlap: of several versions of that moment, the newest counts.
        const std::string valid = "stored <= ?9 AND (ended IS NULL OR ended > ?9)";
        sql += " AND " + valid +
               " AND NOT EXISTS (SELECT 1 FROM version w WHERE w.fs = v.fs AND w.hl = v.hl AND w.ll = v.ll"
               " AND w.type = v.type AND w.id > v.id AND " +
               valid + ")";
    }
    sql += " ORDER BY hl, ll, type, id";
    // A filespace that is not registered has no versions: no id is 0.
    const std::int64_t fs = FindFilespace(filter.name.fs).value_or(0);
    const auto bound = [&](const auto&... last) {
        return database_.Query(sql, fs, hl.Lowest(), hl.Above(), ll.Lowest(), ll.Above(), filter.name.type,
                               filter.state, filter.owner, last...);
    };
    Statement rows = filter.pointInTime != 0 ? bound(filter.pointInTime) : bound();
    return {std::move(rows), std::move(hl), std::move(ll)};
}

std::optional<Version> VersionListing::Next() {
    while (rows_.Step()) {
        const std::string_view hl = rows_.Bytes(3), ll = rows_.Bytes(4);
        if (!(hl_.IsExact() || hl_.Matches(hl)) || !(ll_.IsExact() || ll_.Matches(ll))) continue;
        const auto type = static_cast<dsUint8_t>(rows_.Int(8));
        const auto copyGroup = static_cast<dsUint32_t>(rows_.Int(9));
        return Version{rows_.Int(0),   rows_.Int(1),   rows_.Int(2), hl,        ll,           rows_.Bytes(5),
                       rows_.Bytes(6), rows_.Bytes(7), type,         copyGroup, rows_.Int(10)};
    }
    return std::nullopt;
}

bool Catalogue::Has(const ObjectName& name, const char* condition) {
    const std::optional<std::int64_t> fs = FindFilespace(name.fs);
    if (!fs) return false;
    const std::string sql = "SELECT 1 FROM version WHERE " THIS_NAME " AND ";
    return database_.Query(sql + condition + " LIMIT 1", *fs, name.hl, name.ll, name.type).Step();
}

bool Catalogue::HasActive(const ObjectName& name) {
    return Has(name, "ended IS NULL");
}

bool Catalogue::HasVersions(const ObjectName& name) {
    return Has(name, "TRUE");
}

std::optional<std::int64_t> Catalogue::BytesOf(std::int64_t id) {
    Statement row = database_.Query(
        "SELECT bytes FROM version v JOIN filespace f ON f.id = v.fs WHERE v.id = ?1 AND f.node = ?2", id, node_);
    if (!row.Step()) return std::nullopt;
    return row.Int(0);
}

// ------------------------------------------------------------------- commits

void Catalogue::Commit(std::vector<Operation>& operations) {
    std::vector<std::int64_t> placed;
    {
        Database::Transaction transaction(database_);
        try {
            EmptyGarbage();
            for (Operation& operation : operations) std::visit([this](auto& one) { Apply(one); }, operation);
            transaction.Overwrite();  // before a file is touched that a killed commit may have left
            for (Operation& operation : operations) {
                NewVersion* const version = std::get_if<NewVersion>(&operation);
                if (!version) continue;
                if (!version->data) {
                    data_.Remove(version->id);  // may be there from a process that died before its commit
                    continue;
                }
                placed.push_back(version->id);
                data_.Place(*version->data, version->id);
            }
        } catch (...) {
            for (const std::int64_t id : placed) RemoveQuietly(id);
            throw;
        }
        // A commit that fails leaves it open whether it lasts, so the files stay: their ids are given out again, or
        // the next opening of the store removes them.
        transaction.Commit();
    }
    RemoveGarbageFiles();
}

void Catalogue::RemoveQuietly(std::int64_t id) const noexcept try { data_.Remove(id); } catch (const std::exception&) {
    // Left for the next opening of the store.
}

void Catalogue::RemoveGarbageFiles() noexcept try {
    Statement rows = database_.Query("SELECT id FROM garbage");
    while (rows.Step()) RemoveQuietly(rows.Int(0));
} catch (const std::exception&) {
    // The transaction is committed all the same; the rows stay until EmptyGarbage.
}

std::int64_t Catalogue::NewId() {
    database_.Run("UPDATE counter SET next_id = next_id + 1");
    return database_.Number("SELECT next_id - 1 FROM counter");
}

template <class... Values>
int Catalogue::RunOn(const ObjectName& name, const std::string& sql, const Values&... values) {
    return database_.Run(sql, NeedFilespace(name.fs), name.hl, name.ll, name.type, values...);
}

void Catalogue::Apply(NewVersion& version) {
    const std::int64_t now = control::Now();
    RunOn(version.name, deactivate, now);
    version.id = NewId();
    RunOn(version.name, "INSERT INTO version VALUES (?1, ?2, ?3, ?4, ?5, ?6, NULL, ?7, 1, ?8, ?9, ?10, ?11)",
          version.id, now, version.mgmtClass, version.owner, version.sizeEstimate, version.bytes, version.info);
}

void Catalogue::Apply(const Deactivation& deactivation) {
    if (RunOn(deactivation.name, deactivate, control::Now()) == 0) throw Refusal(DSM_RC_ABORT_NO_MATCH);
}

void Catalogue::Apply(const Removal& removal) {
    ObjectName name;
    bool wasActive = false;
    {
        Statement row = database_.Query(
            "SELECT f.name, hl, ll, v.type, ended IS NULL FROM version v JOIN filespace f ON f.id = v.fs"
            " WHERE v.id = ?1 AND f.node = ?2",
            removal.id, node_);
        if (!row.Step()) throw Refusal(DSM_RC_ABORT_NO_MATCH);
        name = {std::string(row.Bytes(0)), std::string(row.Bytes(1)), std::string(row.Bytes(2)),
                static_cast<dsUint8_t>(row.Int(3))};
        wasActive = row.Int(4) != 0;
    }
    database_.Run("INSERT INTO garbage SELECT id FROM version WHERE id = ?1 AND bytes > 0", removal.id);
    database_.Run("DELETE FROM version WHERE id = ?1", removal.id);
    if (wasActive) {
        RunOn(name, "UPDATE version SET ended = NULL WHERE " THIS_NAME
                    " AND id = (SELECT MAX(id) FROM version WHERE " THIS_NAME ")");
    }
}

bool Catalogue::CheckRenaming(const Renaming& renaming) {
    if (renaming.from == renaming.to || !HasVersions(renaming.from)) return false;
    if (!renaming.merge && HasVersions(renaming.to)) throw Refusal(DSM_RC_ABORT_DUPLICATE_OBJECT);
    return true;
}

void Catalogue::Apply(const Renaming& renaming) {
    if (!CheckRenaming(renaming)) return;
    if (HasActive(renaming.from)) RunOn(renaming.to, deactivate, control::Now());
    RunOn(renaming.from, "UPDATE version SET hl = ?5, ll = ?6 WHERE " THIS_NAME, renaming.to.hl, renaming.to.ll);
}

}  // namespace standin
