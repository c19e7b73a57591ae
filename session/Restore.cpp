// Reading one object back as a stream.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "session/ObjectName.h"
#include "session/Query.h"
#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/Helpers.h"
#include "util/Text.h"

using namespace connector;

long long TsmSession::BeginRestore(char* path, char* name, char* pointInTime) try {
    restoreDone = false;
    if (!path || !name) return -DSM_RC_NULL_OBJNAME;
    dsmObjName pattern;
    if (const int refused = FillObjectName(pattern, fileSpaceName, HighLevelName(path, dirDelimiter),
                                           NameAsGiven(name, dirDelimiter), DSM_OBJ_FILE)) {
        return refused;
    }
    qryBackupData query = BackupQuery(pattern, pointInTime ? DSM_ANY_MATCH : DSM_ACTIVE, pointInTime);
    qryRespBackupData response = EmptyBackupResponse();
    if (const dsInt16_t rc = dsmBeginQuery(handle, qtBackup, &query)) return Negated(rc);

    // Of several matches the last one is restored.
    long long size = -DSM_RC_ABORT_NO_MATCH;
    bool chosen = false;
    dsmObjName object = {};
    ObjID objId = {};
    mcBindKey key = {};
    const dsInt16_t end = ForEachResponse(handle, response, [&](const qryRespBackupData& found) {
        chosen = true;
        objId = found.objId;
        object = {};
        object.objType = DSM_OBJ_FILE;
        CopyCut(object.fs, found.objName.fs);
        CopyCut(object.hl, found.objName.hl);
        CopyCut(object.ll, found.objName.ll);
        size = Helpers::GetSizeFromStruct(found.sizeEstimate);
        key = {};
        key.stVersion = mcBindKeyVersion;
        CopyCut(key.mcName, found.mcName);
    });
    if (end != DSM_RC_FINISHED) return NegatedUnexpected(end);
    if (const dsInt16_t rc = dsmEndQuery(handle)) return Negated(rc);
    if (!chosen) return size;

    if (const dsInt16_t rc = dsmBindMC(handle, &object, stBackup, &key)) return Negated(rc);
    dsmGetList list = {};
    list.stVersion = 2;
    list.numObjId = 1;
    list.objId = &objId;
    if (const dsInt16_t rc = dsmBeginGetData(handle, bTrue, gtBackup, &list)) return Negated(rc);
    const dsInt16_t rc = dsmGetObj(handle, &objId, nullptr);
    if (rc == DSM_RC_MORE_DATA) return size;
    if (rc != DSM_RC_FINISHED) return NegatedUnexpected(rc);
    if (const dsInt16_t endRc = dsmEndGetObj(handle)) return Negated(endRc);
    restoreDone = true;
    return size;
} catch (...) {
    return CaughtResult();
}

int TsmSession::GetData(unsigned char*& buffer, int size) {
    if (restoreDone) return 0;
    if (!buffer) return -DSM_RC_NULL_BUFPTR;
    const auto chunkLength = static_cast<dsUint32_t>(std::max(size, TSM_LEAST_READ));
    const std::unique_ptr<char[]> chunk(new (std::nothrow) char[chunkLength]);
    if (!chunk) return -DSM_RC_NO_MEMORY;
    DataBlk block = {};
    block.stVersion = DataBlkVersion;
    block.bufferLen = chunkLength;
    block.bufferPtr = chunk.get();
    const dsInt16_t rc = dsmGetData(handle, &block);
    if (rc != DSM_RC_MORE_DATA && rc != DSM_RC_FINISHED) return NegatedUnexpected(rc);
    // More than there was room for cannot be true, and nothing of it can be trusted.
    if (block.numBytes > chunkLength) return -DSM_RC_ABORT_SYSTEM_ERROR;
    std::memcpy(buffer, chunk.get(), block.numBytes);
    if (rc == DSM_RC_FINISHED) {
        restoreDone = true;
        if (const dsInt16_t endRc = dsmEndGetObj(handle)) return Negated(endRc);
    }
    return static_cast<int>(block.numBytes);
}

int TsmSession::EndRestore() {
    return Negated(dsmEndGetData(handle));
}
