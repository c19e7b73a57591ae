// Storing one byte stream as one object: its directories, its transaction, its data.
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "session/Inventory.h"
#include "session/ObjectName.h"
#include "session/PathLevels.h"
#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/Helpers.h"
#include "util/Text.h"

using namespace connector;

namespace {

static_assert(TSM_LIMIT_OBJECT_INFO == 0xFFFF - 1, "the length and the terminator are counted in 16 bits");

void Log(TsmSession& session, const char* message, int code) {
    session._Log(const_cast<char*>(message), code);
}

// Ends the transaction with a commit vote. Returns 0, the negated reason, or, where the commit failed without a
// reason, the negated return code: a failed commit never reads as success.
int Commit(TsmSession& session, dsUint32_t handle, const char* failed, const char* givenUp) {
    dsUint16_t reason = 0;
    if (const dsInt16_t rc = dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason)) {
        Log(session, failed, reason);
        return reason != 0 ? NegatedReason(reason) : Negated(rc);
    }
    if (reason != 0) Log(session, givenUp, reason);
    return NegatedReason(reason);
}

// Names in pattern what a listing of the level (hl, ll) would ask for. Most levels are views into a long path: they
// are not copied only to be written into pattern.
int NameLevel(dsmObjName& pattern, std::string_view hl, std::string_view ll, std::string_view delimiter) {
    if (delimiter.size() > 1 || !(hl.empty() || StartsWith(hl, delimiter))) {
        return RefillObjectName(pattern, HighLevelName(hl, delimiter), NormalName(ll, delimiter));
    }
    // Where the level above has no name, hl ends with a delimiter too many.
    if (EndsWith(hl, delimiter)) hl.remove_suffix(1);
    return RefillObjectName(pattern, hl == delimiter ? std::string_view() : hl, ll);
}

}  // namespace

int TsmSession::BeginBackup(char* path, char* name, long long size, char* objInfo, char* mgmtClass) try {
    if (!path || !name) return -DSM_RC_NULL_OBJNAME;
    const std::string_view delimiter = dirDelimiter;
    std::string directory = NormalName(path, delimiter);
    const char* const hl = directory == delimiter ? "" : directory.c_str();  // HighLevelName, without a copy
    const std::string ll = NameAsGiven(name, delimiter);
    // What would be refused is refused before the first directory object is created.
    if (const int refused = CheckObjectName(fileSpaceName, hl, ll)) return refused;
    if (objInfo && std::strlen(objInfo) > TSM_LIMIT_OBJECT_INFO) return -DSM_RC_STRING_TOO_LONG;
    if (const int failure = _BackupDirectories(directory.data(), mgmtClass)) return failure;
    return _BeginBackup(hl, ll.c_str(), size, objInfo, mgmtClass);
} catch (...) {
    return CaughtResult();
}

int TsmSession::_BackupDirectories(char* path, char* mgmtClass) try {
    const std::string_view directory = path;
    const std::string_view delimiter = dirDelimiter;
    if (const int refused = CheckLevels(directory, delimiter)) return refused;
    dsmObjName pattern;
    if (const int refused = FillObjectName(pattern, fileSpaceName, "", "", DSM_OBJ_DIRECTORY)) return refused;
    return ForEachLevel(directory, delimiter, [&](std::string_view hl, std::string_view ll) {
        if (const int refused = NameLevel(pattern, hl, ll, delimiter)) return refused;
        const int found = LookUpAndEndListing(*this, handle, pattern, true).count;
        if (found < 0) return found;
        if (found > 0) return 0;
        const std::string above(hl);
        const std::string last(ll);
        if (const int failure = _BeginBackup(above.c_str(), last.c_str(), 0, nullptr, mgmtClass)) return failure;
        return EndBackup();
    });
} catch (...) {
    return CaughtResult();
}

int TsmSession::_BeginBackup(const char* hl, const char* ll, long long size, char* objInfo, char* mgmtClass) {
    dsmObjName name;
    const dsUint8_t objType = size == 0 ? DSM_OBJ_DIRECTORY : DSM_OBJ_FILE;
    if (const int refused = FillObjectName(name, fileSpaceName, hl, ll, objType)) return refused;

    // The copies for the announcement are made before the transaction, which must not be left open for want of memory.
    // Without an information text its length is that of the terminator.
    const std::size_t infoLength = objInfo ? std::strlen(objInfo) : 0;
    if (infoLength > TSM_LIMIT_OBJECT_INFO) return -DSM_RC_STRING_TOO_LONG;
    const std::unique_ptr<char[]> info(new (std::nothrow) char[infoLength + 2]());
    const std::unique_ptr<char[]> mcName(NewCopy(mgmtClass));
    if (!info || (mgmtClass && !mcName)) return -DSM_RC_NO_MEMORY;
    if (objInfo) std::memcpy(info.get(), objInfo, infoLength);

    mcBindKey key = {};
    key.stVersion = mcBindKeyVersion;
    if (const dsInt16_t rc = dsmBindMC(handle, &name, stBackup, &key)) {
        Log(*this, "beginBackup -> dsmBindMC %d error", rc);
        return Negated(rc);
    }
    if (const dsInt16_t rc = dsmBeginTxn(handle)) {
        Log(*this, "beginBackup -> dsmBeginTxn %d error", rc);
        return Negated(rc);
    }

    ObjAttr attr = {};
    attr.stVersion = 4;
    attr.sizeEstimate = Helpers::GetSizeEstimate(size);
    attr.objCompressed = bFalse;
    attr.objInfoLength = static_cast<dsUint16_t>(infoLength + 1);
    attr.objInfo = info.get();
    attr.mcNameP = mcName.get();
    const dsInt16_t rc = dsmSendObj(handle, stBackup, nullptr, &name, &attr, nullptr);
    if (rc == 0) return 0;
    Log(*this, "beginBackup -> dsmSendObj %d error", rc);
    if (rc != DSM_RC_WILL_ABORT) return Negated(rc);
    // The server has given the transaction up. Ending it tells why.
    return Commit(*this, handle, "beginBackup -> dsmEndTxn %d error", "beginBackup -> dsmEndTxn Reason %d error");
}

int TsmSession::SendData(unsigned char* buffer, int length) {
    if (length < 0) return -DSM_RC_INVALID_PARM;
    if (!buffer && length > 0) return -DSM_RC_NULL_BUFPTR;
    const auto total = static_cast<std::size_t>(length);
    std::unique_ptr<char[]> copy(new (std::nothrow) char[total]);
    if (!copy) return -DSM_RC_NO_MEMORY;
    DataBlk block = {};
    block.stVersion = DataBlkVersion;
    block.bufferPtr = copy.get();
    std::size_t offset = 0;
    do {
        // Each pass offers what is left, at the start of the copy, with zeros behind it.
        const std::size_t left = total - offset;
        if (left > 0) std::memcpy(copy.get(), buffer + offset, left);
        std::memset(copy.get() + left, 0, total - left);
        block.bufferLen = static_cast<dsUint32_t>(left);
        block.numBytes = 0;
        const dsInt16_t rc = dsmSendData(handle, &block);
        if (rc == DSM_RC_WILL_ABORT) {
            // The server has given the transaction up. Ending the object and then the transaction tells why.
            copy.reset();
            if (const dsInt16_t endRc = dsmEndSendObj(handle)) {
                Log(*this, "sendData -> dsmEndSendObj %d error", endRc);
            }
            return Commit(*this, handle, "sendData -> dsmEndTxn %d error", "sendData -> dsmEndTxn reason %d error");
        }
        if (rc != 0) {
            Log(*this, "sendData -> %d error", rc);
            return Negated(rc);
        }
        // An API that takes nothing, or more than it was offered, would never come to an end.
        if (block.numBytes > left || (block.numBytes == 0 && left > 0)) return -DSM_RC_ABORT_SYSTEM_ERROR;
        offset += block.numBytes;
    } while (offset < total);
    return 0;
}

int TsmSession::EndBackup() {
    if (const dsInt16_t rc = dsmEndSendObj(handle)) Log(*this, "endBackup -> dsmEndSendObj %d error", rc);
    return Commit(*this, handle, "endBackup -> dsmEndTxn %d error", "endBackup -> dsmEndTxn reason %d error");
}
