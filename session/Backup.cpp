// Storing one byte stream as one object: its directories, its transaction, its data.
#include "session/Backup.h"

#include <cstring>
#include <memory>
#include <string>

#include "session/Inventory.h"
#include "session/NameList.h"
#include "session/ObjectName.h"
#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/Helpers.h"

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

}  // namespace

int CheckLevels(std::string_view path, std::string_view delimiter) {
    if (delimiter.size() == 1 && path.size() <= DSM_MAX_LL_LENGTH) return 0;  // no level is longer than the path
    return ForEachLevel(path, delimiter, [](std::string_view hl, std::string_view ll) {
        return Fits(hl, ll) ? 0 : -DSM_RC_STRING_TOO_LONG;
    });
}

int TsmSession::BeginBackup(char* path, char* name, long long size, char* objInfo, char* mgmtClass) {
    if (path == nullptr || name == nullptr) return -DSM_RC_NULL_OBJNAME;
    return NoThrow([&] {
        const std::string_view delimiter = dirDelimiter;
        std::string directory = Rooted(path, delimiter).Text();
        const char* hl = directory == delimiter ? "" : directory.c_str();
        const std::string ll = Under(name, delimiter).Text();
        // Whatever would be refused is refused before the first directory object is created.
        if (const int refused = CheckObjectName(fileSpaceName, hl, ll)) return refused;
        if (objInfo != nullptr && std::strlen(objInfo) > TSM_LIMIT_OBJECT_INFO) return -DSM_RC_STRING_TOO_LONG;
        if (const int failure = _BackupDirectories(directory.data(), mgmtClass)) return failure;
        return _BeginBackup(hl, ll.c_str(), size, objInfo, mgmtClass);
    });
}

int TsmSession::_BackupDirectories(char* path, char* mgmtClass) {
    return NoThrow([&] {
        const std::string_view delimiter = dirDelimiter;
        if (const int refused = CheckLevels(path, delimiter)) return refused;
        dsmObjName pattern;
        if (const int refused = FillObjectName(pattern, fileSpaceName, "", "", DSM_OBJ_DIRECTORY)) return refused;
        return ForEachLevel(path, delimiter, [&](std::string_view hl, std::string_view ll) {
            // With a delimiter of one character a level's name is rooted as it stands.
            const NamePart name = delimiter.size() == 1 ? NamePart(ll) : AsWritten(Rooted(ll, delimiter));
            if (const int refused = RefillObjectName(pattern, AsWritten(HighLevelName(hl, delimiter)), name)) {
                return refused;
            }
            const int found = CountObjects(handle, pattern, true);
            EndGetBackupInfo();
            if (found < 0) return found;
            if (found > 0) return 0;
            const std::string above(hl);
            const std::string last(ll);
            if (const int failure = _BeginBackup(above.c_str(), last.c_str(), 0, nullptr, mgmtClass)) return failure;
            return EndBackup();
        });
    });
}

int TsmSession::_BeginBackup(const char* hl, const char* ll, long long size, char* objInfo, char* mgmtClass) {
    return NoThrow([&] {
        dsmObjName name;
        const dsUint8_t objType = size == 0 ? DSM_OBJ_DIRECTORY : DSM_OBJ_FILE;
        if (const int refused = FillObjectName(name, fileSpaceName, hl, ll, objType)) return refused;

        // The copies for the announcement are made before the transaction, which must not be left open for want
        // of memory. Without an information text its length is that of the terminator.
        const std::size_t infoLength = objInfo == nullptr ? 0 : std::strlen(objInfo);
        if (infoLength > TSM_LIMIT_OBJECT_INFO) return -DSM_RC_STRING_TOO_LONG;
        const std::unique_ptr<char[]> info(new char[infoLength + 2]());
        if (objInfo != nullptr) std::memcpy(info.get(), objInfo, infoLength);
        const std::unique_ptr<char[]> mcName(mgmtClass == nullptr ? nullptr
                                                                  : CopyText(mgmtClass, std::strlen(mgmtClass)));

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
        return Commit(*this, handle, "beginBackup -> dsmEndTxn %d error", "beginBackup -> dsmEndTxn Reason %d error");
    });
}

int TsmSession::SendData(unsigned char* buffer, int length) {
    if (length < 0) return -DSM_RC_INVALID_PARM;
    if (buffer == nullptr && length > 0) return -DSM_RC_NULL_BUFPTR;
    return NoThrow([&] {
        const auto total = static_cast<std::size_t>(length);
        std::unique_ptr<char[]> copy(new char[total]);
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
    });
}

int TsmSession::EndBackup() {
    if (const dsInt16_t rc = dsmEndSendObj(handle)) Log(*this, "endBackup -> dsmEndSendObj %d error", rc);
    return Commit(*this, handle, "endBackup -> dsmEndTxn %d error", "endBackup -> dsmEndTxn reason %d error");
}
