// Removing objects, and the directory objects that are left empty above them.
#include <memory>
#include <string>
#include <vector>

#include "session/Inventory.h"
#include "session/ObjectName.h"
#include "session/Query.h"
#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/StringUtil.h"

using namespace connector;

namespace {

// One object to remove: a version by its identifier, or the active version by its name.
struct Entry {
    ObjID objId;
    dsUint32_t copyGroup;
    std::unique_ptr<dsmObjName> name;  // null: removed by its identifier
};

// Removes one object in a transaction of its own. Returns 0, the negated return code of the call that failed, or
// the negated reason. A transaction whose deletion was refused stays open.
int Remove(dsUint32_t handle, Entry& entry, dsUint16_t& reason) {
    dsmDelInfo info = {};
    if (entry.name) {
        info.backInfo.stVersion = delBackVersion;
        info.backInfo.objNameP = entry.name.get();
        info.backInfo.copyGroup = entry.copyGroup;
    } else {
        info.backIDInfo.stVersion = 1;
        info.backIDInfo.objId = entry.objId;
    }
    if (const dsInt16_t rc = dsmBeginTxn(handle)) return Negated(rc);
    if (const dsInt16_t rc = dsmDeleteObj(handle, entry.name ? dtBackup : dtBackupID, info)) return Negated(rc);
    if (const dsInt16_t rc = dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason)) return Negated(rc);
    return NegatedReason(reason);
}

// Finds the objects and removes them in the server's order. Returns 0 when all are gone, when there were none, and when
// the query broke off: in all three cases the directory above may be empty now.
int RemoveMatching(dsUint32_t handle, dsmObjName& pattern, bool allVersions, const char* pointInTime) {
    qryBackupData query = BackupQuery(pattern, allVersions ? DSM_ANY_MATCH : DSM_ACTIVE, pointInTime);
    qryRespBackupData response = EmptyBackupResponse();
    if (const dsInt16_t rc = dsmBeginQuery(handle, qtBackup, &query)) return Negated(rc);
    std::vector<Entry> entries;
    const dsInt16_t end = ForEachResponse(handle, response, [&](const qryRespBackupData& found) {
        entries.push_back(
            {found.objId, found.copyGroup, allVersions ? nullptr : std::make_unique<dsmObjName>(found.objName)});
    });
    const dsInt16_t rc = dsmEndQuery(handle);
    if (end != DSM_RC_FINISHED) return rc == 0 ? 0 : -DSM_RC_ABORT_NO_MATCH;
    if (rc != 0) return Negated(rc);
    dsUint16_t reason = 0;
    for (Entry& entry : entries) {
        if (const int failure = Remove(handle, entry, reason)) return failure;
    }
    return 0;
}

}  // namespace

int TsmSession::Delete(char* path, char* name, bool allVersions, char* pointInTime) try {
    if (!path) return -DSM_RC_NULL_OBJNAME;
    std::string hl = HighLevelPattern(path, dirDelimiter);
    dsmObjName pattern;
    if (const int refused =
            FillObjectName(pattern, fileSpaceName, hl, LowLevelPattern(name, dirDelimiter), DSM_OBJ_ANY_TYPE)) {
        return refused;
    }
    if (const int failure = RemoveMatching(handle, pattern, allVersions, pointInTime)) return failure;
    _DeleteOrphanDirectories(hl.data(), allVersions);
    return 0;
} catch (...) {
    return CaughtResult();
}

void TsmSession::_DeleteOrphanDirectories(char* path, bool allVersions) try {
    if (!path) return;
    std::string directory = path;
    dsmObjName pattern;
    while (!directory.empty()) {
        if (FillObjectName(pattern, fileSpaceName, HighLevelPattern(directory, dirDelimiter),
                           LowLevelPattern(nullptr, dirDelimiter), DSM_OBJ_ANY_TYPE) != 0) {
            return;
        }
        if (LookUpAndEndListing(*this, handle, pattern, true).count != 0) return;
        std::vector<std::string> parts = StringUtil::Split(directory, dirDelimiter[0]);
        if (parts.empty()) return;
        const std::string ll = dirDelimiter + parts.back();
        parts.pop_back();
        std::string above;
        for (std::size_t i = 0; i < parts.size(); ++i) above += (i == 0 ? "" : dirDelimiter) + parts[i];
        directory = HighLevelPattern(above, dirDelimiter);
        if (FillObjectName(pattern, fileSpaceName, directory, LowLevelPattern(ll.c_str(), dirDelimiter),
                           DSM_OBJ_ANY_TYPE) != 0) {
            return;
        }
        if (RemoveMatching(handle, pattern, allVersions, nullptr) != 0) return;
        // With a delimiter of several characters the name above can have as many levels as the one below, and the
        // climb would never end.
        if (StringUtil::Split(directory, dirDelimiter[0]).size() > parts.size()) return;
    }
} catch (...) {
    // Want of memory ends the climb like any other failure, and like these it is not reported.
}
