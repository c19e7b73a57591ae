// Removing objects, and the directory objects that are left empty above them.
#include <memory>
#include <string>
#include <vector>

#include "session/Inventory.h"
#include "session/ObjectName.h"
#include "session/TsmSession.h"
#include "util/StringUtil.h"

namespace {

// One object to remove: a version by its identifier, or the active version by its name.
struct Entry {
    ObjID objId;
    dsUint32_t copyGroup;
    std::unique_ptr<dsmObjName> name;  // null when the identifier counts
};

// Removes one object in a transaction of its own. Returns 0, the negated return code of the call that failed, or
// the negated reason. A transaction whose deletion was refused stays open.
int Remove(dsUint32_t handle, Entry& entry, dsUint16_t& reason) {
    dsmDelInfo info = {};
    if (entry.name != nullptr) {
        info.backInfo.stVersion = delBackVersion;
        info.backInfo.objNameP = entry.name.get();
        info.backInfo.copyGroup = entry.copyGroup;
    } else {
        info.backIDInfo.stVersion = 1;
        info.backIDInfo.objId = entry.objId;
    }
    if (const dsInt16_t rc = dsmBeginTxn(handle)) return Negated(rc);
    if (const dsInt16_t rc = dsmDeleteObj(handle, entry.name != nullptr ? dtBackup : dtBackupID, info)) {
        return Negated(rc);
    }
    if (const dsInt16_t rc = dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason)) return Negated(rc);
    return NegatedReason(reason);
}

// Finds the objects and removes them in the server's order. Returns 0 when all are gone, none was found or the
// query broke off, and the directory may then be looked at; hl receives its high-level name.
int RemoveMatching(dsUint32_t handle, const char* fs, const char* delimiter, const char* path, const char* name,
                   bool allVersions, const char* pointInTime, std::string& hl) {
    hl = HighLevelPattern(path, delimiter).Text();
    dsmObjName pattern;
    if (const int refused = FillObjectName(pattern, fs, hl, LowLevelPattern(name, delimiter), DSM_OBJ_ANY_TYPE)) {
        return refused;
    }
    qryBackupData query = BackupQuery(pattern, allVersions ? DSM_ANY_MATCH : DSM_ACTIVE, pointInTime);
    qryRespBackupData response;
    Prepare(response);
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

int TsmSession::Delete(char* path, char* name, bool allVersions, char* pointInTime) {
    if (path == nullptr) return -DSM_RC_NULL_OBJNAME;
    return NoThrow([&] {
        std::string hl;
        if (const int failure =
                RemoveMatching(handle, fileSpaceName, dirDelimiter, path, name, allVersions, pointInTime, hl)) {
            return failure;
        }
        _DeleteOrphanDirectories(hl.data(), allVersions);
        return 0;
    });
}

void TsmSession::_DeleteOrphanDirectories(char* path, bool allVersions) {
    if (path == nullptr) return;
    NoThrow([&] {
        std::string directory = path;
        while (!directory.empty()) {
            dsmObjName content;
            if (FillObjectName(content, fileSpaceName, HighLevelPattern(directory, dirDelimiter),
                               LowLevelPattern(nullptr, dirDelimiter), DSM_OBJ_ANY_TYPE) != 0) {
                break;
            }
            const int found = CountObjects(handle, content, true);
            EndGetBackupInfo();
            if (found != 0) break;
            std::vector<std::string> parts = StringUtil::Split(directory, dirDelimiter[0]);
            if (parts.empty()) break;
            const std::string ll = dirDelimiter + parts.back();
            parts.pop_back();
            std::string parent;
            for (std::size_t i = 0; i < parts.size(); ++i) parent += (i == 0 ? "" : dirDelimiter) + parts[i];
            std::string above;
            if (RemoveMatching(handle, fileSpaceName, dirDelimiter, parent.c_str(), ll.c_str(), allVersions, nullptr,
                               above) != 0) {
                break;
            }
            // A delimiter of several characters can lead back to as many levels as there were, and so on for ever.
            if (StringUtil::Split(above, dirDelimiter[0]).size() > parts.size()) break;
            directory = above;
        }
        return 0;
    });
}
