// Giving a stored object a new name without sending its data again.
#include <cstring>
#include <ctime>
#include <string>

#include "session/Inventory.h"
#include "session/ObjectName.h"
#include "session/PathLevels.h"
#include "session/Result.h"
#include "session/TsmSession.h"

using namespace connector;

namespace {

constexpr std::size_t timeTextLength = 25;  // that of ctime

struct Name {
    std::string hl;
    std::string ll;
};

struct Outcome {
    bool renamed;
    int result;  // of the whole operation, which ends when nothing was renamed; 0 when the server gave no reason
};

// Renames one object in a transaction of its own.
Outcome Rename(dsUint32_t handle, const char* fs, const Name& from, const Name& to, bool isFile, dsUint16_t& reason) {
    const auto ends = [](int result) { return Outcome{false, result}; };
    dsmObjName name;
    const dsUint8_t objType = isFile ? DSM_OBJ_FILE : DSM_OBJ_DIRECTORY;
    if (const int refused = FillObjectName(name, fs, from.hl, from.ll, objType)) return ends(refused);
    if (!Fits(to.hl, to.ll)) return ends(-DSM_RC_STRING_TOO_LONG);
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

    if (const dsInt16_t rc = dsmBeginTxn(handle)) return ends(Negated(rc));
    const dsInt16_t rc = dsmRenameObj(&in, &out);
    if (rc != 0 && rc != DSM_RC_WILL_ABORT) return ends(Negated(rc));
    if (dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason) != 0) return ends(NegatedReason(reason));
    if (rc == DSM_RC_WILL_ABORT) return ends(0);
    return {true, 0};
}

// The local time as ctime writes it, with its newline. Empty where it cannot be written.
std::string TimeText() {
    char text[timeTextLength + 1];
    const std::time_t now = std::time(nullptr);
    tzset();  // the host may have changed the time zone, which ctime_r alone does not notice
    return ctime_r(&now, text) ? text : "";
}

}  // namespace

int TsmSession::RenameBackup(const char* oldPath, const char* oldName, const char* newPath, const char* newName) try {
    if (!oldPath || !oldName || !newPath || !newName) return -DSM_RC_NULL_OBJNAME;
    Name from{HighLevelName(oldPath, dirDelimiter), NormalName(oldName, dirDelimiter)};
    Name to{HighLevelName(newPath, dirDelimiter), NormalName(newName, dirDelimiter)};
    for (const Name* name : {&from, &to}) {
        if (const int refused = CheckObjectName(fileSpaceName, name->hl, name->ll)) return refused;
    }
    if (const int refused = CheckLevels(to.hl, dirDelimiter)) return refused;

    // A look-up that fails does not end the operation: the old name then counts as a file, the new one as free.
    const auto lookUp = [&](const char* path, const char* name) -> Existing {
        dsmObjName pattern;
        if (const int refused = FillObjectName(pattern, fileSpaceName, HighLevelPattern(path, dirDelimiter),
                                               LowLevelPattern(name, dirDelimiter), DSM_OBJ_ANY_TYPE)) {
            return {refused, true};
        }
        return LookUpAndEndListing(*this, handle, pattern, false);
    };
    const Existing old = lookUp(oldPath, oldName);
    if (old.count == 0) return -DSM_RC_ABORT_NO_MATCH;
    const Existing taken = lookUp(newPath, newName);
    dsUint16_t reason = 0;
    if (taken.count > 0) {
        if (to.hl.size() + timeTextLength > DSM_MAX_HL_LENGTH || to.ll.size() + timeTextLength > DSM_MAX_LL_LENGTH) {
            return -DSM_RC_STRING_TOO_LONG;
        }
        Delete(const_cast<char*>(newPath), const_cast<char*>(newName), true, nullptr);
        const std::string moment = TimeText();
        if (moment.empty()) return -DSM_RC_ABORT_SYSTEM_ERROR;
        const Name temporary{to.hl + moment, to.ll + moment};
        const Outcome aside = Rename(handle, fileSpaceName, to, temporary, taken.firstIsFile, reason);
        if (!aside.renamed) return aside.result;
    }
    const Outcome outcome = Rename(handle, fileSpaceName, from, to, old.firstIsFile, reason);
    if (!outcome.renamed) return outcome.result;
    Delete(from.hl.data(), from.ll.data(), true, nullptr);
    _BackupDirectories(to.hl.data(), nullptr);
    return 0;
} catch (...) {
    return CaughtResult();
}
