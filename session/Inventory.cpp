// The backup inventory: a query's answers as an array of records.
#include "session/Inventory.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "session/ObjectName.h"
#include "session/TsmSession.h"
#include "util/Helpers.h"

static_assert(sizeof(TsmObject) == 2600 && alignof(TsmObject) == 8, "the record is part of the binary interface");

namespace {

// Copies a server's text into a zeroed field, cut so that a terminator stays.
template <std::size_t FieldSize, std::size_t SourceSize>
void CopyField(char (&field)[FieldSize], const char (&source)[SourceSize], std::size_t skip = 0) {
    const std::size_t length = strnlen(source, SourceSize);
    if (length > skip) std::memcpy(field, source + skip, std::min(length - skip, FieldSize - 1));
}

bool IsFile(const qryRespBackupData& found) {
    return found.objName.objType != DSM_OBJ_DIRECTORY;
}

void FillRecord(TsmObject& record, const qryRespBackupData& found) {
    std::memset(&record, 0, sizeof record);
    CopyField(record.highLevelName, found.objName.hl);
    CopyField(record.lowLevelName, found.objName.ll);
    CopyField(record.objectInfo, found.objInfo);
    record.size = Helpers::GetSizeFromStruct(found.sizeEstimate);
    record.isFile = IsFile(found) ? 1 : 0;
    CopyField(record.fileSpace, found.objName.fs, 1);
    const dsmDate& date = found.insDate;
    char text[32];  // longer than any date that the fields can hold
    const int length = std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d", date.year, date.month, date.day, date.hour,
                                     date.minute, date.second);
    std::memcpy(record.backupDate, text, std::min(static_cast<std::size_t>(length), sizeof record.backupDate - 1));
}

// Records that grow by doubling and end as one block of exactly their number. Growing a large block moves pages,
// not bytes, so that a million records need little more room than their own.
class Records {
public:
    TsmObject& Add() {
        if (count == INT_MAX) throw std::bad_alloc();  // more than a result can tell
        if (count == capacity) Resize(capacity == 0 ? 16 : 2 * capacity);
        return block.get()[count++];
    }
    std::size_t Count() const { return count; }
    // The caller frees the block.
    TsmObject* Release() {
        Resize(count);
        return block.release();
    }

private:
    struct Free {
        void operator()(TsmObject* records) const { std::free(records); }
    };
    void Resize(std::size_t size) {
        void* moved = std::realloc(static_cast<void*>(block.get()), size * sizeof(TsmObject));
        if (moved == nullptr) throw std::bad_alloc();
        block.release();
        block.reset(static_cast<TsmObject*>(moved));
        capacity = size;
    }
    std::unique_ptr<TsmObject, Free> block;
    std::size_t count = 0;
    std::size_t capacity = 0;
};

}  // namespace

int CountObjects(dsUint32_t handle, dsmObjName& pattern, bool activeOnly, bool* firstIsFile) {
    std::size_t count = 0;
    const int failure = RunInventory(
        handle, pattern, activeOnly, nullptr, [] {},
        [&](const qryRespBackupData& found) {
            if (count++ == 0 && firstIsFile != nullptr) *firstIsFile = IsFile(found);
        });
    return failure != 0 ? failure : Saturated(count);
}

int TsmSession::GetBackupInfo(char* path, char* name, bool activeOnly, int objectType, TsmObject*& objects) {
    return _GetBackupInfo(path, name, activeOnly, nullptr, objectType, objects);
}

int TsmSession::GetBackupInfo(char* path, char* name, char* pointInTime, int objectType, TsmObject*& objects) {
    return _GetBackupInfo(path, name, true, pointInTime, objectType, objects);
}

int TsmSession::_GetBackupInfo(char* path, char* name, bool activeOnly, char* pointInTime, int objectType,
                               TsmObject*& objects) {
    if (path == nullptr) return -DSM_RC_NULL_OBJNAME;
    return NoThrow([&] {
        const dsUint8_t objType = objectType == TSM_OBJECTS_ANY           ? DSM_OBJ_ANY_TYPE
                                  : objectType == TSM_OBJECTS_DIRECTORIES ? DSM_OBJ_DIRECTORY
                                                                          : DSM_OBJ_FILE;
        dsmObjName pattern;
        if (const int refused = FillObjectName(pattern, fileSpaceName, HighLevelPattern(path, dirDelimiter),
                                               LowLevelPattern(name, dirDelimiter), objType)) {
            return refused;
        }
        Records records;
        const int failure = RunInventory(
            handle, pattern, activeOnly, pointInTime, [&] { objects = nullptr; },
            [&](const qryRespBackupData& found) { FillRecord(records.Add(), found); });
        if (failure != 0) return failure;
        if (records.Count() == 0) return 0;
        const int count = static_cast<int>(records.Count());
        TsmObject* found = records.Release();
        EndGetBackupInfo();
        objects = backupInfoList = found;
        return count;
    });
}

int TsmSession::EndGetBackupInfo() {
    std::free(backupInfoList);
    backupInfoList = nullptr;
    return 0;
}
