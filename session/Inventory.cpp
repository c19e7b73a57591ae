// The backup inventory: a query's answers as an array of records.
#include "session/Inventory.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "session/ObjectName.h"
#include "session/Query.h"
#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/Helpers.h"
#include "util/Text.h"

using namespace connector;

// Hosts read the records, and index arrays of them, by these offsets.
static_assert(sizeof(TsmObject) == 2600 && alignof(TsmObject) == 8 && offsetof(TsmObject, lowLevelName) == 1027 &&
                  offsetof(TsmObject, size) == 1288 && offsetof(TsmObject, backupDate) == 1296 &&
                  offsetof(TsmObject, objectInfo) == 1316 && offsetof(TsmObject, fileSpace) == 1571 &&
                  offsetof(TsmObject, isFile) == 2596,
              "the record is part of the binary interface");

namespace {

qryBackupData InventoryQuery(dsmObjName& pattern, bool activeOnly, const char* pointInTime) {
    return BackupQuery(pattern, activeOnly && !pointInTime ? DSM_ACTIVE : DSM_ANY_MATCH, pointInTime);
}

// Hands every response of the query that is under way to each(response), and ends it. Returns 0 or a negative result.
template <class Each>
int FinishInventory(dsUint32_t handle, Each each) {
    qryRespBackupData response = EmptyBackupResponse();
    const dsInt16_t end = ForEachResponse(handle, response, each);
    if (end != DSM_RC_FINISHED && end != DSM_RC_ABORT_NO_MATCH) return NegatedUnexpected(end);
    return Negated(dsmEndQuery(handle));
}

bool IsFile(const qryRespBackupData& found) {
    return found.objName.objType != DSM_OBJ_DIRECTORY;
}

void FillRecord(TsmObject& record, const qryRespBackupData& found) {
    std::memset(&record, 0, sizeof record);
    CopyCut(record.highLevelName, found.objName.hl);
    CopyCut(record.lowLevelName, found.objName.ll);
    CopyCut(record.objectInfo, found.objInfo);
    record.size = Helpers::GetSizeFromStruct(found.sizeEstimate);
    record.isFile = IsFile(found) ? 1 : 0;
    CopyCut(record.fileSpace, found.objName.fs, 1);
    const dsmDate& date = found.insDate;
    char text[32];  // longer than any date that the fields can hold
    std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d", date.year, date.month, date.day, date.hour, date.minute,
                  date.second);
    CopyCut(record.backupDate, text);
}

// An array of records that grows by doubling and is cut to its exact size in the end. The C library grows a large
// block by moving pages, not bytes, so that a million records need little more room than their own.
class Records {
public:
    TsmObject& Add() {
        if (count_ == INT_MAX) throw std::bad_alloc();  // more than fit into a result
        if (count_ == capacity_) Resize(capacity_ == 0 ? 16 : 2 * capacity_);
        return block_.get()[count_++];
    }
    std::size_t Count() const { return count_; }
    // The caller frees the block.
    TsmObject* Release() {
        Resize(count_);
        return block_.release();
    }

private:
    struct Free {
        void operator()(TsmObject* records) const { std::free(records); }
    };
    void Resize(std::size_t size) {
        void* const moved = std::realloc(static_cast<void*>(block_.get()), size * sizeof(TsmObject));
        if (!moved) throw std::bad_alloc();
        block_.release();
        block_.reset(static_cast<TsmObject*>(moved));
        capacity_ = size;
    }
    std::unique_ptr<TsmObject, Free> block_;
    std::size_t count_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace

Existing connector::LookUpAndEndListing(TsmSession& session, dsUint32_t handle, dsmObjName& pattern, bool activeOnly) {
    std::size_t count = 0;
    bool firstIsFile = true;
    qryBackupData query = InventoryQuery(pattern, activeOnly, nullptr);
    int failure = Negated(dsmBeginQuery(handle, qtBackup, &query));
    if (failure == 0) {
        failure = FinishInventory(handle, [&](const qryRespBackupData& found) {
            if (count++ == 0) firstIsFile = IsFile(found);
        });
    }
    session.EndGetBackupInfo();
    if (failure != 0) return {failure, true};
    return {Saturated(count), firstIsFile};
}

int TsmSession::GetBackupInfo(char* path, char* name, bool activeOnly, int objectType, TsmObject*& objects) {
    return _GetBackupInfo(path, name, activeOnly, nullptr, objectType, objects);
}

int TsmSession::GetBackupInfo(char* path, char* name, char* pointInTime, int objectType, TsmObject*& objects) {
    return _GetBackupInfo(path, name, true, pointInTime, objectType, objects);
}

int TsmSession::_GetBackupInfo(char* path, char* name, bool activeOnly, char* pointInTime, int objectType,
                               TsmObject*& objects) try {
    if (!path) return -DSM_RC_NULL_OBJNAME;
    const dsUint8_t objType = objectType == TSM_OBJECTS_ANY           ? DSM_OBJ_ANY_TYPE
                              : objectType == TSM_OBJECTS_DIRECTORIES ? DSM_OBJ_DIRECTORY
                                                                      : DSM_OBJ_FILE;
    dsmObjName pattern;
    if (const int refused = FillObjectName(pattern, fileSpaceName, HighLevelPattern(path, dirDelimiter),
                                           LowLevelPattern(name, dirDelimiter), objType)) {
        return refused;
    }
    qryBackupData query = InventoryQuery(pattern, activeOnly, pointInTime);
    if (const dsInt16_t rc = dsmBeginQuery(handle, qtBackup, &query)) return Negated(rc);
    objects = nullptr;
    Records records;
    if (const int failure =
            FinishInventory(handle, [&](const qryRespBackupData& found) { FillRecord(records.Add(), found); })) {
        return failure;
    }
    if (records.Count() == 0) return 0;
    const int count = static_cast<int>(records.Count());
    TsmObject* const found = records.Release();
    EndGetBackupInfo();
    objects = backupInfoList = found;
    return count;
} catch (...) {
    return CaughtResult();
}

int TsmSession::EndGetBackupInfo() {
    std::free(backupInfoList);
    backupInfoList = nullptr;
    return 0;
}
