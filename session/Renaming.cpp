// Giving a stored object a new name without sending its data again.
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "session/Backup.h"
#include "session/Inventory.h"
#include "session/ObjectName.h"
#include "session/Result.h"
#include "session/TsmSession.h"

namespace {

constexpr std::size_t timeTextLength = 25;  // that of ctime

struct Name {
    std::string hl;
    std::string ll;
};

// Renames one object in a transaction of its own. No value: it went through and the operation goes on. Otherwise
// the operation ends with that result, which is 0 also where the server gave no reason.
std::optional<int> Rename(dsUint32_t handle, const char* fs, const Name& from, const Name& to, bool isFile,
                          dsUint16_t& reason) {
    dsmObjName name;
    const dsUint8_t objType = isFile ? DSM_OBJ_FILE : DSM_OBJ_DIRECTORY;
    if (const int refused = FillObjectName(name, fs, from.hl, from.ll, objType)) return refused;
    if (!Fits(to.hl, to.ll)) return -DSM_RC_STRING_TOO_LONG;
    dsmRenameIn_t in = {};
    in.stVersion = 1;
    in.dsmHandle = handle;
    in.repository = DSM_BACKUP_REP;
    in.objNameP = &name;
    std::memcpy(in.newHl, to.hl.data(), to.hl.size());
    std::memcpy(in.newLl, to.ll.data(), to.ll.size());
    in.merge = bFalse;
    dsmRenameOut_t out = {};
    out.stVersion = 1;

    if (const dsInt16_t rc = dsmBeginTxn(handle)) return Negated(rc);
    const dsInt16_t rc = dsmRenameObj(&in, &out);
    if (rc != 0 && rc != DSM_RC_WILL_ABORT) return Negated(rc);
    if (dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason) != 0) return NegatedReason(reason);
    if (rc == DSM_RC_WILL_ABORT) return 0;
    return std::nullopt;
}

}  // namespace

int TsmSession::RenameBackup(const char* oldPath, const char* oldName, const char* newPath, const char* newName) {
    if (oldPath == nullptr || oldName == nullptr || newPath == nullptr || newName == nullptr) {
        return -DSM_RC_NULL_OBJNAME;
    }
    return NoThrow([&] {
        Name from{HighLevelName(oldPath, dirDelimiter).Text(), Rooted(oldName, dirDelimiter).Text()};
        Name to{HighLevelName(newPath, dirDelimiter).Text(), Rooted(newName, dirDelimiter).Text()};
        for (const Name& name : {from, to}) {
            if (const int refused = CheckObjectName(fileSpaceName, name.hl, name.ll)) return refused;
        }
        if (const int refused = CheckLevels(to.hl, dirDelimiter)) return refused;

        // How many versions a name holds (negative: the query failed), and whether the first one is a file.
        const auto look = [&](const char* path, const char* name, bool& isFile) {
            bool first = true;
            dsmObjName pattern;
            int found = FillObjectName(pattern, fileSpaceName, HighLevelPattern(path, dirDelimiter),
                                       Rooted(name, dirDelimiter), DSM_OBJ_ANY_TYPE);
            if (found == 0) found = CountObjects(handle, pattern, false, &first);
            EndGetBackupInfo();
            isFile = found <= 0 || first;
            return found;
        };
        bool oldIsFile;
        bool newIsFile;
        if (look(oldPath, oldName, oldIsFile) == 0) return -DSM_RC_ABORT_NO_MATCH;
        dsUint16_t reason = 0;
        if (look(newPath, newName, newIsFile) > 0) {
            if (to.hl.size() + timeTextLength > DSM_MAX_HL_LENGTH ||
                to.ll.size() + timeTextLength > DSM_MAX_LL_LENGTH) {
                return -DSM_RC_STRING_TOO_LONG;
            }
            Delete(const_cast<char*>(newPath), const_cast<char*>(newName), true, nullptr);
            char timeText[timeTextLength + 1];
            const std::time_t now = std::time(nullptr);
            tzset();  // the host may have changed the time zone, which ctime_r alone does not notice
            if (ctime_r(&now, timeText) == nullptr) return -DSM_RC_ABORT_SYSTEM_ERROR;
            const Name aside{to.hl + timeText, to.ll + timeText};
            if (const auto end = Rename(handle, fileSpaceName, to, aside, newIsFile, reason)) return *end;
        }
        if (const auto end = Rename(handle, fileSpaceName, from, to, oldIsFile, reason)) return *end;
        Delete(from.hl.data(), from.ll.data(), true, nullptr);
        _BackupDirectories(to.hl.data(), nullptr);
        return 0;
    });
}
