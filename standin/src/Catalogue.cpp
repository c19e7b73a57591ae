#include "Catalogue.h"

#include <crypt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "Moments.h"
#include "Refusal.h"
#include "TestControl.h"
#include "dsmrc.h"

namespace standin {
namespace {

// For statements whose first four values are the key of an object.
#define THIS_NAME "fs = ?1 AND hl = ?2 AND ll = ?3 AND type = ?4"
// A version never ends before it began, even if the clock was set back.
constexpr const char* deactivate =
    "UPDATE object_version SET ended = MAX(?5, stored + 1) WHERE " THIS_NAME " AND ended IS NULL";

constexpr std::size_t longestSecret = 1024, longestInfo = 65535, longestRow = 16 << 20;

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

// The text behind the hash in a secret: the moment since which it holds.
std::string SinceNow() {
    return " " + std::to_string(control::Now());
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

// --------------------------------------------------------- nodes, filespaces

Catalogue::Catalogue(std::shared_ptr<Store> store, const Policy& policy)
    : store_(std::move(store)), policy_(policy), database_(store_->CataloguePath(), store_->ReadingMode()) {}

void Catalogue::SignOn(const std::string& node, const std::string& password, std::optional<std::int64_t> passwordDays) {
    const auto known = [&] {
        std::string secret;
        {
            Statement row = database_.Query("SELECT id, secret FROM node WHERE name = ?1", node);
            if (!row.Step()) return false;
            secret = row.Bytes(1, longestSecret);
            node_ = row.Int(0);
        }
        const std::size_t blank = secret.find(' ');
        const std::string hash = secret.substr(0, blank);
        if (Hashed(password, hash) != hash) throw Refusal(DSM_RC_AUTH_FAILURE);
        if (!passwordDays) return true;
        if (blank != secret.npos) {
            const std::int64_t age = control::Now() - std::atoll(secret.c_str() + blank);
            if (age >= *passwordDays * 86400) throw Refusal(DSM_RC_REJECT_VERIFIER_EXPIRED);
        } else if (!store_->ReadOnly()) {  // registered when no date was kept: its age counts from now
            store_->Submit(Store::Need::None, [&](Change& change) {
                change.database.Run("UPDATE node SET secret = ?2 WHERE id = ?1 AND secret = ?3", node_,
                                    hash + SinceNow(), hash);
            });
        }
        return true;
    };
    if (known()) return;
    const std::string secret = NewSecret(password) + SinceNow();
    store_->Submit(Store::Need::None, [&](Change& change) {
        change.database.Run("INSERT INTO node (name, secret) VALUES (?1, ?2) ON CONFLICT DO NOTHING", node, secret);
    });
    known();  // again: another session may have registered it meanwhile
}

std::optional<std::int64_t> NodeView::FindFilespace(const std::string& name) const {
    Statement row = database.Query("SELECT id FROM filespace WHERE node = ?1 AND name = ?2", node, name);
    if (!row.Step()) return std::nullopt;
    return row.Int(0);
}

std::int64_t NodeView::NeedFilespace(const std::string& name) const {
    const std::optional<std::int64_t> id = FindFilespace(name);
    if (!id) throw Refusal(DSM_RC_FS_NOT_REGISTERED);
    return *id;
}

bool Catalogue::HasFilespace(const std::string& name) {
    const unsigned deletions = store_->FilespaceDeletions();
    if (known_ == name && knownSince_ == deletions) return true;
    if (!View().FindFilespace(name)) return false;
    known_ = name;
    knownSince_ = deletions;
    return true;
}

bool Catalogue::Register(const Filespace& filespace) {
    if (View().FindFilespace(filespace.name)) return false;  // spares the write lock
    int added = 0;
    store_->Submit(Store::Need::Space, [&](Change& change) {
        added = change.database.Run(
            "INSERT INTO filespace (node, name, type, info, occupancy, capacity) VALUES (?1, ?2, ?3, ?4, ?5, ?6)"
            " ON CONFLICT DO NOTHING",
            node_, filespace.name, filespace.type, filespace.info, filespace.occupancy, filespace.capacity);
    });
    return added > 0;
}

void Catalogue::DeleteFilespace(const std::string& name) {
    View().NeedFilespace(name);
    store_->Submit(Store::Need::None, [&](Change& change) {
        const NodeView view{change.database, policy_, node_};
        change.last = {};
        // No node has the number 0. The name must only differ from those of other deleted filespaces.
        change.database.Run("UPDATE filespace SET node = 0, name = CAST(id AS BLOB) WHERE id = ?1",
                            view.NeedFilespace(name));
    });
    store_->RemoveDeletedFilespaces();
}

void Catalogue::SetAccess(const AccessRule& rule) {
    store_->Submit(Store::Need::Space, [&](Change& change) {
        const NodeView view{change.database, policy_, node_};
        change.database.Run("INSERT OR REPLACE INTO access VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
                            view.NeedFilespace(rule.name.fs), rule.name.hl, rule.name.ll, rule.name.type, rule.type,
                            rule.node, rule.owner);
    });
}

Statement Catalogue::Filespaces() {
    database_.NeedInPlace();
    return database_.Query("SELECT name, type, info, occupancy, capacity FROM filespace WHERE node = ?1 ORDER BY name",
                           node_);
}

// ------------------------------------------------------------------- queries

VersionListing Catalogue::List(const VersionFilter& filter) {
    database_.NeedInPlace();
    Pattern hl(filter.name.hl), ll(filter.name.ll);
    // Only an equality on hl lets the key narrow ll down as well, and only where it is the sole condition on hl.
    std::string sql =
        "SELECT id, stored, ended, hl, ll, class, owner, info, type, copy_group, estimate FROM object_version v"
        " WHERE fs = ?1 AND ll >= ?4 AND ll < ?5 AND (?6 = 255 OR type = ?6)"
        " AND (?7 = 255 OR (?7 = 1) = (ended IS NULL)) AND (?8 = x'' OR owner = ?8)";
    sql += hl.IsExact() ? " AND hl = ?2" : " AND hl >= ?2 AND hl < ?3";
    const Moments moments = filter.pointInTime != 0 ? MomentsOf(filter.pointInTime) : Moments{};
    if (filter.pointInTime != 0) {
        const std::string same =
            "FROM object_version w WHERE w.fs = v.fs AND w.hl = v.hl AND w.ll = v.ll"
            " AND w.type = v.type AND w.";
        std::string moment = "?9";
        if (moments.earlier != moments.later) {
            // The later of two possible moments, except that a version's own date means that version.
            moment = "CASE WHEN EXISTS (SELECT 1 " + same + "stored = ?10) AND NOT EXISTS (SELECT 1 " + same +
                     "stored = ?9) THEN ?10 ELSE ?9 END";
        }
        // Histories that a merge joined overlap: of several versions of that moment, the newest counts.
        const std::string valid = "stored <= " + moment + " AND (ended IS NULL OR ended > " + moment + ")";
        sql += " AND " + valid + " AND NOT EXISTS (SELECT 1 " + same + "id > v.id AND w." + valid + ")";
    }
    sql += " ORDER BY hl, ll, type, id";
    // A filespace that is not registered has no versions: no id is 0.
    const std::int64_t fs = View().FindFilespace(filter.name.fs).value_or(0);
    const auto bound = [&](const auto&... last) {
        return database_.Query(sql, fs, hl.Lowest(), hl.Above(), ll.Lowest(), ll.Above(), filter.name.type,
                               filter.state, filter.owner, last...);
    };
    Statement rows = filter.pointInTime == 0            ? bound()
                     : moments.earlier == moments.later ? bound(moments.later)
                                                        : bound(moments.later, moments.earlier);
    return {std::move(rows), std::move(hl), std::move(ll), database_, policy_, fs};
}

VersionListing::VersionListing(Statement rows, Pattern hl, Pattern ll, Database& database, const Policy& policy,
                               std::int64_t fs)
    : rows_(std::move(rows)),
      hl_(std::move(hl)),
      ll_(std::move(ll)),
      database_(database),
      policy_(policy),
      object_{fs, {}, {}, 0},
      moment_(control::Now()) {}

// Versions of an object come one after the other. The look-up runs within the listing and sees the same rows.
bool VersionListing::IsGone(const Version& version) {
    if (version.ended == 0 || policy_.KeepsAll()) return false;
    if (version.type != object_.type || version.ll != object_.ll || version.hl != object_.hl) {
        object_ = {object_.fs, std::string(version.hl), std::string(version.ll), version.type};
        gone_ = policy_.Gone(database_, object_, moment_);
    }
    return gone_.count(version.id) != 0;
}

std::optional<Version> VersionListing::Next() {
    while (rows_.Step()) {
        const std::string_view hl = rows_.Bytes(3, DSM_MAX_HL_LENGTH), ll = rows_.Bytes(4, DSM_MAX_LL_LENGTH);
        if (!(hl_.IsExact() || hl_.Matches(hl)) || !(ll_.IsExact() || ll_.Matches(ll))) continue;
        Version version{};
        version.id = rows_.Count(0);
        version.stored = rows_.Count(1);
        version.ended = rows_.IsNull(2) ? 0 : rows_.Count(2);
        version.hl = hl;
        version.ll = ll;
        version.mgmtClass = rows_.Bytes(5, DSM_MAX_MC_NAME_LENGTH);
        version.owner = rows_.Bytes(6, DSM_MAX_OWNER_LENGTH);
        version.info = rows_.Bytes(7, longestInfo);
        version.type = static_cast<dsUint8_t>(rows_.Count(8));
        version.copyGroup = static_cast<dsUint32_t>(rows_.Count(9));
        version.sizeEstimate = rows_.Int(10);
        const bool isKnown = version.type == DSM_OBJ_FILE || version.type == DSM_OBJ_DIRECTORY;
        if (!isKnown || (version.ended != 0 && version.ended <= version.stored)) {
            throw std::runtime_error("catalogue: damaged: version " + std::to_string(version.id));
        }
        if (!IsGone(version)) return version;
    }
    return std::nullopt;
}

bool NodeView::Has(const ObjectName& name, const char* condition) const {
    const std::optional<std::int64_t> fs = FindFilespace(name.fs);
    if (!fs) return false;
    const std::string sql = "SELECT 1 FROM object_version WHERE " THIS_NAME " AND ";
    return database.Query(sql + condition + " LIMIT 1", *fs, name.hl, name.ll, name.type).Step();
}

bool NodeView::HasVersions(const ObjectName& name) const {
    if (!Has(name, "TRUE")) return false;
    if (policy.KeepsAll() || HasActive(name)) return true;
    const ObjectKey key{NeedFilespace(name.fs), name.hl, name.ll, name.type};
    Statement all =
        database.Query("SELECT COUNT(*) FROM object_version WHERE " THIS_NAME, key.fs, key.hl, key.ll, key.type);
    all.Step();
    return all.Count(0) > static_cast<std::int64_t>(policy.Gone(database, key, control::Now()).size());
}

std::optional<Catalogue::Found> Catalogue::Find(std::int64_t id) {
    database_.NeedInPlace();
    Statement row = database_.Query(
        "SELECT bytes, checksum, file, f.name, hl, ll, f.id, v.type FROM object_version v JOIN filespace f ON f.id = "
        "v.fs"
        " WHERE v.id = ?1 AND f.node = ?2",
        id, node_);
    if (!row.Step()) return std::nullopt;
    const ObjectKey key{row.Int(6), std::string(row.Bytes(4, DSM_MAX_HL_LENGTH)),
                        std::string(row.Bytes(5, DSM_MAX_LL_LENGTH)), row.Int(7)};
    if (policy_.Gone(database_, key, control::Now()).count(id) != 0) return std::nullopt;
    Found found;
    found.data = {id, row.Count(0), row.Int(1), std::string(row.Bytes(2, longestFileName))};
    found.name = std::string(row.Bytes(3, DSM_MAX_FSNAME_LENGTH)) + " " + key.hl + key.ll + " (version " +
                 std::to_string(id) + ")";
    return found;
}

DataReader Catalogue::Open(const StoredData& data) {
    if (!data.file.empty()) {
        if (ObjectData::IdOf(data.file) != data.id) throw std::runtime_error("damaged: data of another version");
        return {data, store_->Data().Open(data), {}};
    }
    std::string row;
    if (data.bytes > 0) {
        Statement content = database_.Query("SELECT bytes FROM content WHERE id = ?1", data.id);
        if (content.Step()) row = content.Bytes(0, longestRow);
    }
    if (static_cast<std::int64_t>(row.size()) != data.bytes) {
        throw std::runtime_error("damaged: the data have another length");
    }
    return {data, FileDescriptor(), std::move(row)};
}

// ------------------------------------------------------------------- commits

namespace {

// Carries out operations of a node as a part of a change.
class Applying {
public:
    Applying(Change& change, const NodeView& view) : change_(change), view_(view) {}

    void operator()(NewVersion& version) {
        Database& database = change_.database;
        const ObjectName& name = version.name;
        const std::int64_t fs = NeedFilespace(name.fs);
        Touch(name);
        // Never before the version that it follows began or ended, even if the clock was set back.
        std::int64_t stored = control::Now();
        bool hasActive = false, rebinds = false;
        {
            Statement last = database.Query(
                "SELECT MAX(stored), MAX(ended), COUNT(*) - COUNT(ended), COUNT(NULLIF(class, ?5))"
                " FROM object_version WHERE " THIS_NAME,
                fs, name.hl, name.ll, name.type, version.mgmtClass);
            last.Step();
            if (!last.IsNull(0)) stored = std::max(stored, last.Count(0) + 1);
            if (!last.IsNull(1)) stored = std::max(stored, last.Count(1));
            hasActive = last.Int(2) != 0;
            rebinds = last.Int(3) != 0;
        }
        if (rebinds) RunOn(name, "UPDATE object_version SET class = ?5 WHERE " THIS_NAME, version.mgmtClass);
        if (hasActive) database.Run(deactivate, fs, name.hl, name.ll, name.type, stored);
        const std::int64_t id = change_.nextId++;
        std::string file;
        if (version.data && version.data->InFile()) {
            file = change_.data.Place(*version.data, id);
            change_.placed.push_back(file);
        } else if (version.data) {
            database.Run("INSERT INTO content VALUES (?1, ?2)", id, version.data->Row());
        }
        const std::int64_t checksum = version.data ? version.data->Value() : Checksum().Value();
        database.Run(
            "INSERT INTO object_version VALUES (?1, ?2, ?3, ?4, ?5, ?6, NULL, ?7, 1, ?8, ?9, ?10, ?11, ?12, ?13)", fs,
            name.hl, name.ll, name.type, id, stored, version.mgmtClass, version.owner, version.sizeEstimate,
            version.info, version.bytes, checksum, file);
    }

    void operator()(const Deactivation& deactivation) {
        Touch(deactivation.name);
        if (RunOn(deactivation.name, deactivate, control::Now()) == 0) throw Refusal(DSM_RC_ABORT_NO_MATCH);
    }

    void operator()(const Removal& removal) {
        std::int64_t fs = 0;
        ObjectName name;
        std::string file;
        bool wasActive = false;
        {
            Statement row = change_.database.Query(
                "SELECT f.id, hl, ll, v.type, ended IS NULL, file FROM object_version v"
                " JOIN filespace f ON f.id = v.fs WHERE v.id = ?1 AND f.node = ?2",
                removal.id, view_.node);
            if (!row.Step()) throw Refusal(DSM_RC_ABORT_NO_MATCH);
            fs = row.Int(0);
            name.hl = row.Bytes(1, DSM_MAX_HL_LENGTH);
            name.ll = row.Bytes(2, DSM_MAX_LL_LENGTH);
            name.type = static_cast<dsUint8_t>(row.Count(3));
            wasActive = row.Int(4) != 0;
            file = row.Bytes(5, longestFileName);
        }
        Touch({fs, name.hl, name.ll, name.type});
        change_.RemoveVersion(removal.id, file);
        if (wasActive) {
            change_.database.Run("UPDATE object_version SET ended = NULL WHERE " THIS_NAME
                                 " AND id = (SELECT MAX(id) FROM object_version WHERE " THIS_NAME ")",
                                 fs, name.hl, name.ll, name.type);
        }
    }

    void operator()(const Renaming& renaming) {
        Touch(renaming.from);
        Touch(renaming.to);
        if (!view_.CheckRenaming(renaming)) return;
        if (view_.HasActive(renaming.from)) RunOn(renaming.to, deactivate, control::Now());
        RunOn(renaming.from, "UPDATE object_version SET hl = ?5, ll = ?6 WHERE " THIS_NAME, renaming.to.hl,
              renaming.to.ll);
    }

    // Removes the versions that need not be kept any more.
    void RemoveGone() {
        for (const ObjectKey& key : touched_) RemoveGone(key);
    }

private:
    // Before an object changes: a version that is gone by now must not come back.
    void Touch(ObjectKey key) {
        RemoveGone(key);
        touched_.push_back(std::move(key));
    }
    void Touch(const ObjectName& name) {
        if (view_.policy.KeepsAll()) return;
        if (const auto fs = view_.FindFilespace(name.fs)) Touch({*fs, name.hl, name.ll, name.type});
    }

    void RemoveGone(const ObjectKey& key) {
        const auto gone = view_.policy.Gone(change_.database, key, control::Now());
        for (const auto& [id, file] : gone) change_.RemoveVersion(id, file);
    }

    std::int64_t NeedFilespace(const std::string& name) {
        auto& last = change_.last;
        if (last.node != view_.node || last.name != name) last = {view_.node, view_.NeedFilespace(name), name};
        return last.id;
    }

    template <class... Values>
    int RunOn(const ObjectName& name, const char* sql, const Values&... values) {
        return change_.database.Run(sql, NeedFilespace(name.fs), name.hl, name.ll, name.type, values...);
    }

    Change& change_;
    const NodeView view_;
    std::vector<ObjectKey> touched_;
};

}  // namespace

void Catalogue::Commit(std::vector<Operation>& operations) {
    bool stores = false, inFiles = false;
    for (const Operation& operation : operations) {
        const auto* const version = std::get_if<NewVersion>(&operation);
        stores = stores || version;
        inFiles = inFiles || (version && version->data && version->data->InFile());
    }
    const auto work = [&](Change& change) {
        Applying applying(change, {change.database, policy_, node_});
        for (Operation& operation : operations) std::visit(applying, operation);
        applying.RemoveGone();
    };
    store_->Submit(stores ? Store::Need::Space : Store::Need::None, work,
                   inFiles ? Store::Leaves::Anything : Store::Leaves::OnlyRows);
}

bool NodeView::CheckRenaming(const Renaming& renaming) const {
    if (renaming.from == renaming.to || !HasVersions(renaming.from)) return false;
    if (!renaming.merge && HasVersions(renaming.to)) throw Refusal(DSM_RC_ABORT_DUPLICATE_OBJECT);
    return true;
}

}  // namespace standin
