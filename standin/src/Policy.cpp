#include "Policy.h"

#include <algorithm>
#include <ctime>
#include <vector>

#include "Store.h"
#include "TestControl.h"
#include "dsmapitd.h"

namespace standin {

std::map<std::int64_t, std::string> Policy::Gone(Database& database, const ObjectKey& key, std::int64_t moment) const {
    constexpr std::int64_t day = 86400;
    std::map<std::int64_t, std::string> gone;
    if (KeepsAll()) return gone;
    Statement rows = database.Query(
        "SELECT id, ended, class, file FROM object_version WHERE fs = ?1 AND hl = ?2 AND ll = ?3 AND type = ?4"
        " ORDER BY ended IS NOT NULL, ended DESC, id DESC",
        key.fs, key.hl, key.ll, key.type);
    const Retention* rules = nullptr;
    bool active = false;
    std::int64_t kept = 0;
    while (rows.Step()) {
        if (!rules) {
            const auto found = classes.find(std::string(rows.Bytes(2, DSM_MAX_MC_NAME_LENGTH)));
            if (found == classes.end()) return gone;
            rules = &found->second;
        }
        if (rows.IsNull(1)) {
            active = true;
            ++kept;
            continue;
        }
        const std::optional<std::int64_t>& most = active ? rules->existing : rules->deleted;
        const std::optional<std::int64_t>& days = kept == 0 ? rules->lastDays : rules->extraDays;
        if ((most && kept >= *most) || (days && rows.Count(1) + *days * day <= moment)) {
            gone.emplace(rows.Int(0), rows.Bytes(3, longestFileName));
        } else {
            ++kept;
        }
    }
    return gone;
}

void Policy::Apply(Store& store) const {
    if (KeepsAll() || store.ReadOnly()) return;
    const std::int64_t moment = std::min(control::Now(), static_cast<std::int64_t>(std::time(nullptr)));
    constexpr std::size_t step = 500;
    std::vector<ObjectKey> found;
    const auto remove = [&] {
        store.Submit(Store::Need::None, [&](Change& change) {
            for (const ObjectKey& key : found) {  // judged again: other processes change them
                for (const auto& [id, file] : Gone(change.database, key, moment)) change.RemoveVersion(id, file);
            }
        });
        found.clear();
    };
    Database reader(store.CataloguePath(), store.ReadingMode());
    Statement objects = reader.Query("SELECT DISTINCT fs, hl, ll, type FROM object_version WHERE ended IS NOT NULL");
    while (objects.Step()) {
        ObjectKey key{objects.Int(0), std::string(objects.Bytes(1, DSM_MAX_HL_LENGTH)),
                      std::string(objects.Bytes(2, DSM_MAX_LL_LENGTH)), objects.Int(3)};
        if (!Gone(reader, key, moment).empty()) found.push_back(std::move(key));
        if (found.size() == step) remove();
    }
    if (!found.empty()) remove();
}

}  // namespace standin
