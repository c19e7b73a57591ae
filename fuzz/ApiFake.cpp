#include "fuzz/ApiFake.h"

namespace fuzz {
namespace {

ApiFake* fake = nullptr;

// Reads every byte, so that the sanitizer sees a text or a buffer that is shorter than it should be.
void Touch(const char* text) {
    if (text) REQUIRE(std::strlen(text) < 1u << 20);
}

template <std::size_t Size>
void CheckField(const char (&field)[Size]) {
    REQUIRE(std::memchr(field, 0, Size) != nullptr);
}

void CheckName(const dsmObjName* name) {
    REQUIRE(name != nullptr);
    CheckField(name->fs);
    CheckField(name->hl);
    CheckField(name->ll);
}

// Fills a whole record with the bytes of the input, so that short inputs leave no field terminated.
template <class Record>
void Fill(Record& record, Input& input) {
    const std::string bytes = input.Repeated(sizeof record);
    std::memcpy(&record, bytes.data(), sizeof record);
}

template <std::size_t Size>
void PutText(char (&field)[Size], Input& input) {
    const std::string text = input.Bytes(Size);
    std::memcpy(field, text.data(), text.size());
}

}  // namespace

ApiFake::ApiFake(Input& bytes) : input(bytes) {
    codes.reserve(64);
    given.reserve(64);
    fake = this;
}

ApiFake::~ApiFake() {
    fake = nullptr;
}

dsInt16_t ApiFake::Code() {
    static constexpr dsInt16_t usual[] = {DSM_RC_WILL_ABORT,
                                          DSM_RC_CHECK_REASON_CODE,
                                          DSM_RC_FINISHED,
                                          DSM_RC_MORE_DATA,
                                          DSM_RC_ABORT_NO_MATCH,
                                          DSM_RC_BAD_CALL_SEQUENCE,
                                          -1,
                                          INT16_MIN};
    const std::uint8_t choice = input.Byte();
    if (choice < 208) return 0;
    const dsInt16_t rc = choice < 248 ? usual[choice % std::size(usual)] : static_cast<dsInt16_t>(input.Word());
    codes.push_back(std::abs(static_cast<int>(rc)));
    gaveUp |= rc == DSM_RC_WILL_ABORT;
    return rc;
}

dsInt16_t ApiFake::Next(DataBlk& block) {
    if (answersLeft <= 0 || budget <= 0) {
        if (const dsInt16_t rc = Code(); rc != 0 && rc != DSM_RC_MORE_DATA) return rc;
        const dsInt16_t rc = input.Byte() < 224 ? dsInt16_t{DSM_RC_FINISHED} : dsInt16_t{0};
        codes.push_back(rc == 0 ? DSM_RC_ABORT_SYSTEM_ERROR : rc);
        return rc;
    }
    --answersLeft;
    --budget;
    block.numBytes = input.Byte();
    if (query == qtFilespace) {
        REQUIRE(block.bufferLen == sizeof(qryRespFSData));
        Fill(*reinterpret_cast<qryRespFSData*>(block.bufferPtr), input);
        return DSM_RC_MORE_DATA;
    }
    if (query == qtMC) {
        REQUIRE(block.bufferLen == sizeof(qryRespMCData));
        Fill(*reinterpret_cast<qryRespMCData*>(block.bufferPtr), input);
        return DSM_RC_MORE_DATA;
    }
    REQUIRE(block.bufferLen == sizeof(qryRespBackupData));
    qryRespBackupData record;
    std::memcpy(&record, block.bufferPtr, sizeof record);
    const std::uint8_t kind = input.Byte();
    if (kind & 1) Fill(record, input);
    if (kind & 2) PutText(record.objName.fs, input);
    if (kind & 4) PutText(record.objName.hl, input);
    if (kind & 8) PutText(record.objName.ll, input);
    if (kind & 16) record.objName.objType = input.Byte() % 3;
    if (kind & 32) record.sizeEstimate = {input.Word(), input.Word()};
    if (kind & 64) PutText(record.objInfo, input);
    std::memcpy(block.bufferPtr, &record, sizeof record);
    given.push_back({static_cast<long long>(std::uint64_t{record.sizeEstimate.hi} << 32 | record.sizeEstimate.lo),
                     record.objName.objType});
    return DSM_RC_MORE_DATA;
}

}  // namespace fuzz

using namespace fuzz;

extern "C" {

void dsmQueryApiVersionEx(dsmApiVersionEx* version) {
    version->version = 8;
}
dsInt16_t dsmSetUp(dsBool_t, envSetUp* setUp) {
    CheckField(setUp->dsmiDir);
    CheckField(setUp->dsmiConfig);
    CheckField(setUp->dsmiLog);
    CheckField(setUp->logName);
    return fake->Code();
}
dsInt16_t dsmCleanUp(dsBool_t) {
    return fake->Code();
}

dsInt16_t dsmInitEx(dsUint32_t* handle, dsmInitExIn_t* in, dsmInitExOut_t*) {
    static constexpr dsUint32_t handles[] = {1, 2, 3, 1, 0, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    for (const char* text : {in->clientNodeNameP, in->clientOwnerNameP, in->clientPasswordP, in->userNameP,
                             in->userPasswordP, in->applicationTypeP, in->options}) {
        Touch(text);
    }
    REQUIRE(in->dirDelimiter != '\0' && in->apiVersionExP != nullptr);
    const dsInt16_t rc = fake->Code();
    *handle = fake->input.OneOf(handles);
    return rc;
}
dsInt16_t dsmTerminate(dsUint32_t handle) {
    REQUIRE(handle != 0);
    return fake->Code();
}
dsInt16_t dsmRCMsg(dsUint32_t, dsInt16_t, char*) {
    return fake->Code();
}

dsInt16_t dsmRegisterFS(dsUint32_t, regFSData* data) {
    Touch(data->fsName);
    Touch(data->fsType);
    REQUIRE(std::strlen(data->fsName) <= DSM_MAX_FSNAME_LENGTH);
    return fake->Code();
}
dsInt16_t dsmDeleteFS(dsUint32_t, char* name, dsUint8_t) {
    Touch(name);
    return fake->Code();
}
dsInt16_t dsmSetAccess(dsUint32_t, dsmAccessType, dsmObjName* name, char* node, char*) {
    CheckName(name);
    Touch(node);
    return fake->Code();
}

dsInt16_t dsmBeginQuery(dsUint32_t, dsmQueryType type, dsmQueryBuff* what) {
    if (type == qtBackup) CheckName(static_cast<qryBackupData*>(what)->objName);
    if (type == qtFilespace) Touch(static_cast<qryFSData*>(what)->fsName);
    if (type == qtMC) Touch(static_cast<qryMCData*>(what)->mcName);
    fake->query = type;
    fake->answersLeft = fake->input.Byte();
    fake->answersLeft = fake->answersLeft < 192 ? fake->answersLeft % 4 : fake->answersLeft - 205;
    return fake->Code();
}
dsInt16_t dsmGetNextQObj(dsUint32_t, DataBlk* block) {
    return fake->Next(*block);
}
dsInt16_t dsmEndQuery(dsUint32_t) {
    return fake->Code();
}

dsInt16_t dsmBindMC(dsUint32_t, dsmObjName* name, dsmSendType, mcBindKey* key) {
    CheckName(name);
    CheckField(key->mcName);
    return fake->Code();
}
dsInt16_t dsmBeginTxn(dsUint32_t) {
    return fake->Code();
}
dsInt16_t dsmEndTxn(dsUint32_t, dsUint8_t, dsUint16_t* reason) {
    fake->commitRc = fake->Code();
    const std::uint8_t choice = fake->input.Byte();
    if (choice >= 208) *reason = choice < 240 ? choice : fake->input.Word();
    fake->commitReason = *reason;
    fake->codes.push_back(*reason);
    return fake->commitRc;
}
dsInt16_t dsmSendObj(dsUint32_t, dsmSendType, void*, dsmObjName* name, ObjAttr* attr, DataBlk*) {
    CheckName(name);
    Touch(attr->mcNameP);
    REQUIRE(attr->objInfo[attr->objInfoLength - 1] == '\0');
    return fake->Code();
}
dsInt16_t dsmSendData(dsUint32_t, DataBlk* block) {
    REQUIRE(block->bufferLen == fake->toCome);
    if (fake->toCome > 0) REQUIRE(std::memcmp(block->bufferPtr, fake->sent, fake->toCome) == 0);
    const dsInt16_t rc = fake->Code();
    const std::uint8_t choice = fake->input.Byte();
    if (choice < 160 || ++fake->passes >= 8) {
        block->numBytes = block->bufferLen;
    } else if (choice < 248 && block->bufferLen > 0) {
        block->numBytes = fake->input.Word() % (block->bufferLen + 1);
    } else {
        block->numBytes = fake->input.Word() * 0x10001u;
    }
    if (rc == 0 && block->numBytes <= fake->toCome) {
        fake->sent += block->numBytes;
        fake->toCome -= block->numBytes;
    }
    return rc;
}
dsInt16_t dsmEndSendObj(dsUint32_t) {
    return fake->Code();
}

dsInt16_t dsmBeginGetData(dsUint32_t, dsBool_t, dsmGetType, dsmGetList* list) {
    REQUIRE(list->numObjId == 1 && list->objId != nullptr);
    return fake->Code();
}
dsInt16_t dsmGetObj(dsUint32_t, ObjID*, DataBlk*) {
    const dsInt16_t rc = fake->Code();
    if (rc != 0) return rc;
    const std::uint8_t choice = fake->input.Byte();
    return choice < 128 ? dsInt16_t{DSM_RC_MORE_DATA} : choice < 240 ? dsInt16_t{DSM_RC_FINISHED} : dsInt16_t{0};
}
dsInt16_t dsmGetData(dsUint32_t, DataBlk* block) {
    block->bufferPtr[0] = block->bufferPtr[block->bufferLen - 1] = 'x';
    const std::uint8_t choice = fake->input.Byte();
    block->numBytes = choice < 64    ? block->bufferLen
                      : choice < 240 ? fake->input.Word() % block->bufferLen
                                     : fake->input.Word() * 0x10001u;
    const dsInt16_t rc = fake->Code();
    return rc != 0 ? rc : choice & 1 ? dsInt16_t{DSM_RC_FINISHED} : dsInt16_t{DSM_RC_MORE_DATA};
}
dsInt16_t dsmEndGetObj(dsUint32_t) {
    return fake->Code();
}
dsInt16_t dsmEndGetData(dsUint32_t) {
    return fake->Code();
}
dsInt16_t dsmDeleteObj(dsUint32_t, dsmDelType type, dsmDelInfo info) {
    if (type == dtBackup) REQUIRE(info.backInfo.objNameP != nullptr);
    return fake->Code();
}
dsInt16_t dsmRenameObj(dsmRenameIn_t* in, dsmRenameOut_t*) {
    CheckName(in->objNameP);
    CheckField(in->newHl);
    CheckField(in->newLl);
    return fake->Code();
}

}  // extern "C"
