// The stand-in through the client API alone, as its callers see it; plus what it must leave on disk.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "dsmapifp.h"
#include "dsmrc.h"
#include "standin/testcontrol.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

template <std::size_t size>
void Set(char (&field)[size], const std::string& text) {
    ASSERT_LT(text.size(), size);
    std::memcpy(field, text.c_str(), text.size() + 1);
}

dsmObjName Name(const std::string& hl, const std::string& ll, int type = DSM_OBJ_FILE) {
    dsmObjName name{};
    Set(name.fs, "/fs");
    Set(name.hl, hl);
    Set(name.ll, ll);
    name.objType = static_cast<dsUint8_t>(type);
    return name;
}

DataBlk Block(void* bytes, std::size_t size) {
    return {DataBlkVersion, static_cast<dsUint32_t>(size), 0, static_cast<char*>(bytes)};
}

// One signed-on session and the shortest way to each operation.
struct Host {
    explicit Host(std::string node = "NODE", std::string password = "pw") {
        dsmInitExIn_t in{};
        dsmInitExOut_t out{};
        in.clientNodeNameP = node.data();
        in.clientPasswordP = password.data();
        rc = dsmInitEx(&handle, &in, &out);
    }
    ~Host() { dsmTerminate(handle); }

    int Register(std::string name = "/fs") const {
        regFSData data{};
        std::string type = "NTFS";
        data.fsName = name.data();
        data.fsType = type.data();
        return dsmRegisterFS(handle, &data);
    }

    int Announce(dsmObjName name, std::size_t size, std::string info = "", const char* mgmtClass = nullptr) const {
        mcBindKey key{};
        EXPECT_EQ(dsmBindMC(handle, &name, stBackup, &key), 0);
        ObjAttr attr{};
        std::string copy = mgmtClass ? mgmtClass : "";
        attr.sizeEstimate = {0, static_cast<dsUint32_t>(size)};
        attr.objInfo = info.data();
        attr.objInfoLength = static_cast<dsUint16_t>(info.size());
        attr.mcNameP = mgmtClass ? copy.data() : nullptr;
        return dsmSendObj(handle, stBackup, nullptr, &name, &attr, nullptr);
    }

    int Send(std::string bytes) const {
        DataBlk block = Block(bytes.data(), bytes.size());
        return dsmSendData(handle, &block);
    }

    // 0, or the reason.
    int End(int vote = DSM_VOTE_COMMIT) const {
        dsUint16_t reason = 0;
        const int end = dsmEndTxn(handle, static_cast<dsUint8_t>(vote), &reason);
        EXPECT_EQ(end, reason == 0 ? 0 : DSM_RC_CHECK_REASON_CODE);
        return reason;
    }

    // Does the work in a transaction of its own; its failure, or the reason of the end's.
    template <class Work>
    int Transact(Work work) const {
        EXPECT_EQ(dsmBeginTxn(handle), 0);
        const int done = work();
        const int reason = End();
        return done != 0 ? done : reason;
    }

    // The object is left open, or is complete.
    void Begin(const dsmObjName& name, const std::string& bytes, const std::string& info = "") const {
        EXPECT_EQ(Announce(name, bytes.size(), info), 0);
        EXPECT_EQ(Send(bytes), 0);
    }
    int Put(const dsmObjName& name, const std::string& bytes, const std::string& info = "") const {
        return Transact([&] {
            Begin(name, bytes, info);
            return dsmEndSendObj(handle);
        });
    }

    std::vector<qryRespBackupData> List(dsmObjName name, int state = DSM_ANY_MATCH, dsmDate moment = {}) const {
        qryBackupData query{qryBackupDataVersion, &name, nullptr, static_cast<dsUint8_t>(state), moment};
        EXPECT_EQ(dsmBeginQuery(handle, qtBackup, &query), 0);
        qryRespBackupData record;
        DataBlk block = Block(&record, sizeof record);
        std::vector<qryRespBackupData> found;
        int next;
        while ((next = dsmGetNextQObj(handle, &block)) == DSM_RC_MORE_DATA) found.push_back(record);
        EXPECT_EQ(next, found.empty() ? DSM_RC_ABORT_NO_MATCH : DSM_RC_FINISHED);
        EXPECT_EQ(dsmEndQuery(handle), 0);
        return found;
    }

    std::string Get(ObjID id, std::size_t piece = 1000) const {
        dsmGetList list{dsmGetListVersion, 1, &id, nullptr};
        EXPECT_EQ(dsmBeginGetData(handle, bTrue, gtBackup, &list), 0);
        std::string bytes;
        for (int got = dsmGetObj(handle, &id, nullptr); got != DSM_RC_FINISHED;) {
            std::string buffer(piece, '\0');
            DataBlk block = Block(buffer.data(), piece);
            got = dsmGetData(handle, &block);
            EXPECT_TRUE(got == DSM_RC_MORE_DATA || got == DSM_RC_FINISHED) << got;
            if (got != DSM_RC_MORE_DATA && got != DSM_RC_FINISHED) break;
            bytes.append(buffer, 0, block.numBytes);
        }
        EXPECT_EQ(dsmEndGetObj(handle), 0);
        EXPECT_EQ(dsmEndGetData(handle), 0);
        return bytes;
    }

    // What is stored under the names, one text a version: the bytes, with a * behind those of an active one.
    Texts Contents(const dsmObjName& name, dsmDate moment = {}) const {
        Texts texts;
        for (const auto& v : List(name, DSM_ANY_MATCH, moment)) {
            texts.push_back(Get(v.objId) + (v.objState == DSM_ACTIVE ? "*" : ""));
        }
        return texts;
    }

    int Delete(dsmObjName name) const {
        dsmDelInfo info{};
        info.backInfo = {delBackVersion, &name, 1};
        return Transact([&] { return dsmDeleteObj(handle, dtBackup, info); });
    }

    int DeleteVersion(ObjID id) const {
        dsmDelInfo info{};
        info.backIDInfo = {delBackIDVersion, id};
        return Transact([&] { return dsmDeleteObj(handle, dtBackupID, info); });
    }

    int Rename(dsmObjName from, const dsmObjName& to, dsBool_t merge) const {
        dsmRenameIn_t in{1, handle, DSM_BACKUP_REP, &from, "", "", merge, {}};
        dsmRenameOut_t out{};
        Set(in.newHl, to.hl);
        Set(in.newLl, to.ll);
        return Transact([&] { return dsmRenameObj(&in, &out); });
    }

    dsUint32_t handle = 0;
    int rc = 0;
};

class StandIn : public testing::Test {
protected:
    StandIn() {
        std::string pattern = (fs::temp_directory_path() / "standin-XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
        EXPECT_EQ(SetUpWith("STOREDIR store\n"), 0);
    }
    ~StandIn() override {
        standinReset();
        EXPECT_EQ(dsmCleanUp(bTrue), 0);
        fs::remove_all(dir_);
    }

    int SetUpWith(const std::string& options) const {
        std::ofstream(dir_ / "dsm.opt") << options;
        envSetUp setUp{};
        Set(setUp.dsmiConfig, (dir_ / "dsm.opt").string());
        Set(setUp.dsmiLog, dir_.string());
        return dsmSetUp(bTrue, &setUp);
    }

    std::size_t Files(const char* folder) const {
        std::size_t files = 0;
        for (const auto& e : fs::recursive_directory_iterator(dir_ / "store" / folder)) files += e.is_regular_file();
        return files;
    }

    fs::path dir_;
};

TEST_F(StandIn, OptionsFile) {
    const std::map<std::string, int> files = {
        {"* comment\n\n  storedir \"a b\"\r\nBackDelete no\nMGMTCLASS X some words\nMGMTCLASS Y", 0},
        {"STOREDIR\n", DSM_RC_INVALID_PARM},
        {"STOREDIR s\nPASSWORD=secret x\n", DSM_RC_INVALID_PARM},
        {"STOREDIR s\nBACKDELETE secret\n", DSM_RC_INVALID_PARM},
        {"STOREDIR s\nMGMTCLASS " + std::string(31, 'M') + "\n", DSM_RC_INVALID_PARM},
        {"STOREDIR dsm.opt/below\n", DSM_RC_ABORT_SYSTEM_ERROR},
    };
    for (const auto& [text, rc] : files) EXPECT_EQ(SetUpWith(text), rc) << text;
    EXPECT_TRUE(fs::exists(dir_ / "a b" / "catalogue.db"));
    std::ifstream log(dir_ / "dsierror.log");
    std::size_t lines = 0;
    for (std::string line; std::getline(log, line); ++lines) EXPECT_EQ(line.find("secret"), line.npos) << line;
    EXPECT_EQ(lines, 5U);

    envSetUp missing{};
    Set(missing.dsmiConfig, (dir_ / "none.opt").string());
    EXPECT_EQ(dsmSetUp(bTrue, &missing), DSM_RC_INVALID_PARM);
    setenv("TSM_STANDIN_STORE", (dir_ / "from-environment").c_str(), 1);
    EXPECT_EQ(dsmSetUp(bTrue, nullptr), 0);
    unsetenv("TSM_STANDIN_STORE");
    EXPECT_TRUE(fs::exists(dir_ / "from-environment" / "catalogue.db"));
}

TEST_F(StandIn, SignOn) {
    const Host first, second, stranger("NODE", "other"), other("OTHER", "");
    EXPECT_EQ(first.rc, 0);
    EXPECT_GT(first.handle, 0U);
    EXPECT_GT(second.handle, first.handle);
    EXPECT_EQ(stranger.rc, DSM_RC_AUTH_FAILURE);
    EXPECT_EQ(first.Register(), 0);
    EXPECT_EQ(second.Register(), DSM_RC_FS_ALREADY_REGED);
    EXPECT_EQ(first.Put(Name("/d", "/f"), "x"), 0);
    EXPECT_TRUE(other.List(Name("*", "*", DSM_OBJ_ANY_TYPE)).empty());
    EXPECT_EQ(other.DeleteVersion(first.List(Name("/d", "/f")).at(0).objId), DSM_RC_ABORT_NO_MATCH);
    EXPECT_EQ(dsmBeginTxn(other.handle), 0);
    EXPECT_EQ(other.Announce(Name("/d", "/f"), 1), DSM_RC_FS_NOT_REGISTERED);

    std::ifstream file(dir_ / "store" / "catalogue.db", std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    EXPECT_EQ(bytes.find("pw"), std::string::npos);
    EXPECT_EQ(dsmCleanUp(bTrue), 0);
    EXPECT_EQ(dsmBeginTxn(first.handle), DSM_RC_INVALID_DS_HANDLE);
    EXPECT_EQ(Host().rc, DSM_RC_BAD_CALL_SEQUENCE);
}

TEST_F(StandIn, FilespacesAndClasses) {
    ASSERT_EQ(SetUpWith("STOREDIR store\nMGMTCLASS FIRST the default\nMGMTCLASS LONGTERM\n"), 0);
    const Host host;
    for (const char* name : {"/b", "/fs", "/a"}) EXPECT_EQ(host.Register(name), 0);
    ASSERT_EQ(host.Put(Name("/d", "/f"), "bytes"), 0);
    EXPECT_STREQ(host.List(Name("/d", "/f")).at(0).mcName, "FIRST");
    EXPECT_EQ(host.Transact([&] { return host.Announce(Name("/d", "/f"), 1, "", "OTHER"); }), DSM_RC_INVALID_MCNAME);
    EXPECT_EQ(host.Transact([&] { return host.Announce(Name("/d", "/f"), 1, "", "LONGTERM"); }), 0);

    const auto names = [&](dsmQueryType type, std::string pattern) {
        qryFSData filespaces{qryFSDataVersion, pattern.data()};
        qryMCData classes{qryMCDataVersion, pattern.data(), bFalse};
        EXPECT_EQ(dsmBeginQuery(host.handle, type, type == qtMC ? static_cast<void*>(&classes) : &filespaces), 0);
        qryRespFSData record;  // its name stands where that of a class does
        DataBlk block = Block(&record, sizeof record);
        Texts found;
        while (dsmGetNextQObj(host.handle, &block) == DSM_RC_MORE_DATA) found.push_back(record.fsName);
        return found;
    };
    EXPECT_EQ(names(qtFilespace, "*"), (Texts{"/a", "/b", "/fs"}));
    EXPECT_EQ(names(qtFilespace, "/f?"), (Texts{"/fs"}));
    EXPECT_EQ(names(qtMC, ""), (Texts{"FIRST", "LONGTERM"}));
    EXPECT_EQ(names(qtMC, "LONGTERM"), (Texts{"LONGTERM"}));

    std::string name = "/fs";
    EXPECT_EQ(dsmDeleteFS(host.handle, name.data(), DSM_REPOS_ALL), 0);
    EXPECT_EQ(dsmDeleteFS(host.handle, name.data(), DSM_REPOS_ALL), DSM_RC_FS_NOT_REGISTERED);
    EXPECT_EQ(Files("data") + host.List(Name("*", "*")).size(), 0U);
}

// Which calls each state takes: the rules of the sequence, call by call.
TEST_F(StandIn, CallSequence) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    ASSERT_EQ(host.Put(Name("/d", "/f"), "bytes"), 0);
    ObjID id = host.List(Name("/d", "/f")).at(0).objId;
    dsmObjName name = Name("/d", "/f");
    const dsUint32_t h = host.handle;
    char bytes[sizeof(qryRespBackupData)];
    DataBlk block = Block(bytes, sizeof bytes), tiny = Block(bytes, 1);
    dsUint16_t reason = 0;
    mcBindKey key{};
    ObjAttr attr{};
    attr.sizeEstimate = {0, 5};
    dsmGetList list{dsmGetListVersion, 1, &id, nullptr};
    qryBackupData query{qryBackupDataVersion, &name, nullptr, DSM_ANY_MATCH, {}};
    dsmDelInfo deletion{};
    deletion.backInfo = {delBackVersion, &name, 1};
    dsmRenameIn_t renaming{1, h, DSM_BACKUP_REP, &name, "/d", "/f", bFalse, {}};
    dsmRenameOut_t renamed{};

    const std::map<std::string, std::function<int()>> calls = {
        {"BeginQuery", [&] { return dsmBeginQuery(h, qtBackup, &query); }},
        {"GetNextQObj", [&] { return dsmGetNextQObj(h, &block); }},
        {"EndQuery", [&] { return dsmEndQuery(h); }},
        {"BindMC", [&] { return dsmBindMC(h, &name, stBackup, &key); }},
        {"BeginTxn", [&] { return dsmBeginTxn(h); }},
        {"EndTxn", [&] { return dsmEndTxn(h, DSM_VOTE_COMMIT, &reason); }},
        {"SendObj", [&] { return dsmSendObj(h, stBackup, nullptr, &name, &attr, nullptr); }},
        {"SendData", [&] { return dsmSendData(h, &tiny); }},
        {"EndSendObj", [&] { return dsmEndSendObj(h); }},
        {"DeleteObj", [&] { return dsmDeleteObj(h, dtBackup, deletion); }},
        {"RenameObj", [&] { return dsmRenameObj(&renaming, &renamed); }},
        {"BeginGetData", [&] { return dsmBeginGetData(h, bTrue, gtBackup, &list); }},
        {"GetObj", [&] { return dsmGetObj(h, &id, nullptr); }},
        {"GetData", [&] { return dsmGetData(h, &tiny); }},
        {"EndGetObj", [&] { return dsmEndGetObj(h); }},
        {"EndGetData", [&] { return dsmEndGetData(h); }},
        {"RegisterFS", [&] { return host.Register(); }},
    };
    const std::string begins = "BeginQuery BindMC BeginTxn BeginGetData RegisterFS ";
    const std::string changes = "BindMC EndTxn SendObj DeleteObj RenameObj ";
    // The calls that lead to a state (after a binding), and those that are in order there.
    const std::vector<std::pair<std::string, std::string>> states = {
        {"", begins},
        {"BeginQuery ", "GetNextQObj EndQuery "},
        {"BeginQuery GetNextQObj GetNextQObj ", begins + "EndQuery "},
        {"BeginQuery GetNextQObj GetNextQObj EndQuery ", begins},
        {"BeginTxn ", changes},
        {"BeginTxn SendObj ", "EndTxn SendData EndSendObj "},
        {"BeginTxn SendObj EndSendObj ", changes},
        {"BeginTxn SendObj SendData EndTxn ", begins},
        {"BeginGetData ", "GetObj EndGetData "},
        {"BeginGetData GetObj ", "GetData EndGetObj EndGetData "},
        {"BeginGetData GetObj GetData GetData GetData GetData GetData ", "EndGetObj EndGetData "},
        {"BeginGetData GetObj EndGetObj ", "GetObj EndGetData "},
        {"BeginGetData GetObj EndGetData ", begins},
    };
    const auto reset = [&] {
        dsmEndQuery(h);
        dsmEndTxn(h, DSM_VOTE_ABORT, &reason);
        dsmEndGetData(h);
    };
    for (const auto& [way, allowed] : states) {
        for (const auto& [call, make] : calls) {
            SCOPED_TRACE(way + "then " + call);
            reset();
            ASSERT_EQ(calls.at("BindMC")(), 0);
            std::istringstream steps(way);
            for (std::string step; steps >> step;) ASSERT_NE(calls.at(step)(), DSM_RC_BAD_CALL_SEQUENCE) << step;
            const bool inOrder = (" " + allowed).find(" " + call + " ") != std::string::npos;
            EXPECT_EQ(make() != DSM_RC_BAD_CALL_SEQUENCE, inOrder);
        }
    }
    reset();
    name = Name("/d", "/unbound");
    ASSERT_EQ(dsmBeginTxn(h), 0);
    EXPECT_EQ(calls.at("SendObj")(), DSM_RC_BAD_CALL_SEQUENCE);
    reset();
}

TEST_F(StandIn, BadArguments) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    const dsUint32_t h = host.handle;
    dsmObjName name = Name("/d", "/f"), unterminated = name;
    std::memset(unterminated.ll, 'x', sizeof unterminated.ll);
    mcBindKey key{};
    qryBackupData query{qryBackupDataVersion, &name, nullptr, DSM_ANY_MATCH, {}};
    char byte = 0;
    DataBlk none = Block(nullptr, 1), small = Block(&byte, 1), old = Block(&byte, 1);
    old.stVersion = 0;
    EXPECT_EQ(dsmInitEx(nullptr, nullptr, nullptr), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmRenameObj(nullptr, nullptr), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmRegisterFS(h, nullptr), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmBeginGetData(h, bTrue, gtBackup, nullptr), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmBindMC(h, nullptr, stBackup, &key), DSM_RC_NULL_OBJNAME);
    EXPECT_EQ(dsmBindMC(h, &unterminated, stBackup, &key), DSM_RC_STRING_TOO_LONG);
    EXPECT_EQ(dsmBeginQuery(h, qtBackup, nullptr), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmBeginQuery(h, qtArchive, &query), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmBeginQuery(h + 1, qtBackup, &query), DSM_RC_INVALID_DS_HANDLE);
    ASSERT_EQ(dsmBeginQuery(h, qtBackup, &query), 0);
    EXPECT_EQ(dsmGetNextQObj(h, nullptr), DSM_RC_NULL_DATABLKPTR);
    EXPECT_EQ(dsmGetNextQObj(h, &none), DSM_RC_NULL_BUFPTR);
    EXPECT_EQ(dsmGetNextQObj(h, &small), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmGetNextQObj(h, &old), DSM_RC_INVALID_PARM);
    EXPECT_EQ(dsmEndQuery(h), 0);
    ASSERT_EQ(dsmBeginTxn(h), 0);
    EXPECT_EQ(dsmEndTxn(h, DSM_VOTE_COMMIT, nullptr), DSM_RC_INVALID_PARM);
    dsUint16_t reason = 0;
    EXPECT_EQ(dsmEndTxn(h, 3, &reason), DSM_RC_INVALID_VOTE);
    ASSERT_EQ(host.Announce(name, 0), 0);
    EXPECT_EQ(host.Send(""), 0);
    EXPECT_EQ(host.Send("x"), DSM_RC_WRONG_SIZE_ESTIMATE);
    EXPECT_EQ(host.End(DSM_VOTE_ABORT), DSM_RC_ABORT_BY_CLIENT);
    char message[DSM_MAX_RC_MSG_LENGTH + 1];
    EXPECT_EQ(dsmRCMsg(h, DSM_RC_INVALID_VOTE, message), 0);
    EXPECT_EQ(std::string(message).rfind("DSM_RC_INVALID_VOTE (2011): ", 0), 0U);
}

TEST_F(StandIn, StreamsOfEverySize) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    for (const std::size_t size : {0U, 1U, 999U, 1000U, 1001U, 2000U, 300000U}) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
        const dsmObjName name = Name("", "/" + std::to_string(size));
        ASSERT_EQ(dsmBeginTxn(host.handle), 0);
        ASSERT_EQ(host.Announce(name, size + 7, std::string(2000, 'i')), 0);
        for (std::size_t at = 0; at < size; at += 4096) ASSERT_EQ(host.Send(bytes.substr(at, 4096)), 0);
        ASSERT_EQ(dsmEndSendObj(host.handle), 0);
        ASSERT_EQ(host.End(), 0);
        const auto found = host.List(name);
        ASSERT_EQ(found.size(), 1U);
        EXPECT_EQ(found[0].sizeEstimate.lo, size + 7);
        EXPECT_EQ(found[0].objInfolen, DSM_MAX_EXT_OBJINFO_LENGTH);
        EXPECT_EQ(std::string(found[0].objInfo), std::string(1535, 'i'));
        EXPECT_TRUE(host.Get(found[0].objId, 1000) == bytes) << size;
    }
    EXPECT_EQ(Files("data"), 6U);  // none for the empty object
    EXPECT_EQ(Files("incoming"), 0U);
}

TEST_F(StandIn, Patterns) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    for (const char* path :
         {"|/f", "|/[f]", "/a|/f", "/a|/ff", "/a/b|/f", "/a\xff|/f", "/a\xff\xff|/\xc3\xa4", "/b|/f"}) {
        const std::string text = path;
        const std::size_t bar = text.find('|');
        ASSERT_EQ(host.Put(Name(text.substr(0, bar), text.substr(bar + 1)), "x"), 0);
    }
    ASSERT_EQ(host.Put(Name("/a", "/f", DSM_OBJ_DIRECTORY), ""), 0);
    const int any = DSM_OBJ_ANY_TYPE;
    const std::vector<std::tuple<const char*, const char*, int, Texts>> cases = {
        {"", "/*", any, {"/[f]", "/f"}},
        {"", "/[f]", any, {"/[f]"}},
        {"/a", "/f", any, {"/a/f", "/a/f"}},
        {"/a", "/f", DSM_OBJ_DIRECTORY, {"/a/f"}},
        {"/a", "/f?", any, {"/a/ff"}},
        {"/a", "/f*", DSM_OBJ_FILE, {"/a/f", "/a/ff"}},
        {"/a*", "/f", DSM_OBJ_FILE, {"/a/f", "/a/b/f", "/a\xff/f"}},
        {"/a\xff*", "*", any, {"/a\xff/f", "/a\xff\xff/\xc3\xa4"}},
        {"*", "/??", any, {"/a/ff", "/a\xff\xff/\xc3\xa4"}},
        {"*/b", "*f", any, {"/a/b/f", "/b/f"}},
        {"?a?b", "**/**f**", any, {"/a/b/f"}},
        {"/A", "*", any, {}},
        {"/a?", "/", any, {}},
    };
    for (const auto& [hl, ll, type, expected] : cases) {
        Texts found;
        for (const auto& v : host.List(Name(hl, ll, type))) {
            found.push_back(std::string(v.objName.hl) + v.objName.ll);
        }
        EXPECT_EQ(found, expected) << hl << " " << ll;
    }
}

TEST_F(StandIn, VersionsAndPointsInTime) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    const dsmObjName name = Name("/d", "/f");
    const auto at = [](int second) { return dsmDate{2021, 3, 7, 9, 5, static_cast<dsUint8_t>(second)}; };
    const auto clock = [](int second) {
        ASSERT_EQ(standinSetClock(("2021-03-07 09:05:" + std::to_string(second)).c_str()), 0);
    };
    clock(10);
    ASSERT_EQ(host.Put(name, "one"), 0);
    clock(20);
    ASSERT_EQ(host.Put(name, "two"), 0);
    ASSERT_EQ(host.Put(name, "three"), 0);
    clock(30);
    ASSERT_EQ(host.Delete(name), 0);
    EXPECT_EQ(host.Delete(name), DSM_RC_ABORT_NO_MATCH);
    clock(40);
    ASSERT_EQ(host.Put(name, "four"), 0);
    const std::map<int, Texts> moments = {{9, {}},         {10, {"one"}}, {19, {"one"}},   {20, {"three"}},
                                          {29, {"three"}}, {30, {}},      {40, {"four*"}}, {59, {"four*"}}};
    for (const auto& [second, texts] : moments) EXPECT_EQ(host.Contents(name, at(second)), texts) << second;

    auto all = host.List(name);
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(std::memcmp(&all[0].expDate, &all[1].insDate, 7), 0);
    EXPECT_EQ(all[2].expDate.second, 30);
    EXPECT_EQ(all[3].expDate.year, 0);
    EXPECT_EQ(host.List(name, DSM_INACTIVE).size(), 3U);
    // Only the removal of an active version gives that state to another one.
    EXPECT_EQ(host.DeleteVersion(all[1].objId), 0);
    EXPECT_EQ(host.Contents(name), (Texts{"one", "three", "four*"}));
    EXPECT_EQ(host.DeleteVersion(all[3].objId), 0);
    EXPECT_EQ(host.Contents(name), (Texts{"one", "three*"}));
    EXPECT_EQ(host.Delete(name), 0);
    EXPECT_EQ(host.DeleteVersion(all[2].objId), 0);
    EXPECT_EQ(host.Contents(name), (Texts{"one"}));
    EXPECT_EQ(Files("data"), 1U);
}

TEST_F(StandIn, Renaming) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    const dsmObjName a = Name("/d", "/a"), b = Name("/e", "/b"), c = Name("/f", "/c");
    ASSERT_EQ(standinSetClock("2021-03-07 09:05:10"), 0);
    for (const char* bytes : {"a1", "a2"}) ASSERT_EQ(host.Put(a, bytes), 0);
    ASSERT_EQ(host.Put(b, "b1"), 0);
    EXPECT_EQ(host.Rename(a, b, bFalse), DSM_RC_ABORT_DUPLICATE_OBJECT);
    EXPECT_EQ(host.Rename(a, a, bFalse), 0);
    EXPECT_EQ(host.Rename(c, b, bFalse), 0);
    EXPECT_EQ(host.Rename(a, c, bFalse), 0);
    EXPECT_EQ(host.Contents(a), Texts{});
    EXPECT_EQ(host.Contents(c), (Texts{"a1", "a2*"}));
    ASSERT_EQ(standinSetClock("2021-03-07 09:05:20"), 0);
    EXPECT_EQ(host.Rename(c, b, bTrue), 0);
    EXPECT_EQ(host.Contents(b), (Texts{"a1", "a2*", "b1"}));
    EXPECT_EQ(host.Contents(b, {2021, 3, 7, 9, 5, 15}).size(), 1U);
}

TEST_F(StandIn, TransactionsAreAllOrNothing) {
    ASSERT_EQ(SetUpWith("STOREDIR store\nBACKDELETE NO\n"), 0);
    const Host host, other;
    ASSERT_EQ(host.Register(), 0);
    const dsmObjName name = Name("/d", "/f");
    ASSERT_EQ(host.Put(name, "kept"), 0);
    EXPECT_EQ(host.DeleteVersion(host.List(name).at(0).objId), DSM_RC_ACCESS_DENIED);

    // An object that is complete, and one still open: what is seen from outside, and what each end leaves.
    const auto begin = [&] {
        ASSERT_EQ(dsmBeginTxn(host.handle), 0);
        host.Begin(Name("/d", "/x"), "new");
        ASSERT_EQ(dsmEndSendObj(host.handle), 0);
        host.Begin(Name("/d", "/y"), "new");
        EXPECT_EQ(Files("incoming"), 2U);
        EXPECT_EQ(other.Contents(Name("*", "*")), (Texts{"kept*"}));
    };
    begin();
    EXPECT_EQ(host.End(DSM_VOTE_ABORT), DSM_RC_ABORT_BY_CLIENT);
    begin();
    ASSERT_EQ(standinFail("dsmSendData", 1, DSM_RC_WILL_ABORT, 12), 0);
    EXPECT_EQ(host.Send("more"), DSM_RC_WILL_ABORT);
    EXPECT_EQ(host.Send("more"), DSM_RC_WILL_ABORT);
    EXPECT_EQ(dsmEndSendObj(host.handle), DSM_RC_WILL_ABORT);
    EXPECT_EQ(host.End(), 12);
    begin();
    ASSERT_EQ(standinFail("dsmEndTxn", 1, 0, 13), 0);
    dsUint16_t reason = 0;
    EXPECT_EQ(dsmEndTxn(host.handle, DSM_VOTE_COMMIT, &reason), 0);
    EXPECT_EQ(reason, 13);
    begin();
    EXPECT_EQ(dsmTerminate(host.handle), 0);
    EXPECT_EQ(other.Contents(Name("*", "*")), (Texts{"kept*"}));
    EXPECT_EQ(Files("data"), 1U);
    EXPECT_EQ(Files("incoming"), 0U);

    // The server moves on between an operation and its commit.
    const Host again;
    std::string filespace = "/fs";
    ASSERT_EQ(dsmBeginTxn(again.handle), 0);
    again.Begin(name, "new");
    ASSERT_EQ(dsmEndSendObj(again.handle), 0);
    ASSERT_EQ(dsmDeleteFS(other.handle, filespace.data(), DSM_REPOS_ALL), 0);
    EXPECT_EQ(again.End(), DSM_RC_FS_NOT_REGISTERED);
    EXPECT_EQ(Files("data") + Files("incoming"), 0U);
}

TEST_F(StandIn, InjectedFailures) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    EXPECT_EQ(standinFail("dsmNothing", 1, 1, 0), -1);
    EXPECT_EQ(standinFail("*", 0, 1, 0), -1);
    EXPECT_EQ(standinSetClock("2021-13-07 00:00:00"), -1);
    standinReset();
    ASSERT_EQ(standinFail("*", 3, DSM_RC_NO_MEMORY, 0), 0);
    EXPECT_EQ(host.Transact([] { return 0; }), 0);
    EXPECT_EQ(dsmBeginTxn(host.handle), DSM_RC_NO_MEMORY);
    EXPECT_EQ(dsmBeginTxn(host.handle), 0);
    EXPECT_EQ(standinCalls("dsmBeginTxn"), 3U);
    EXPECT_EQ(standinCalls("*"), 4U);
    standinTakeAtMost(2);
    ASSERT_EQ(host.Announce(Name("/d", "/f"), 3), 0);
    char bytes[] = "abc";
    DataBlk block = Block(bytes, 3);
    EXPECT_EQ(dsmSendData(host.handle, &block), 0);
    EXPECT_EQ(block.numBytes, 2U);
    ASSERT_EQ(standinFail("dsmTerminate", 1, DSM_RC_NO_MEMORY, 0), 0);
    EXPECT_EQ(dsmTerminate(host.handle), DSM_RC_NO_MEMORY);
    EXPECT_EQ(dsmTerminate(host.handle), DSM_RC_INVALID_DS_HANDLE);
}

TEST_F(StandIn, SessionsInParallel) {
    ASSERT_EQ(Host().Register(), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            const Host host;
            for (int i = 0; i < 10; ++i) EXPECT_EQ(host.Put(Name("/d", "/" + std::to_string(t % 2)), "bytes"), 0);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const Host host;
    EXPECT_EQ(host.List(Name("*", "*")).size(), 40U);
    EXPECT_EQ(host.List(Name("*", "*"), DSM_ACTIVE).size(), 2U);
}

// Opening a store clears what the dead left, not what others are sending just then.
TEST_F(StandIn, Leftovers) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    ASSERT_EQ(host.Put(Name("/d", "/old"), "old"), 0);
    ASSERT_EQ(dsmBeginTxn(host.handle), 0);
    host.Begin(Name("/d", "/new"), "new");
    for (const char* name : {"incoming/abcdef", "data/0/2", "data/0/7"}) std::ofstream(dir_ / "store" / name) << "left";
    ASSERT_EQ(SetUpWith("STOREDIR store\n"), 0);
    EXPECT_EQ(Files("data"), 1U);
    EXPECT_EQ(Files("incoming"), 1U);
    ASSERT_EQ(dsmEndSendObj(host.handle), 0);
    EXPECT_EQ(host.End(), 0);
    EXPECT_EQ(host.Contents(Name("*", "*")), (Texts{"new*", "old*"}));
}

// A process that stores objects dies at any moment: what it saw committed is there, and nothing else is.
TEST_F(StandIn, KilledWriters) {
    ASSERT_EQ(Host().Register(), 0);
    ASSERT_EQ(dsmCleanUp(bTrue), 0);
    constexpr int rounds = 12;
    std::size_t certain = 0;
    for (int round = 0; round < rounds; ++round) {
        int committed[2];
        ASSERT_EQ(pipe(committed), 0);
        const pid_t child = fork();
        if (child == 0) {
            if (SetUpWith("STOREDIR store\n") != 0) _exit(1);
            const Host host;
            for (char n = 0;; ++n) {
                if (host.Put(Name("/d", "/" + std::to_string(n % 3)), std::string(50000, n)) != 0) _exit(1);
                if (write(committed[1], &n, 1) != 1) _exit(1);
            }
        }
        close(committed[1]);
        char n;
        for (int i = 0; i <= round % 3; ++i, ++certain) EXPECT_EQ(read(committed[0], &n, 1), 1);
        usleep(static_cast<useconds_t>(round * 700));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
        while (read(committed[0], &n, 1) == 1) ++certain;
        close(committed[0]);
    }
    ASSERT_EQ(SetUpWith("STOREDIR store\n"), 0);
    const Host host;
    const auto versions = host.List(Name("*", "*"));
    EXPECT_GE(versions.size(), certain);
    EXPECT_LE(versions.size(), certain + rounds);  // committed, but killed before it could say so
    EXPECT_EQ(Files("data"), versions.size());
    EXPECT_EQ(Files("incoming"), 0U);
    for (const auto& v : versions) {
        const std::string bytes = host.Get(v.objId, 65536);
        EXPECT_TRUE(bytes.size() == 50000 && bytes == std::string(50000, bytes[0]));
    }
    EXPECT_EQ(host.List(Name("*", "*"), DSM_ACTIVE).size(), 3U);
}

}  // namespace
