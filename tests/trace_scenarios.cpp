// Makes random calls of the client API: hosts that know what they do, and hosts that do not.
// Usage: trace_scenarios OPTIONSFILE FIRST COUNT
// Each scenario has a node and a filespace of its own, so that all of them fit into one store.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "dsmapifp.h"
#include "dsmrc.h"

namespace {

class Scenario {
public:
    explicit Scenario(unsigned seed) : random_(seed), tag_(std::to_string(seed)) {}

    void Run() {
        SignOn();
        if (Of(20) > 0) Register();
        for (int steps = Of(24); steps > 0; --steps) Step();
        for (const dsUint32_t handle : handles_) dsmTerminate(handle);
    }

private:
    int Of(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
    dsUint32_t Handle() {
        return Of(80) == 0 ? 1000000 : handles_.empty() ? 7 : handles_[Of(5) == 0 ? random_() % handles_.size() : 0];
    }

    void SignOn() {
        std::string node = Of(60) == 0 ? std::string(70, 'n') : "NODE" + tag_;
        std::string password = Of(6) == 0 && !handles_.empty() ? "PLANTED-wrong" : "PLANTED-password";
        std::string options = "-password=PLANTED-option", user = "PLANTED-user";
        dsmInitExIn_t in = {};
        in.stVersion = 5;
        in.clientNodeNameP = Of(60) == 0 ? nullptr : node.data();
        in.clientPasswordP = password.data();
        in.options = options.data();
        in.userPasswordP = user.data();
        dsmInitExOut_t out = {};
        dsUint32_t handle = 0;
        if (dsmInitEx(&handle, &in, &out) == 0) handles_.push_back(handle);
    }
    void Register() {
        std::string name = "/fs" + tag_ + (!handles_.empty() && Of(20) == 0 ? "b" : ""), type = "NTFS";
        regFSData data = {};
        data.stVersion = regFSDataVersion;
        data.fsName = Of(60) == 0 ? nullptr : name.data();
        data.fsType = type.data();
        dsmRegisterFS(Handle(), &data);
    }
    // Few names, so that they meet; some are not UTF-8, some need escapes in JSON.
    dsmObjName Name(bool pattern = false) {
        static const std::array<const char*, 7> names = {"/a",           "/b", "/\xC3\xA4", "/\xFF\xC0\x80",
                                                         "/q\"\\\n\x01", "/*", "/?"};
        dsmObjName name = {};
        std::snprintf(name.fs, sizeof name.fs, "/fs%s%s", tag_.c_str(), Of(60) == 0 ? "none" : "");
        std::strcpy(name.hl, Of(2) == 0 ? "" : names[Of(4) == 0 ? random_() % (pattern ? 6 : 5) : 0]);
        std::strcpy(name.ll, names[Of(3) == 0 ? random_() % (pattern ? 7 : 5) : random_() % 2]);
        name.objType = static_cast<dsUint8_t>(pattern && Of(2) == 0 ? DSM_OBJ_ANY_TYPE
                                              : Of(4) == 0          ? DSM_OBJ_DIRECTORY
                                                                    : DSM_OBJ_FILE);
        return name;
    }
    DataBlk Block(void* bytes, std::size_t size) {
        return {DataBlkVersion, static_cast<dsUint32_t>(size), 0, static_cast<char*>(bytes)};
    }
    void Bind(dsUint32_t handle, dsmObjName& name) {
        mcBindKey key = {};
        key.stVersion = mcBindKeyVersion;
        dsmBindMC(handle, Of(60) == 0 ? nullptr : &name, stBackup, &key);
    }
    void Announce(dsUint32_t handle, dsmObjName& name) {
        std::string info(static_cast<std::size_t>(Of(40)), 'i'), mgmtClass = Of(9) > 0 ? "LONG" : "NONE";
        info += "PLANTED-info";
        ObjAttr attr = {};
        attr.stVersion = ObjAttrVersion;
        attr.sizeEstimate.lo = static_cast<dsUint32_t>(Of(9));
        attr.objInfo = info.data();
        attr.objInfoLength = static_cast<dsUint16_t>(info.size());
        attr.mcNameP = Of(4) == 0 ? mgmtClass.data() : nullptr;
        dsmSendObj(handle, stBackup, nullptr, Of(60) == 0 ? nullptr : &name, Of(60) == 0 ? nullptr : &attr, nullptr);
    }
    void Send(dsUint32_t handle) {
        std::string bytes;
        while (Of(4) != 0) bytes += "PLANTED-data-" + std::to_string(random_());
        DataBlk block = Block(Of(60) == 0 ? nullptr : bytes.data(), bytes.size());
        dsmSendData(handle, Of(60) == 0 ? nullptr : &block);
    }
    void End(dsUint32_t handle) {
        dsUint16_t reason = 0;
        dsmEndTxn(handle,
                  static_cast<dsUint8_t>(Of(20) == 0  ? 7
                                         : Of(8) == 0 ? DSM_VOTE_ABORT
                                                      : DSM_VOTE_COMMIT),
                  Of(60) == 0 ? nullptr : &reason);
    }
    void Query(dsUint32_t handle, dsmQueryType type, void* query, std::size_t size) {
        if (dsmBeginQuery(handle, type, Of(60) == 0 ? nullptr : query) != 0 && Of(9) > 0) return;
        std::vector<char> response(size);
        DataBlk block = Block(response.data(), size);
        int left = Of(4) == 0 ? Of(3) : 20;
        while (left-- > 0 && dsmGetNextQObj(handle, &block) == DSM_RC_MORE_DATA) {
            if (type != qtBackup) continue;
            const auto* const found = reinterpret_cast<const qryRespBackupData*>(response.data());
            ids_.push_back(found->objId);
        }
        if (Of(10) > 0) dsmEndQuery(handle);
    }
    // Mostly an id that a query found.
    ObjID Id(dsUint32_t handle) {
        if (ids_.empty()) {
            dsmObjName all = Name(true);
            std::strcpy(all.hl, "*");
            std::strcpy(all.ll, "/*");
            all.objType = DSM_OBJ_ANY_TYPE;
            List(handle, all);
        }
        return ids_.empty() || Of(15) == 0 ? ObjID{9, 9} : ids_[random_() % ids_.size()];
    }
    void List(dsUint32_t handle, dsmObjName pattern) {
        qryBackupData query = {};
        query.stVersion = qryBackupDataVersion;
        query.objName = &pattern;
        query.objState = static_cast<dsUint8_t>(Of(2) == 0 ? DSM_ACTIVE : DSM_ANY_MATCH);
        if (Of(5) == 0) query.pitDate = {static_cast<dsUint16_t>(Of(2) == 0 ? 1999 : 2999), 5, 6, 7, 8, 9};
        Query(handle, qtBackup, &query, sizeof(qryRespBackupData));
    }

    void Step() {
        const dsUint32_t handle = Handle();
        dsmObjName name = Name();
        switch (Of(18)) {
            case 0:
                return Of(3) == 0 ? SignOn() : Register();
            case 1: {  // calls in any order
                if (Of(2) == 0) Bind(handle, name);
                if (Of(2) == 0) dsmBeginTxn(handle);
                if (Of(2) == 0) Announce(handle, name);
                if (Of(2) == 0) Send(handle);
                if (Of(2) == 0) dsmEndSendObj(handle);
                return End(handle);
            }
            case 5:
            case 6:
                return List(handle, Name(true));
            case 7: {
                std::string all = "*";
                qryFSData spaces = {qryFSDataVersion, all.data()};
                qryMCData classes = {qryMCDataVersion, all.data(), bFalse};
                if (Of(2) == 0) return Query(handle, qtFilespace, &spaces, sizeof(qryRespFSData));
                return Query(handle, qtMC, &classes, sizeof(qryRespMCData));
            }
            case 8: {
                ObjID id = Id(handle);
                dsmGetList list = {dsmGetListVersion, 1, &id, nullptr};
                dsmBeginGetData(handle, bTrue, gtBackup, Of(60) == 0 ? nullptr : &list);
                std::array<char, 40> bytes;
                DataBlk block = Block(bytes.data(), bytes.size());
                dsInt16_t rc = dsmGetObj(handle, &id, nullptr);
                while (rc == DSM_RC_MORE_DATA && Of(15) > 0) rc = dsmGetData(handle, &block);
                dsmEndGetObj(handle);
                dsmEndGetData(handle);
                return;
            }
            case 9: {
                dsmDelInfo info = {};
                const bool byId = Of(2) == 0;
                if (byId) {
                    info.backIDInfo = {delBackIDVersion, Id(handle)};
                } else {
                    info.backInfo = {delBackVersion, &name, 1};
                }
                dsmBeginTxn(handle);
                dsmDeleteObj(handle, byId ? dtBackupID : dtBackup, info);
                return End(handle);
            }
            case 10: {
                const dsmObjName to = Name();
                dsmRenameIn_t in = {1, handle, DSM_BACKUP_REP, &name, "", "", Of(2) == 0 ? bTrue : bFalse, {}};
                std::strcpy(in.newHl, to.hl);
                std::strcpy(in.newLl, to.ll);
                dsmRenameOut_t out = {};
                dsmBeginTxn(handle);
                dsmRenameObj(&in, &out);
                return End(handle);
            }
            case 11: {
                std::array<char, DSM_MAX_RC_MSG_LENGTH + 1> text;
                std::string other = "OTHER", fs = "/fs" + tag_ + "b";
                dsmRCMsg(handle, static_cast<dsInt16_t>(Of(200)), text.data());
                dsmSetAccess(handle, atBackup, &name, other.data(), other.data());
                if (Of(4) == 0) dsmDeleteFS(handle, fs.data(), DSM_REPOS_ALL);
                return;
            }
            default:
                Bind(handle, name);
                dsmBeginTxn(handle);
                Announce(handle, name);
                for (int pieces = Of(3); pieces > 0; --pieces) Send(handle);
                if (Of(15) > 0) dsmEndSendObj(handle);
                return End(handle);
        }
    }

    std::mt19937 random_;
    const std::string tag_;
    std::vector<dsUint32_t> handles_;
    std::vector<ObjID> ids_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    envSetUp setUp = {};
    setUp.stVersion = envSetUpVersion;
    std::snprintf(setUp.dsmiConfig, sizeof setUp.dsmiConfig, "%s", argv[1]);
    dsmApiVersionEx version = {};
    dsmQueryApiVersionEx(&version);
    if (dsmSetUp(bTrue, &setUp) != 0) return 1;
    const auto first = static_cast<unsigned>(std::atoi(argv[2]));
    for (unsigned i = 0; i < static_cast<unsigned>(std::atoi(argv[3])); ++i) Scenario(first + i).Run();
    return dsmCleanUp(bTrue);
}
