#include "double/ApiDouble.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

std::string Text(const char* text) {
    return text ? "'" + std::string(text) + "'" : "null";
}

// A field that the library filled, with zeros behind its text.
template <std::size_t Size>
std::string Field(const char (&field)[Size]) {
    const std::string text(field, strnlen(field, Size));
    const bool clean = text.size() < Size && std::all_of(field + text.size(), field + Size, [](char c) { return !c; });
    return "'" + text + (clean ? "'" : "' unclean");
}

std::string Text(const dsmObjName* name) {
    return Field(name->fs) + " " + Field(name->hl) + " " + Field(name->ll) + " type=" + std::to_string(name->objType);
}

std::string Text(const dsStruct64_t& value) {
    return std::to_string(value.hi) + ":" + std::to_string(value.lo);
}

std::string Text(const dsmDate& d) {
    std::string text;
    for (const int part : {int{d.year}, int{d.month}, int{d.day}, int{d.hour}, int{d.minute}, int{d.second}}) {
        text += (text.empty() ? "" : ".") + std::to_string(part);
    }
    return text;
}

std::string Number(const char* label, long long value) {
    return std::string(" ") + label + "=" + std::to_string(value);
}

ApiDouble& Api() {
    return ApiDouble::Get();
}

// A handle is written down only where it is not the last one given out.
std::string H(dsUint32_t handle) {
    return handle == Api().nextHandle ? "" : Number("h", handle);
}

// Fills a field as an unkind server would: with anything behind the terminator, and to the brim without one.
template <std::size_t Size>
void Put(char (&field)[Size], const std::string& text) {
    std::memset(field, '~', Size);
    std::memcpy(field, text.c_str(), std::min(text.size() + 1, Size));
}

void Fill(const DataBlk& block, const Found& found, dsmQueryType type) {
    if (type == qtFilespace) {
        Put(reinterpret_cast<qryRespFSData*>(block.bufferPtr)->fsName, found.fs);
    } else if (type == qtMC) {
        Put(reinterpret_cast<qryRespMCData*>(block.bufferPtr)->mcName, found.mc);
    } else {
        auto& response = *reinterpret_cast<qryRespBackupData*>(block.bufferPtr);
        Put(response.objName.fs, found.fs);
        Put(response.objName.hl, found.hl);
        Put(response.objName.ll, found.ll);
        response.objName.objType = found.type;
        response.copyGroup = found.id + 100;
        response.objId = {0, found.id};
        response.sizeEstimate = {static_cast<dsUint32_t>(found.size >> 32), static_cast<dsUint32_t>(found.size)};
        Put(response.objInfo, found.info);
        Put(response.mcName, found.mc);
        response.insDate = found.date;
    }
}

}  // namespace

thread_local int ApiDouble::inside = 0;

ApiDouble& ApiDouble::Get() {
    static ApiDouble instance;
    return instance;
}

void ApiDouble::Reset() {
    *this = ApiDouble();
}

Lines ApiDouble::TakeCalls() {
    Lines taken;
    taken.swap(calls_);
    return taken;
}

Lines ApiDouble::TakeCallNames() {
    Lines names = TakeCalls();
    for (std::string& line : names) line.resize(std::min(line.find(' '), line.size()));
    return names;
}

Answer ApiDouble::Call(const std::string& function, const std::string& arguments) {
    calls_.push_back(function + arguments);
    if (const auto run = std::exchange(meanwhile, nullptr)) run();
    auto& queue = scripted_[function];
    if (queue.empty()) return {0, 0};
    const Answer answer = queue.front();
    queue.pop_front();
    return answer;
}

extern "C" {

// Writes the call down with its arguments and gives its answer.
#define ANSWER(arguments)           \
    const ApiDouble::Inside inside; \
    return Api().Call(__func__, arguments).rc
#define ONLY_A_HANDLE(function)             \
    dsInt16_t function(dsUint32_t handle) { \
        ANSWER(H(handle));                  \
    }
ONLY_A_HANDLE(dsmTerminate)
ONLY_A_HANDLE(dsmEndQuery)
ONLY_A_HANDLE(dsmBeginTxn)
ONLY_A_HANDLE(dsmEndSendObj)
ONLY_A_HANDLE(dsmEndGetObj)
ONLY_A_HANDLE(dsmEndGetData)

void dsmQueryApiVersionEx(dsmApiVersionEx* version) {
    const ApiDouble::Inside inside;
    Api().Call("dsmQueryApiVersionEx", Number("v", version->stVersion));
    version->version = 8;
    version->release = 1;
}

dsInt16_t dsmSetUp(dsBool_t mtFlag, envSetUp* setUp) {
    ANSWER(Number("mt", mtFlag) + Number("v", setUp->stVersion) + " config=" + Text(setUp->dsmiConfig) +
           " dir=" + Text(setUp->dsmiDir) + " log=" + Text(setUp->dsmiLog) + "/" + Text(setUp->logName) +
           (setUp->argv ? " argv" : ""));
}

dsInt16_t dsmCleanUp(dsBool_t mtFlag) {
    ANSWER(Number("mt", mtFlag));
}

dsInt16_t dsmInitEx(dsUint32_t* handle, dsmInitExIn_t* in, dsmInitExOut_t* out) {
    const ApiDouble::Inside inside;
    const Answer answer =
        Api().Call("dsmInitEx", Number("v", in->stVersion) + Number("out", out->stVersion) +
                                    Number("api", in->apiVersionExP->version) + " node=" + Text(in->clientNodeNameP) +
                                    " owner=" + Text(in->clientOwnerNameP) + " password=" + Text(in->clientPasswordP) +
                                    " user=" + Text(in->userNameP) + " userPassword=" + Text(in->userPasswordP) +
                                    " app=" + Text(in->applicationTypeP) + " config=" + Text(in->configfile) +
                                    " options=" + Text(in->options) + " delimiter=" + in->dirDelimiter +
                                    Number("unicode", in->useUnicode));
    if (answer.rc == 0) *handle = Api().nextHandle;
    return answer.rc;
}

dsInt16_t dsmRCMsg(dsUint32_t, dsInt16_t rc, char* msg) {
    const ApiDouble::Inside inside;
    std::memset(msg, 'm', DSM_MAX_RC_MSG_LENGTH);  // the longest one
    std::strcpy(msg + DSM_MAX_RC_MSG_LENGTH - 3, std::to_string(rc).c_str());
    return Api().Call("dsmRCMsg").rc;
}

dsInt16_t dsmRegisterFS(dsUint32_t handle, regFSData* data) {
    ANSWER(H(handle) + Number("v", data->stVersion) + " " + Text(data->fsName) + " " + Text(data->fsType) + " " +
           Text(data->occupancy) + " " + Text(data->capacity) + " " + Field(data->fsAttr.unixFSAttr.fsInfo) +
           Number("length", data->fsAttr.unixFSAttr.fsInfoLength));
}

dsInt16_t dsmDeleteFS(dsUint32_t handle, char* fsName, dsUint8_t repository) {
    ANSWER(H(handle) + " " + Text(fsName) + Number("repository", repository));
}

dsInt16_t dsmSetAccess(dsUint32_t handle, dsmAccessType type, dsmObjName* name, char* node, char* owner) {
    ANSWER(H(handle) + Number("access", type) + " " + Text(name) + " node=" + Text(node) + " owner=" + Text(owner));
}

dsInt16_t dsmBeginQuery(dsUint32_t handle, dsmQueryType type, dsmQueryBuff* what) {
    const ApiDouble::Inside inside;
    std::string arguments = H(handle) + Number("q", type);
    if (type == qtFilespace) {
        const auto* query = static_cast<qryFSData*>(what);
        arguments += Number("v", query->stVersion) + " " + Text(query->fsName);
    } else if (type == qtMC) {
        const auto* query = static_cast<qryMCData*>(what);
        arguments += Number("v", query->stVersion) + " " + Text(query->mcName) + Number("detail", query->mcDetail);
    } else {
        const auto* query = static_cast<qryBackupData*>(what);
        arguments += Number("v", query->stVersion) + " " + Text(query->objName) + Number("state", query->objState) +
                     " at=" + Text(query->pitDate) + (query->owner ? " owner" : "");
    }
    const Answer answer = Api().Call("dsmBeginQuery", arguments);
    if (answer.rc == 0) {
        Api().queryType = type;
        Api().next = 0;
        Api().current = {{}, DSM_RC_FINISHED};
        if (!Api().sets.empty()) {
            Api().current = Api().sets.front();
            Api().sets.pop_front();
        }
    }
    return answer.rc;
}

// Only the end of a query is written down, with the size and version of the response buffer, which is to be zero.
dsInt16_t dsmGetNextQObj(dsUint32_t handle, DataBlk* block) {
    const ApiDouble::Inside inside;
    const std::string_view bytes(block->bufferPtr + sizeof(dsUint16_t), block->bufferLen - sizeof(dsUint16_t));
    if (Api().next < Api().current.found.size()) {
        if (Api().next == 0 && bytes.find_first_not_of('\0') != bytes.npos) Api().Call("dsmGetNextQObj", " unclean");
        Fill(*block, Api().current.found[Api().next++], Api().queryType);
        return DSM_RC_MORE_DATA;
    }
    const auto version = *reinterpret_cast<dsUint16_t*>(block->bufferPtr);
    Api().Call("dsmGetNextQObj", H(handle) + Number("v", block->stVersion) + Number("length", block->bufferLen) +
                                     Number("response", version));
    return Api().current.end;
}

dsInt16_t dsmBindMC(dsUint32_t handle, dsmObjName* name, dsmSendType type, mcBindKey* key) {
    ANSWER(H(handle) + " " + Text(name) + Number("send", type) + Number("v", key->stVersion) +
           " mc=" + Field(key->mcName));
}

dsInt16_t dsmEndTxn(dsUint32_t handle, dsUint8_t vote, dsUint16_t* reason) {
    const ApiDouble::Inside inside;
    const Answer answer = Api().Call("dsmEndTxn", H(handle) + Number("vote", vote) + Number("reason", *reason));
    *reason = answer.reason;
    return answer.rc;
}

dsInt16_t dsmSendObj(dsUint32_t handle, dsmSendType type, void* sendBuff, dsmObjName* name, ObjAttr* attr,
                     DataBlk* block) {
    ANSWER(H(handle) + Number("send", type) + (sendBuff ? " buffer" : "") + " " + Text(name) +
           Number("v", attr->stVersion) + " owner=" + Text(attr->owner) + " size=" + Text(attr->sizeEstimate) +
           Number("compressed", attr->objCompressed) +
           " info=" + (attr->objInfoLength > 100 ? "long" : Text(attr->objInfo)) +
           Number("length", attr->objInfoLength) + " mc=" + Text(attr->mcNameP) + (block ? " block" : ""));
}

dsInt16_t dsmSendData(dsUint32_t handle, DataBlk* block) {
    const ApiDouble::Inside inside;
    const std::string offered(block->bufferPtr, block->bufferLen);
    Api().lastSent = block->bufferPtr;
    if (block->bufferPtr != Api().firstPass) {
        Api().firstPass = block->bufferPtr;
        Api().firstPassLength = block->bufferLen;
    }
    // What follows the bytes of a later pass.
    const std::string tail(block->bufferPtr + block->bufferLen, Api().firstPassLength - block->bufferLen);
    const bool clean = tail.find_first_not_of('\0') == std::string::npos;
    const Answer answer = Api().Call("dsmSendData", H(handle) + Number("v", block->stVersion) + " '" + offered + "'" +
                                                        Number("length", block->bufferLen) + (clean ? "" : " unclean"));
    if (answer.rc == 0) {
        block->numBytes = block->bufferLen;
        if (!Api().acceptedBytes.empty()) {
            block->numBytes = Api().acceptedBytes.front();
            Api().acceptedBytes.pop_front();
        }
    }
    if (answer.rc != 0 || block->numBytes == block->bufferLen) Api().firstPass = nullptr;
    return answer.rc;
}

dsInt16_t dsmBeginGetData(dsUint32_t handle, dsBool_t mountWait, dsmGetType type, dsmGetList* list) {
    ANSWER(H(handle) + Number("wait", mountWait) + Number("get", type) + Number("v", list->stVersion) +
           Number("n", list->numObjId) + " " + Text(*list->objId) + (list->partialObjData ? " partial" : ""));
}

dsInt16_t dsmGetObj(dsUint32_t handle, ObjID* objId, DataBlk* block) {
    ANSWER(H(handle) + " " + Text(*objId) + (block ? " block" : ""));
}

dsInt16_t dsmGetData(dsUint32_t handle, DataBlk* block) {
    const ApiDouble::Inside inside;
    const Answer answer =
        Api().Call("dsmGetData", H(handle) + Number("v", block->stVersion) + Number("length", block->bufferLen) +
                                     Number("got", block->numBytes));
    if (!Api().chunks.empty()) {
        const std::string& chunk = Api().chunks.front();
        std::memcpy(block->bufferPtr, chunk.data(), std::min<std::size_t>(chunk.size(), block->bufferLen));
        block->numBytes = static_cast<dsUint32_t>(chunk.size());
        Api().chunks.pop_front();
    }
    return answer.rc;
}

dsInt16_t dsmDeleteObj(dsUint32_t handle, dsmDelType type, dsmDelInfo info) {
    const ApiDouble::Inside inside;
    std::string arguments = H(handle) + Number("del", type);
    if (type == dtBackup) {
        const dsmObjName& name = *info.backInfo.objNameP;  // the server's own, with what follows its texts
        arguments += Number("v", info.backInfo.stVersion) + " " + Text(name.fs) + " " + Text(name.hl) + " " +
                     Text(name.ll) + Number("type", name.objType) + Number("group", info.backInfo.copyGroup);
    } else {
        arguments += Number("v", info.backIDInfo.stVersion) + " " + Text(info.backIDInfo.objId);
    }
    return Api().Call("dsmDeleteObj", arguments).rc;
}

dsInt16_t dsmRenameObj(dsmRenameIn_t* in, dsmRenameOut_t* out) {
    ANSWER(H(in->dsmHandle) + Number("v", in->stVersion) + Number("out", out->stVersion) +
           Number("repository", in->repository) + " " + Text(in->objNameP) + " to " + Field(in->newHl) + " " +
           Field(in->newLl) + Number("merge", in->merge) + " id=" + Text(in->objId));
}

}  // extern "C"
