#include "DutyApi.h"

#include <atomic>
#include <cstring>

#include "dsmapifp.h"
#include "dsmrc.h"

namespace bench {
namespace {

thread_local long found = 0;
thread_local long left = 0;
std::atomic<dsUint32_t> handles{0};

// What the server would have sent: an object with names, information and a date of usual length.
const qryRespBackupData& Answer() {
    static const qryRespBackupData answer = [] {
        qryRespBackupData filled;
        std::memset(&filled, 0, sizeof filled);
        filled.stVersion = 8;
        std::strcpy(filled.objName.fs, "/vm01");
        std::strcpy(filled.objName.hl, "/data/projects/backup/2021");
        std::strcpy(filled.objName.ll, "/disk-0001.img");
        std::strcpy(filled.mcName, "STANDARD");
        std::strcpy(filled.objInfo, "an information text of usual length");
        filled.objName.objType = DSM_OBJ_FILE;
        filled.sizeEstimate = {1, 5};
        filled.insDate = {2021, 3, 7, 9, 5, 0};
        return filled;
    }();
    return answer;
}

}  // namespace

void SetFound(long objects) {
    found = objects;
}

}  // namespace bench

using namespace bench;

extern "C" {

void dsmQueryApiVersionEx(dsmApiVersionEx*) {}
dsInt16_t dsmSetUp(dsBool_t, envSetUp*) {
    return 0;
}
dsInt16_t dsmCleanUp(dsBool_t) {
    return 0;
}
dsInt16_t dsmInitEx(dsUint32_t* handle, dsmInitExIn_t*, dsmInitExOut_t*) {
    *handle = ++handles;
    return 0;
}
dsInt16_t dsmTerminate(dsUint32_t) {
    return 0;
}
dsInt16_t dsmRCMsg(dsUint32_t, dsInt16_t, char*) {
    return 0;
}
dsInt16_t dsmRegisterFS(dsUint32_t, regFSData*) {
    return 0;
}
dsInt16_t dsmDeleteFS(dsUint32_t, char*, dsUint8_t) {
    return 0;
}
dsInt16_t dsmSetAccess(dsUint32_t, dsmAccessType, dsmObjName*, char*, char*) {
    return 0;
}

dsInt16_t dsmBeginQuery(dsUint32_t, dsmQueryType, dsmQueryBuff*) {
    left = found;
    return 0;
}
dsInt16_t dsmGetNextQObj(dsUint32_t, DataBlk* block) {
    if (left == 0) return DSM_RC_FINISHED;
    std::memcpy(block->bufferPtr, &Answer(), sizeof(qryRespBackupData));
    reinterpret_cast<qryRespBackupData*>(block->bufferPtr)->objId.lo = static_cast<dsUint32_t>(left--);
    return DSM_RC_MORE_DATA;
}
dsInt16_t dsmEndQuery(dsUint32_t) {
    return 0;
}

dsInt16_t dsmBindMC(dsUint32_t, dsmObjName*, dsmSendType, mcBindKey*) {
    return 0;
}
dsInt16_t dsmBeginTxn(dsUint32_t) {
    return 0;
}
dsInt16_t dsmEndTxn(dsUint32_t, dsUint8_t, dsUint16_t*) {
    return 0;
}
dsInt16_t dsmSendObj(dsUint32_t, dsmSendType, void*, dsmObjName*, ObjAttr*, DataBlk*) {
    return 0;
}
dsInt16_t dsmSendData(dsUint32_t, DataBlk* block) {
    block->numBytes = block->bufferLen;
    return 0;
}
dsInt16_t dsmEndSendObj(dsUint32_t) {
    return 0;
}

dsInt16_t dsmBeginGetData(dsUint32_t, dsBool_t, dsmGetType, dsmGetList*) {
    return 0;
}
dsInt16_t dsmGetObj(dsUint32_t, ObjID*, DataBlk*) {
    return DSM_RC_MORE_DATA;
}
dsInt16_t dsmGetData(dsUint32_t, DataBlk* block) {
    std::memset(block->bufferPtr, 'x', block->bufferLen);
    block->numBytes = block->bufferLen;
    return DSM_RC_MORE_DATA;
}
dsInt16_t dsmEndGetObj(dsUint32_t) {
    return 0;
}
dsInt16_t dsmEndGetData(dsUint32_t) {
    return 0;
}
dsInt16_t dsmDeleteObj(dsUint32_t, dsmDelType, dsmDelInfo) {
    return 0;
}
dsInt16_t dsmRenameObj(dsmRenameIn_t*, dsmRenameOut_t*) {
    return 0;
}

}  // extern "C"
