// The stand-in through the client API alone, as its callers see it; plus what it must leave on disk.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "Schema1.h"
#include "dsmapifp.h"
#include "dsmrc.h"
#include "standin/testcontrol.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// What the system calls at the end of this file are to do.
std::string fullWhile;  // a file: as long as it is there, SQLite's writes find the disk full
std::atomic<int> flushes{0}, flushMilliseconds{0};
std::atomic<bool> failFlush{false};  // the next one
std::atomic<bool> loseWrites{false};

template <std::size_t Size>
void Set(char (&field)[Size], const std::string& text) {
    ASSERT_LT(text.size(), Size);
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

    // The object stays open, or is complete.
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
        dir = mkdtemp(pattern.data());
        EXPECT_EQ(SetUpWith("STOREDIR store\n"), 0);
    }
    ~StandIn() override {
        standinReset();
        EXPECT_EQ(dsmCleanUp(bTrue), 0);
        fs::remove_all(dir);
    }

    int SetUpWith(const std::string& options) const {
        std::ofstream(dir / "dsm.opt") << options;
        envSetUp setUp{};
        Set(setUp.dsmiConfig, (dir / "dsm.opt").string());
        Set(setUp.dsmiLog, dir.string());
        return dsmSetUp(bTrue, &setUp);
    }

    std::size_t Files(const char* folder) const {
        std::size_t files = 0;
        for (const auto& e : fs::recursive_directory_iterator(dir / "store" / folder)) files += e.is_regular_file();
        return files;
    }

    fs::path dir;
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
    const Texts mistakes = {"KEEP STANDARD",
                            "KEEP STANDARD EXISTING 0",
                            "KEEP STANDARD DELETED 1 DELETED 2",
                            "KEEP OTHER DELETED 1",
                            "KEEP STANDARD DELETED -1",
                            "KEEP STANDARD LASTDAYS 10000",
                            "KEEP STANDARD SOME 1",
                            "EXPIRE 1 day",
                            "CLOCK 2021-03-07 09:05:00 secret",
                            "CLOCK tomorrow",
                            "CLOCK +",
                            "CLOCK 2021-02-29 12:00:00",
                            "CLOCK 1969-12-31 00:00:00"};
    for (const std::string& line : mistakes) EXPECT_EQ(SetUpWith(line), DSM_RC_INVALID_PARM) << line;
    EXPECT_TRUE(fs::exists(dir / "a b" / "catalogue.db"));
    std::ifstream log(dir / "dsierror.log");
    std::size_t lines = 0;
    for (std::string line; std::getline(log, line); ++lines) EXPECT_EQ(line.find("secret"), line.npos) << line;
    EXPECT_EQ(lines, 5 + mistakes.size());

    envSetUp missing{};
    Set(missing.dsmiConfig, (dir / "none.opt").string());
    EXPECT_EQ(dsmSetUp(bTrue, &missing), DSM_RC_INVALID_PARM);
    setenv("TSM_STANDIN_STORE", (dir / "from-environment").c_str(), 1);
    EXPECT_EQ(dsmSetUp(bTrue, nullptr), 0);
    unsetenv("TSM_STANDIN_STORE");
    EXPECT_TRUE(fs::exists(dir / "from-environment" / "catalogue.db"));
}

TEST_F(StandIn, MistakesInRules) {
    const std::map<std::string, bool> rules = {
        {"fault dsmSendData 1", true},
        {"FAULT dsmEndTxn 2 DSM_RC_CHECK_REASON_CODE 65535", true},
        {"FAULT * 1000000 DSM_RC_NO_MEMORY", true},
        {"FAULT 0.5 18446744073709551615", true},
        {"LATENCY * 0", true},
        {"FAULT", false},
        {"FAULT dsmSendData", false},
        {"FAULT dsmNothing 1", false},
        {"FAULT dsmQueryApiVersionEx 1", false},
        {"FAULT dsmSendData 0 1", false},
        {"FAULT dsmSendData 1 DSM_RC_NOTHING", false},
        {"FAULT dsmSendData 1 1 11", false},
        {"FAULT dsmSendData 1 1 1 1", false},
        {"FAULT dsmSendData 32768", false},
        {"FAULT dsmSendData 0", false},
        {"FAULT dsmEndTxn 0", false},
        {"FAULT dsmEndTxn 0 0", false},
        {"FAULT dsmGetNextQObj 121", false},
        {"FAULT * DSM_RC_FINISHED", false},
        {"FAULT 0 1", false},
        {"FAULT 101 1", false},
        {"FAULT 5 x", false},
        {"LATENCY dsmSendData -1", false},
        {"LATENCY dsmSendData", false},
        {"PARTIALSEND 0", false},
        {"SHORTREAD 1x", false},
        {"SESSIONS 0", false},
        {"IDLE 0", false},
        {"STRICTSIZE NO", false},
    };
    std::size_t wrong = 0;
    for (const auto& [rule, right] : rules) {
        wrong += right ? 0 : 2;
        EXPECT_EQ(SetUpWith("STOREDIR store\n" + rule + "\n"), right ? 0 : DSM_RC_INVALID_PARM) << rule;
        setenv("TSM_STANDIN_FAULTS", (";" + rule).c_str(), 1);
        EXPECT_EQ(SetUpWith("STOREDIR store\n"), right ? 0 : DSM_RC_INVALID_PARM) << rule;
        setenv("TSM_STANDIN_FAULTS", "BACKDELETE NO", 1);
        EXPECT_EQ(SetUpWith("STOREDIR store\n"), DSM_RC_INVALID_PARM);
        unsetenv("TSM_STANDIN_FAULTS");
    }
    std::ifstream log(dir / "dsierror.log");
    for (std::string line; std::getline(log, line);) {
        wrong -= line.find(", line 2: ") != line.npos || line.find("FAULTS, rule 2: ") != line.npos;
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(SetUpWith("STOREDIR store\n"), 0);
}

TEST_F(StandIn, SessionsEndWhenTheyAreIdle) {
    ASSERT_EQ(SetUpWith("STOREDIR store\nSESSIONS 2\nIDLE 2000\nLATENCY dsmEndSendObj 2400\n"), 0);
    const auto name = Name("/d", "/f");
    {
        const Host first, second, third;
        EXPECT_EQ(third.rc, DSM_RC_REJECT_NO_RESOURCES);
        EXPECT_EQ(first.Register(), 0);
        EXPECT_EQ(first.Put(name, "slow, not idle"), 0);
        EXPECT_EQ(dsmBeginTxn(first.handle), 0);
        first.Begin(name, std::string(100000, 'x'));
        std::this_thread::sleep_for(std::chrono::milliseconds(2400));
        EXPECT_EQ(Host().rc, 0) << "those that are gone do not count";
        dsUint16_t reason = 0;
        EXPECT_EQ(first.Send("x"), DSM_RC_BAD_CALL_SEQUENCE);
        EXPECT_EQ(dsmEndTxn(first.handle, DSM_VOTE_COMMIT, &reason), DSM_RC_BAD_CALL_SEQUENCE);
        char message[DSM_MAX_RC_MSG_LENGTH + 1];
        EXPECT_EQ(dsmRCMsg(first.handle, DSM_RC_BAD_CALL_SEQUENCE, message), 0);
        EXPECT_EQ(Files("incoming"), 0U);
        EXPECT_EQ(dsmTerminate(first.handle), DSM_RC_BAD_CALL_SEQUENCE);
        EXPECT_EQ(dsmTerminate(first.handle), DSM_RC_INVALID_DS_HANDLE);
    }
    EXPECT_EQ(Host().Contents(name), Texts{"slow, not idle*"});
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

    std::ifstream file(dir / "store" / "catalogue.db", std::ios::binary);
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
        qryRespFSData record;  // its name is at the same place as a class's
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

// The rules of the sequence: which calls are in order in each state.
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
    for (const std::size_t size : {0U, 1U, 999U, 1000U, 1001U, 32768U, 32769U, 300000U}) {
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
    EXPECT_EQ(Files("data"), 2U);  // the others are rows of the catalogue
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
    const std::map<int, Texts> moments = {{9, {}},       {10, {"one"}},   {19, {"one"}},
                                          {20, {"two"}}, {21, {"three"}}, {29, {"three"}},
                                          {30, {}},      {40, {"four*"}}, {59, {"four*"}}};
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
    const std::string large(40000, 'l');
    ASSERT_EQ(host.Put(name, large), 0);
    EXPECT_EQ(host.DeleteVersion(host.List(name).at(0).objId), DSM_RC_ACCESS_DENIED);

    // An object that is complete, and one still open: what is seen from outside, and what each end leaves.
    const auto begin = [&] {
        ASSERT_EQ(dsmBeginTxn(host.handle), 0);
        host.Begin(Name("/d", "/x"), large);
        ASSERT_EQ(dsmEndSendObj(host.handle), 0);
        host.Begin(Name("/d", "/y"), large);
        EXPECT_EQ(Files("incoming"), 2U);
        EXPECT_EQ(other.Contents(Name("*", "*")), Texts{large + "*"});
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
    EXPECT_EQ(other.Contents(Name("*", "*")), Texts{large + "*"});
    EXPECT_EQ(Files("data"), 1U);
    EXPECT_EQ(Files("incoming"), 0U);

    // Another session changes the store between an operation and its commit.
    const Host again;
    std::string filespace = "/fs";
    ASSERT_EQ(dsmBeginTxn(again.handle), 0);
    again.Begin(name, large);
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

// Opening a store puts aside what dead processes left, but not data that others are sending, nor files that it did not
// make.
TEST_F(StandIn, Leftovers) {
    const Host host;
    const std::string large(40000, 'l'), random = "-0123456789abcdef";
    ASSERT_EQ(host.Register(), 0);
    ASSERT_EQ(host.Put(Name("/d", "/old"), large), 0);
    ASSERT_EQ(dsmBeginTxn(host.handle), 0);
    host.Begin(Name("/d", "/new"), large);
    const Texts dead = {"incoming/0123456789abcdef", "data/0/2" + random, "data/0/7" + random};
    const Texts foreign = {"incoming/thesis.txt", "data/0/7-draft", "data/notes", "data/0/008" + random};
    for (const Texts& names : {dead, foreign}) {
        for (const std::string& name : names) std::ofstream(dir / "store" / name) << "left";
    }
    // A file stays as long as the commit of a killed process may have a row for it in the log.
    fullWhile = dir / "store" / dead.back();
    EXPECT_EQ(SetUpWith("STOREDIR store\n"), 0);
    EXPECT_TRUE(fs::exists(fullWhile));
    fullWhile.clear();
    ASSERT_EQ(SetUpWith("STOREDIR store\n"), 0);
    EXPECT_EQ(Files("lost+found"), dead.size());
    for (const std::string& name : dead) EXPECT_FALSE(fs::exists(dir / "store" / name)) << name;
    for (const std::string& name : foreign) EXPECT_TRUE(fs::exists(dir / "store" / name)) << name;
    ASSERT_EQ(dsmEndSendObj(host.handle), 0);
    EXPECT_EQ(host.End(), 0);
    EXPECT_EQ(host.Contents(Name("*", "*")), (Texts{large + "*", large + "*"}));
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

// ------------------------------------------------------------------- on the disk

// A small store, closed in order, whose folder the test then damages.
class OnDisk : public StandIn {
protected:
    OnDisk() {
        const Host host;
        EXPECT_EQ(host.Register(), 0);
        for (int i = 0; i < 30; ++i) EXPECT_EQ(host.Put(Name("/d", "/" + std::to_string(i)), Bytes(i)), 0);
    }
    static std::string Bytes(int i) { return std::string(static_cast<std::size_t>(i % 10 ? 900 * i : 40000), 'a'); }
    int Close() const { return dsmCleanUp(bTrue); }
    int Reopen() const { return SetUpWith("STOREDIR store\n"); }
    fs::path Store() const { return dir / "store"; }

    // Every name below a folder, with the content of files and the target of links.
    static std::map<std::string, std::string> Tree(const fs::path& top) {
        std::map<std::string, std::string> tree;
        for (const auto& e : fs::recursive_directory_iterator(top)) {
            std::string& content = tree[fs::relative(e.path(), top)];
            if (e.is_symlink()) content = fs::read_symlink(e.path());
            if (e.is_regular_file()) content = Content(e.path());
        }
        return tree;
    }
    static std::string Content(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static void Flip(const fs::path& path, std::size_t at) {
        std::string bytes = Content(path);
        bytes.at(at) = static_cast<char>(bytes.at(at) ^ 4);
        std::ofstream(path, std::ios::binary) << bytes;
    }
    // Opens the catalogue with checksums, or as any other program would.
    void Sql(const std::string& text, const char* vfs = "tsm-standin") const {
        sqlite3* database = nullptr;
        constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
        ASSERT_EQ(sqlite3_open_v2((Store() / "catalogue.db").c_str(), &database, flags, vfs), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(database);
        sqlite3_close(database);
    }
    fs::path DataFile() const {
        for (const auto& e : fs::recursive_directory_iterator(Store() / "data")) {
            if (e.is_regular_file()) return e.path();
        }
        return {};
    }
    // Codes of a listing's end and of reading all that it found; wrong bytes count as 0.
    static std::multiset<int> ReadAll() {
        const Host host;
        if (host.rc != 0) return {host.rc};
        dsmObjName name = Name("*", "*", DSM_OBJ_ANY_TYPE);
        qryBackupData query{qryBackupDataVersion, &name, nullptr, DSM_ANY_MATCH, {}};
        std::multiset<int> codes;
        if (const int begin = dsmBeginQuery(host.handle, qtBackup, &query)) return {begin};
        qryRespBackupData record;
        DataBlk block = Block(&record, sizeof record);
        std::map<int, ObjID> found;
        int next;
        while ((next = dsmGetNextQObj(host.handle, &block)) == DSM_RC_MORE_DATA) {
            found[std::atoi(record.objName.ll + 1)] = record.objId;
        }
        codes.insert(next);
        dsmEndQuery(host.handle);
        for (auto [i, id] : found) {
            dsmGetList list{dsmGetListVersion, 1, &id, nullptr};
            EXPECT_EQ(dsmBeginGetData(host.handle, bTrue, gtBackup, &list), 0);
            std::string bytes, buffer(1000, '\0');
            int got = dsmGetObj(host.handle, &id, nullptr);
            while (got == DSM_RC_MORE_DATA) {
                block = Block(buffer.data(), buffer.size());
                got = dsmGetData(host.handle, &block);
                bytes.append(buffer, 0, block.numBytes);
            }
            codes.insert(got != DSM_RC_FINISHED || bytes == Bytes(i) ? got : 0);
            EXPECT_EQ(dsmEndGetData(host.handle), 0);
        }
        return codes;
    }
    const std::multiset<int> allGood = [] {
        std::multiset<int> codes;
        for (int i = 0; i <= 30; ++i) codes.insert(DSM_RC_FINISHED);
        return codes;
    }();
};

TEST_F(OnDisk, Layout) {
    EXPECT_EQ(ReadAll(), allGood);
    ASSERT_EQ(Close(), 0);
    fs::permissions(Store(), fs::perms::all);
    fs::create_directory_symlink(Store(), dir / "link");
    ASSERT_EQ(SetUpWith("STOREDIR link\n"), 0);
    EXPECT_EQ(ReadAll(), allGood);
    ASSERT_EQ(Close(), 0);
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(Store())) names.insert(e.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"catalogue.db", "data", "incoming", "lost+found", "mark", "reserve",
                                            "reserve.name"}));
    EXPECT_EQ(Files("data"), 3U);
    for (const auto& e : fs::recursive_directory_iterator(dir)) {
        if (e.path() == dir / "dsm.opt" || e.is_symlink()) continue;
        EXPECT_EQ(e.status().permissions(), e.is_directory() ? fs::perms(0700) : fs::perms(0600)) << e.path();
    }
    const std::string mark = Content(Store() / "mark");
    EXPECT_EQ(mark.substr(0, 36), "tsm-standin store\nformat 2\nidentity ");
    EXPECT_EQ(mark.substr(68), "\nstate ready\n");
    // The next opening completes an interrupted one.
    const fs::path begun = dir / "begun";
    for (const char* text :
         {"tsm-st", "tsm-standin store\nformat 2\nidentity 00112233445566778899aabbccddeeff\nstate new\n"}) {
        fs::remove_all(begun);
        fs::create_directories(begun / "lost+found");
        std::ofstream(begun / (std::strlen(text) < 10 ? "mark.new" : "mark")) << text;
        if (std::strlen(text) > 10) std::ofstream(begun / "catalogue.db") << "half";
        EXPECT_EQ(SetUpWith("STOREDIR begun\n"), 0) << text;
        EXPECT_EQ(Close(), 0);
    }
}

// A folder that is no store, or not one that can be trusted, is refused with a message and not changed.
TEST_F(OnDisk, RefusedFolders) {
    ASSERT_EQ(Close(), 0);
    const auto patch = [&](const char* file, std::size_t at, const std::string& bytes) {
        std::string content = Content(Store() / file);
        std::ofstream(Store() / file) << content.replace(at, bytes.size(), bytes);
    };
    const auto linked = [&](const char* name) {
        fs::rename(Store() / name, dir / "elsewhere");
        fs::create_symlink(dir / "elsewhere", Store() / name);
    };
    const auto foreign = [&](const char* name) {
        fs::remove_all(Store());
        fs::create_directories((Store() / name).parent_path());
        std::ofstream(Store() / name) << "theirs";
    };
    const std::vector<std::pair<const char*, std::function<void()>>> cases = {
        {"no mark", [&] { foreign("thesis.txt"); }},
        {"no mark", [&] { foreign("incoming/0123456789abcdef"); }},
        {"no mark", [&] { foreign("data/0/7"); }},
        {"no mark", [&] { foreign("lost+found/7"); }},
        {"no mark", [&] { foreign("mark.new"); }},
        {"no mark of", [&] { foreign("mark"); }},
        {"no mark", [&] { foreign("catalogue.db"); }},
        {"no mark", [&] { fs::remove(Store() / "mark"); }},
        {"no mark",
         [&] {
             fs::remove(Store() / "mark");
             fs::remove(Store() / "catalogue.db");
             Sql("PRAGMA journal_mode = WAL; PRAGMA user_version = 1; CREATE TABLE node (id)", nullptr);
         }},
        {"missing or empty", [&] { fs::remove(Store() / "catalogue.db"); }},
        {"missing or empty", [&] { fs::resize_file(Store() / "catalogue.db", 0); }},
        {"another store", [&] { patch("mark", 40, Content(Store() / "mark")[40] == '0' ? "1" : "0"); }},
        {"another store", [&] { patch("mark", 60, Content(Store() / "mark")[60] == '0' ? "1" : "0"); }},
        {"newer version", [&] { patch("mark", 25, "3"); }},
        {"newer version", [&] { patch("catalogue.db", 63, "\3"); }},
        {"damaged", [&] { patch("mark", 70, "?"); }},
        {"data", [&] { linked("data"); }},
        {"incoming", [&] { linked("incoming"); }},
        {"catalogue.db", [&] { linked("catalogue.db"); }},
        {"interrupted", [&] { fs::rename(Store() / "mark", Store() / "mark.repairing"); }},
        {geteuid() == 0 ? "another user" : "", [&] { (void)!chown(Store().c_str(), 1, 1); }},
        {geteuid() == 0 ? "of this user" : "", [&] { (void)!chown((Store() / "catalogue.db").c_str(), 1, 1); }},
    };
    fs::remove(Store() / "reserve");
    fs::copy(Store(), dir / "kept", fs::copy_options::recursive);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(std::to_string(i) + ": " + cases[i].first);
        fs::remove_all(Store());
        fs::remove_all(dir / "elsewhere");
        fs::remove(dir / "dsierror.log");
        fs::copy(dir / "kept", Store(), fs::copy_options::recursive);
        cases[i].second();
        const auto before = Tree(Store());
        EXPECT_EQ(Reopen() == 0, !*cases[i].first);
        if (!*cases[i].first) continue;
        EXPECT_NE(Content(dir / "dsierror.log").find(cases[i].first), std::string::npos)
            << Content(dir / "dsierror.log");
        EXPECT_TRUE(Tree(Store()) == before);
    }
}

// If an object's data were damaged, its last read fails and the log names it. Other objects can be read.
TEST_F(OnDisk, DamagedData) {
    const std::vector<std::function<void()>> damages = {
        [&] { Flip(DataFile(), 0); },
        [&] { Flip(DataFile(), 39999); },
        [&] { fs::resize_file(DataFile(), 39999); },
        [&] { std::ofstream(DataFile(), std::ios::app) << "a"; },
        [&] { fs::remove(DataFile()); },
        [&] { Sql("UPDATE content SET bytes = CAST('b' || substr(bytes, 2) AS BLOB) WHERE id = 3"); },
        [&] { Sql("UPDATE content SET bytes = CAST(bytes || 'a' AS BLOB) WHERE id = 3"); },
        [&] { Sql("DELETE FROM content WHERE id = 3"); },
        // Impossible values.
        [&] { Sql("UPDATE object_version SET bytes = -1 WHERE id = 3"); },
        [&] { Sql("UPDATE object_version SET bytes = 1 << 60 WHERE id = 3"); },
        [&] { Sql("UPDATE object_version SET bytes = 1000, file = '3-0123456789abcdef' WHERE id = 3"); },
        [&] { Sql("UPDATE object_version SET file = CAST('../../dsm.opt' AS BLOB) WHERE id = 3"); },
        [&] { Sql("UPDATE object_version SET file = (SELECT file FROM object_version WHERE id = 1) WHERE id = 3"); },
    };
    fs::copy(Store() / "data", dir / "kept", fs::copy_options::recursive);
    for (std::size_t i = 0; i < damages.size(); ++i) {
        SCOPED_TRACE(i);
        fs::remove(dir / "dsierror.log");
        Sql("CREATE TABLE IF NOT EXISTS c AS SELECT * FROM content;"
            "CREATE TABLE IF NOT EXISTS v AS SELECT * FROM object_version;"
            "DELETE FROM content; INSERT INTO content SELECT * FROM c;"
            "DELETE FROM object_version; INSERT INTO object_version SELECT * FROM v");
        fs::copy(dir / "kept", Store() / "data", fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        ASSERT_EQ(ReadAll(), allGood);
        damages[i]();
        std::multiset<int> codes = ReadAll();
        EXPECT_EQ(codes.count(DSM_RC_FINISHED), 30U);
        EXPECT_EQ(codes.count(DSM_RC_ABORT_SYSTEM_ERROR), 1U);
        const std::string log = Content(dir / "dsierror.log");
        EXPECT_TRUE(i >= 8 || log.find("/fs /d/") != std::string::npos) << log;
    }
}

// Any program that opens the catalogue moves a leftover log into it. Those pages have checksums too.
TEST_F(OnDisk, LogBroughtInByAnother) {
    fs::copy(Store(), dir / "kept", fs::copy_options::recursive);
    ASSERT_EQ(Close(), 0);
    fs::remove_all(Store());
    fs::rename(dir / "kept", Store());
    ASSERT_TRUE(fs::exists(Store() / "catalogue.db-wal"));
    Sql("SELECT count(*) FROM node", nullptr);
    EXPECT_FALSE(fs::exists(Store() / "catalogue.db-wal"));
    ASSERT_EQ(Reopen(), 0);
    EXPECT_EQ(ReadAll(), allGood);
}

// A disk that lost a write has the frame of an earlier log in its place, which is whole.
TEST_F(OnDisk, LostWriteToTheLog) {
    const Host host;
    Sql("PRAGMA wal_checkpoint(RESTART)");
    EXPECT_EQ(host.Put(Name("/d", "/first"), "x"), 0);
    loseWrites = true;
    EXPECT_EQ(host.Put(Name("/d", "/lost"), "x"), 0);
    loseWrites = false;
    EXPECT_GT(ReadAll().count(DSM_RC_ABORT_SYSTEM_ERROR), 0U);
    EXPECT_NE(Content(dir / "dsierror.log").find("does not have its checksum"), std::string::npos);
}

TEST_F(OnDisk, DamagedRowsAreNoAnswers) {
    for (const char* set : {"type = 9", "type = 'x'", "stored = -1", "ended = stored",
                            "hl = CAST(zeroblob(1025) AS BLOB)", "owner = 7", "info = CAST(zeroblob(70000) AS BLOB)"}) {
        Sql("CREATE TABLE IF NOT EXISTS v AS SELECT * FROM object_version;"
            "DELETE FROM object_version; INSERT INTO object_version SELECT * FROM v");
        ASSERT_EQ(ReadAll(), allGood);
        Sql(std::string("UPDATE object_version SET ") + set + " WHERE id = 30");
        EXPECT_EQ(ReadAll().count(DSM_RC_ABORT_SYSTEM_ERROR), 1U) << set;
    }
}

// One flipped bit in every third page of the catalogue, and in the log that a killed process left.
TEST_F(OnDisk, DamagedCatalogue) {
    fs::remove(Store() / "reserve");
    fs::copy(Store(), dir / "killed", fs::copy_options::recursive);
    ASSERT_EQ(Close(), 0);
    fs::remove(Store() / "reserve");
    fs::copy(Store(), dir / "closed", fs::copy_options::recursive);
    for (const auto& [source, name, begin, step] : {std::tuple("closed", "catalogue.db", 1000, 3 * 4096),
                                                    std::tuple("killed", "catalogue.db-wal", 1000, 11 * 4120)}) {
        int noticed = 0, rest = 0;
        const auto size = static_cast<int>(fs::file_size(dir / source / name));
        ASSERT_GT(size, step * 8);
        for (int at = begin; at < size; at += step) {
            fs::remove_all(Store());
            fs::copy(dir / source, Store(), fs::copy_options::recursive);
            Flip(Store() / name, static_cast<std::size_t>(at));
            std::multiset<int> codes;
            if (const int opened = Reopen()) {
                codes = {opened};
            } else {
                codes = ReadAll();
                if (codes.count(DSM_RC_FINISHED) == 31) codes = {};
            }
            noticed += codes.count(DSM_RC_ABORT_SYSTEM_ERROR) > 0;
            rest += codes.count(DSM_RC_FINISHED) > 0;
            EXPECT_TRUE(codes.empty() || codes.count(DSM_RC_ABORT_SYSTEM_ERROR) > 0) << name << " " << at;
            EXPECT_EQ(codes.count(0), 0U);
            Close();
        }
        EXPECT_GT(noticed, size / step / 2) << name;
        EXPECT_TRUE(rest > 0 || name != std::string("catalogue.db")) << "nothing else was readable";
    }
}

TEST_F(OnDisk, ReadOnlyStore) {
    const auto asOwner = [&] {
        const Host host, stranger("STRANGER");
        EXPECT_EQ(stranger.rc, DSM_RC_ACCESS_DENIED);
        EXPECT_EQ(ReadAll(), allGood);
        const dsmObjName name = Name("/d", "/1");
        EXPECT_EQ(host.Register("/new"), DSM_RC_ACCESS_DENIED);
        EXPECT_EQ(host.Delete(name), DSM_RC_ACCESS_DENIED);
        EXPECT_EQ(host.Rename(name, Name("/d", "/x"), bFalse), DSM_RC_ACCESS_DENIED);
        EXPECT_EQ(host.Transact([&] { return host.Announce(name, 1); }), DSM_RC_ACCESS_DENIED);
    };
    // With a log, as while it is open, and without, as after closing.
    for (const bool withLog : {true, false}) {
        fs::remove_all(dir / "copy");
        if (!withLog) Close();
        fs::copy(Store(), dir / "copy", fs::copy_options::recursive);
        ASSERT_EQ(fs::exists(dir / "copy/catalogue.db-wal"), withLog);
        std::vector<fs::path> all{dir / "copy"};
        for (const auto& e : fs::recursive_directory_iterator(dir / "copy")) all.push_back(e.path());
        const pid_t child = fork();
        if (child == 0) {
            for (const fs::path& path : all) {
                if (geteuid() == 0 && lchown(path.c_str(), 1, 1) != 0) _exit(2);
            }
            if (geteuid() == 0 && (chmod(dir.c_str(), 0755) != 0 || seteuid(1) != 0)) _exit(3);
            for (auto path = all.rbegin(); path != all.rend(); ++path) {
                fs::permissions(*path, fs::is_directory(*path) ? fs::perms(0500) : fs::perms(0400));
            }
            envSetUp setUp{};
            setenv("TSM_STANDIN_STORE", (dir / "copy").c_str(), 1);
            if (dsmSetUp(bTrue, &setUp) != 0) _exit(4);
            asOwner();
            if (!withLog) {  // others write to it where they can, and nobody waits for readers that take no locks
                const Host host;
                fs::last_write_time(dir / "copy/catalogue.db", fs::file_time_type::clock::now());
                EXPECT_EQ(host.Register("/new"), DSM_RC_ABORT_SYSTEM_ERROR);
            }
            _exit(HasFailure() ? 5 : 0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << withLog;
        for (const fs::path& path : all) fs::permissions(path, fs::perms(0700));
    }
}

// The disk is full as long as the reserve exists. Storing is refused with the reason, and may not use the reserve.
TEST_F(OnDisk, FullDisk) {
    const Host host;
    const std::string reserve = Store() / "reserve";
    std::string filespace = "/fs";
    const std::vector<std::pair<int, std::function<int()>>> steps = {
        {11, [&] { return host.Put(Name("/d", "/new"), "x"); }},
        {0, [&] { return ReadAll() == allGood ? 0 : 1; }},
        {0, [&] { return host.DeleteVersion(host.List(Name("/d", "/1")).at(0).objId); }},
        {0, [&] { return host.Delete(Name("/d", "/2")); }},
        {0, [&] { return host.Rename(Name("/d", "/3"), Name("/d", "/x"), bFalse); }},
        {0, [&] { return dsmDeleteFS(host.handle, filespace.data(), DSM_REPOS_ALL); }},
    };
    for (const auto& [expected, step] : steps) {
        ASSERT_EQ(Reopen(), 0);
        ASSERT_TRUE(fs::exists(reserve));
        fullWhile = reserve;
        EXPECT_EQ(step(), expected);
        EXPECT_EQ(fs::exists(reserve), &step == &steps[0].second || &step == &steps[1].second);
        fullWhile.clear();
    }
    ASSERT_EQ(Reopen(), 0);
    ASSERT_EQ(Close(), 0);
    fullWhile = reserve;
    EXPECT_EQ(Reopen(), 0);  // gives it up to open at all
    fullWhile.clear();
}

// Reads of a file's pages, not their time: one name among many takes a few, however many there are.
TEST_F(OnDisk, FindsOneNameWithoutReadingTheRest) {
    Close();
    Sql("WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 20000)"
        " INSERT INTO object_version SELECT fs, CAST('/m' || (i / 1000) AS BLOB), CAST('/' || i AS BLOB), type, i, "
        "stored,"
        " ended, class, copy_group, owner, estimate, info, 0, checksum, x''"
        " FROM n, (SELECT * FROM object_version LIMIT 1)");
    Reopen();
    const auto reads = [] {
        std::ifstream counts("/proc/self/io");
        std::string name;
        long count = 0;
        while (counts >> name >> count && name != "syscr:") continue;
        return count;
    };
    const Host host;
    for (const auto& [path, name, found] :
         {std::tuple("/m17", "/17042", 1U), {"/m17", "/*", 1000U}, {"/m", "/1", 0U}}) {
        const long before = reads();
        EXPECT_EQ(host.List(Name(path, name)).size(), found);
        EXPECT_LT(reads() - before, 100);  // the catalogue has some 800 pages
    }
}

// Commits that come together share a flush, each with its own outcome, and none is reported before it is flushed.
TEST_F(OnDisk, ManyThreadsShareFlushes) {
    const Host host;
    const ObjID id = host.List(Name("/d", "/5")).at(0).objId;
    constexpr int each = 10, writers = 16, removers = 4;
    std::atomic<int> accepted{0}, removed{0}, gone{0};
    flushes = 0;
    flushMilliseconds = 5;
    std::vector<std::thread> threads;
    for (int t = 0; t < writers + removers; ++t) {
        threads.emplace_back([&, t] {
            const Host own;
            if (t < removers) {
                // All have it accepted before the first commit; one of them finds the version at its own.
                dsmDelInfo info{};
                info.backIDInfo = {delBackIDVersion, id};
                dsmBeginTxn(own.handle);
                own.Begin(Name("/r", "/" + std::to_string(t)), "x");
                EXPECT_EQ(dsmEndSendObj(own.handle), 0);
                EXPECT_EQ(dsmDeleteObj(own.handle, dtBackupID, info), 0);
                for (++accepted; accepted < removers;) std::this_thread::yield();
                const int ended = own.End();
                EXPECT_TRUE(ended == 0 || ended == DSM_RC_ABORT_NO_MATCH) << ended;
                ++(ended == 0 ? removed : gone);
                return;
            }
            for (int i = 0; i < each; ++i) {
                const int before = flushes;
                EXPECT_EQ(own.Put(Name("/" + std::to_string(t), "/" + std::to_string(i)), "bytes"), 0);
                EXPECT_GT(flushes, before);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    flushMilliseconds = 0;
    EXPECT_EQ(removed, 1);
    EXPECT_EQ(gone, removers - 1);
    EXPECT_EQ(host.List(Name("/r", "/*")).size(), 1U);
    EXPECT_LT(flushes, writers * each / 2);
    EXPECT_EQ(host.List(Name("/1*", "/*")).size(), 100U);  // of ten writers
    // A flush that fails fails the commit, and what it held is not there.
    failFlush = true;
    EXPECT_NE(host.Put(Name("/d", "/new"), "x"), 0);
    EXPECT_TRUE(host.List(Name("/d", "/new")).empty());
    EXPECT_EQ(host.Put(Name("/d", "/new"), "x"), 0);
}

// Neither one session nor several at once, which checkpoint beside each other, let the log grow for good.
TEST_F(OnDisk, ManyThreadsLeaveTheLogShort) {
    constexpr int each = 8, objects = 50, page = 4096;  // of nine pages
    for (const auto& [writers, pages] : {std::pair(1, 2000), {4, 6000}}) {
        std::vector<std::thread> threads;
        for (int t = 0; t < writers; ++t) {
            threads.emplace_back([&, t] {
                const Host own;
                const auto several = [&] {
                    int failed = 0;
                    for (int i = 0; i < objects; ++i) {
                        own.Begin(Name("/" + std::to_string(t), "/" + std::to_string(i)), std::string(8 * page, 'x'));
                        failed += dsmEndSendObj(own.handle);
                    }
                    return failed;
                };
                for (int i = 0; i < each; ++i) EXPECT_EQ(own.Transact(several), 0);
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_LT(fs::file_size(Store() / "catalogue.db-wal"), std::size_t{page} * static_cast<unsigned>(pages));
    }
    EXPECT_EQ(ReadAll().count(DSM_RC_ABORT_SYSTEM_ERROR), 0U);
}

// Before a new object, a transaction may deactivate, remove or rename what has its name.
TEST_F(StandIn, ChangesBeforeAnObjectInOneTransaction) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    dsmObjName name = Name("/d", "/f");
    dsmRenameIn_t in{1, host.handle, DSM_BACKUP_REP, &name, "/d", "/g", bFalse, {}};
    dsmRenameOut_t out{};
    dsmDelInfo info{};
    ObjID id{};
    const std::vector<std::pair<std::function<int()>, Texts>> cases = {
        {[&] { return dsmRenameObj(&in, &out); }, {"new*", "old*"}},
        {[&] {
             info.backInfo = {delBackVersion, &name, 1};
             return dsmDeleteObj(host.handle, dtBackup, info);
         },
         {"old", "new*"}},
        {[&] {
             info.backIDInfo = {delBackIDVersion, id};
             return dsmDeleteObj(host.handle, dtBackupID, info);
         },
         {"new*"}},
    };
    for (const auto& [change, expected] : cases) {
        std::string filespace = "/fs";
        dsmDeleteFS(host.handle, filespace.data(), DSM_REPOS_ALL);
        ASSERT_EQ(host.Register(), 0);
        ASSERT_EQ(host.Put(name, "old"), 0);
        id = host.List(name).at(0).objId;
        ASSERT_EQ(dsmBeginTxn(host.handle), 0);
        EXPECT_EQ(change(), 0);
        host.Begin(name, "new");
        ASSERT_EQ(dsmEndSendObj(host.handle), 0);
        EXPECT_EQ(host.End(), 0);
        EXPECT_EQ(host.Contents(Name("/d", "*")), expected);
    }
}

// Even if clocks go wrong, a version never ends before it began or begins before the previous one ended, and a
// version's date means that version.
TEST_F(StandIn, MomentsNeverRunBackwards) {
    const Host host;
    ASSERT_EQ(host.Register(), 0);
    const auto zone = [](const char* text) {
        setenv("TZ", text, 1);
        tzset();
    };
    constexpr const char* berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
    const std::vector<std::tuple<const char*, const char*, const char*>> steps = {
        {"UTC0", "2021-03-07 09:05:00", "1"}, {"UTC0", "2021-03-07 09:05:00", "2"},
        {"EST5", "2021-03-07 04:05:30", "3"},  // half a minute later elsewhere
        {"UTC0", "2020-01-01 00:00:00", "4"},  // a clock set back
        {"UTC0", "2020-01-01 00:00:00", ""},  {"UTC0", "2020-01-01 00:00:00", "5"},
        {"UTC0", "2021-10-31 00:30:00", "6"},  // in Berlin, 02:30 for the first time
        {"UTC0", "2021-10-31 01:10:00", "7"},  // 02:10 for the second
        {"UTC0", "2021-10-31 01:40:00", "8"},  // 02:40
    };
    const dsmObjName name = Name("/d", "/f");
    for (const auto& [where, when, bytes] : steps) {
        zone(where);
        ASSERT_EQ(standinSetClock(when), 0);
        ASSERT_EQ(*bytes ? host.Put(name, bytes) : host.Delete(name), 0);
    }
    for (const char* where : {"UTC0", "EST5", berlin}) {
        zone(where);
        const auto versions = host.List(name);
        ASSERT_EQ(versions.size(), 8U);
        for (const auto& v : versions) {
            const Texts found = host.Contents(name, v.insDate);
            ASSERT_EQ(found.size(), 1U);
            EXPECT_EQ(found[0].substr(0, 1), host.Get(v.objId)) << where;
        }
    }
    EXPECT_EQ(host.List(name).at(5).insDate.minute, 30);
    EXPECT_EQ(host.Contents(name, {2021, 10, 31, 2, 20, 0}), Texts{"7"});  // twice: the later one
    EXPECT_EQ(host.Contents(name, {2021, 10, 31, 2, 5, 0}), Texts{"6"});
    zone("UTC0");
    const auto versions = host.List(name);
    const auto second = [](const dsmDate& d) { return ((d.day * 24 + d.hour) * 60 + d.minute) * 60 + d.second; };
    for (std::size_t i = 0; i + 1 < 6; ++i)
        EXPECT_LE(second(versions[i].expDate), second(versions[i + 1].insDate)) << i;
    EXPECT_EQ(second(versions[1].insDate) - second(versions[0].insDate), 1);
    EXPECT_EQ(second(versions[2].insDate) - second(versions[0].insDate), 30);
    unsetenv("TZ");
    tzset();
}

// What a class keeps at the moment of a query, and which files are left. Every version is a letter; 0 deletes, -
// removes the active version for good, > renames to another name, ! opens the store anew, and a capital is bound to
// LONG.
TEST_F(StandIn, Retention) {
    const std::string options =
        "STOREDIR store\nMGMTCLASS USUAL\nMGMTCLASS LONG\nkeep USUAL LastDays 8 EXISTING 3 DELETED 2 EXTRADAYS 4\n";
    ASSERT_EQ(SetUpWith(options), 0);
    const Host host, other("OTHER");
    ASSERT_EQ(host.Register() + other.Register(), 0);
    const dsmObjName name = Name("/d", "/f"), target = Name("/d", "/g");
    const auto put = [&](const Host& by, char letter) {
        return by.Transact([&] {
            EXPECT_EQ(by.Announce(name, 40000, "", letter < 'a' ? "LONG" : "USUAL"), 0);
            EXPECT_EQ(by.Send(std::string(40000, letter)), 0);
            return dsmEndSendObj(by.handle);
        });
    };
    const auto letters = [](const Texts& contents) {
        std::string all;
        for (const std::string& text : contents) all += text.substr(39999);
        return all;
    };
    const auto act = [&](char action) {
        if (action == '!') return SetUpWith(options);
        if (action == '0') return host.Delete(name);
        if (action == '>') return host.Rename(name, target, bFalse);
        return action == '-' ? host.DeleteVersion(host.List(name, DSM_ACTIVE).at(0).objId) : put(host, action);
    };
    for (const char letter : {'P', 'Q', 'R', 'S'}) ASSERT_EQ(put(other, letter), 0);
    const std::vector<std::tuple<int, const char*, const char*, std::size_t>> steps = {
        {1, "a", "a*", 1},
        {2, "b", "ab*", 2},
        {3, "c", "abc*", 3},
        {4, "d", "bcd*", 3},
        {6, "", "bcd*", 3},
        {7, "", "cd*", 3},
        {7, "!", "cd*", 2},
        {7, "0", "cd", 2},
        {8, "", "d", 2},
        {14, "", "d", 2},
        {15, "", "", 2},
        {15, "e", "e*", 1},
        // Bound to another class, which keeps all of them, and back again.
        {16, "FGH", "eFGH*", 4},
        {16, "-", "eFG*", 3},
        {17, "h", "FGh*", 3},
        {18, "-", "FG*", 2},
        {18, "0", "FG", 2},
        {18, "i0", "Gi", 2},
        {23, "", "i", 2},
        // The last version becomes an extra one; a version that is gone does not become active.
        {23, "j", "j*", 1},
        {24, "k", "jk*", 2},
        {29, "-", "", 0},
        {29, "m0>", "", 1},
        {30, "ln", "ln*", 3},
    };
    for (const auto& [day, actions, expected, files] : steps) {
        SCOPED_TRACE(std::to_string(day) + " " + actions);
        standinSetClock(("2021-03-" + std::to_string(day) + " 12:00:00").c_str());
        for (const char* action = actions; *action; ++action) ASSERT_EQ(act(*action), 0);
        EXPECT_EQ(letters(host.Contents(name)), expected);
        EXPECT_EQ(Files("data"), files + 4);
    }
    EXPECT_EQ(letters(other.Contents(name)), "PQRS*");
    ASSERT_EQ(put(other, 't'), 0);
    EXPECT_EQ(letters(other.Contents(name)), "RSt*");
    EXPECT_STREQ(other.List(name).at(0).mcName, "USUAL");
    // A version that is gone cannot be found or restored, does not block a rename, and does not join objects that take
    // its name.
    EXPECT_EQ(host.Rename(name, target, bFalse), DSM_RC_ABORT_DUPLICATE_OBJECT);
    ObjID gone = host.List(target).at(0).objId;
    dsmGetList list{dsmGetListVersion, 1, &gone, nullptr};
    standinSetClock("2021-04-08 12:00:00");
    EXPECT_EQ(letters(host.Contents(Name("/d", "*"))), "n*");
    EXPECT_EQ(host.Contents(target, {2021, 3, 29, 12, 0, 0}), Texts{});
    ASSERT_EQ(dsmBeginGetData(host.handle, bTrue, gtBackup, &list), 0);
    EXPECT_EQ(dsmGetObj(host.handle, &gone, nullptr), DSM_RC_ABORT_NO_MATCH);
    ASSERT_EQ(dsmEndGetData(host.handle), 0);
    EXPECT_EQ(host.DeleteVersion(gone), DSM_RC_ABORT_NO_MATCH);
    EXPECT_EQ(host.Rename(name, target, bFalse), 0);
    EXPECT_EQ(letters(host.Contents(target)), "n*");
    EXPECT_EQ(Files("data"), 4U);
    // Data stay until a running restore has read them.
    gone = host.List(target).at(0).objId;
    ASSERT_EQ(dsmBeginGetData(host.handle, bTrue, gtBackup, &list), 0);
    ASSERT_EQ(dsmGetObj(host.handle, &gone, nullptr), DSM_RC_MORE_DATA);
    for (const char* bytes : {"2", "3", "4"}) ASSERT_EQ(Host().Put(target, bytes), 0);
    EXPECT_EQ(Files("data"), 3U);
    std::string buffer(40000, '\0');
    DataBlk block = Block(buffer.data(), buffer.size());
    EXPECT_EQ(dsmGetData(host.handle, &block), DSM_RC_FINISHED);
    EXPECT_EQ(buffer, std::string(40000, 'n'));
}

// A clock set ahead shows what will be gone. It removes only versions of objects that are changed then.
TEST_F(OnDisk, ClockAndExpiry) {
    const dsmObjName name = Name("/d", "/1");
    const auto seen = [&](const std::string& lines) {
        EXPECT_EQ(SetUpWith("STOREDIR store\nKEEP STANDARD EXTRADAYS 30\n" + lines), 0);
        const Host host;
        return host.rc == 0 ? static_cast<int>(host.List(name).size()) : host.rc;
    };
    ASSERT_EQ(Host().Put(name, "new"), 0);
    const std::vector<std::pair<const char*, int>> cases = {
        {"CLOCK +29", 2},
        {"CLOCK +31", 1},
        {"CLOCK -31", 2},
        {"CLOCK 2999-01-01 00:00:00", 1},
        {"EXPIRE 90\nCLOCK +89", 1},
        {"EXPIRE 90\nCLOCK 2999-01-01 00:00:00\nCLOCK +89", 1},
        {"EXPIRE 90\nCLOCK +90", DSM_RC_REJECT_VERIFIER_EXPIRED},
        {"", 2},
    };
    for (const auto& [lines, expected] : cases) {
        EXPECT_EQ(seen(lines), expected) << lines;
        setenv("TSM_STANDIN_FAULTS", lines, 1);
        EXPECT_EQ(seen(""), expected) << "in the environment: " << lines;
        unsetenv("TSM_STANDIN_FAULTS");
    }
    EXPECT_EQ(seen("EXPIRE 9\nCLOCK +10"), DSM_RC_REJECT_VERIFIER_EXPIRED);
    EXPECT_EQ(Host("NODE", "wrong").rc, DSM_RC_AUTH_FAILURE);
    EXPECT_EQ(Host("NEW").rc, 0);
    // Passwords without a date count from the first sign-on that asks for it.
    Sql("UPDATE node SET secret = CAST(substr(secret, 1, instr(secret, x'20') - 1) AS BLOB)");
    EXPECT_EQ(seen("EXPIRE 9\nCLOCK +10"), 2);
    EXPECT_EQ(seen("EXPIRE 9\nCLOCK +19"), DSM_RC_REJECT_VERIFIER_EXPIRED);

    ASSERT_EQ(seen("CLOCK 2099-01-31 12:00:00"), 1);
    ASSERT_EQ(Host().Put(name, "later"), 0);
    EXPECT_EQ(seen(""), 2);
    EXPECT_EQ(Host().List(name).at(1).insDate.year, 2099);
}

// A store of schema 1 is taken over when it is opened, not while another program has it open.
TEST_F(StandIn, ConvertsSchema1) {
    const std::string old = schema1 + std::string(R"(
        INSERT INTO counter VALUES (1005);
        INSERT INTO garbage VALUES (9);
        INSERT INTO filespace VALUES (1, 1, CAST('/fs' AS BLOB), CAST('T' AS BLOB), x'', 1, 2);
        INSERT INTO version SELECT 1, CAST('/d' AS BLOB), CAST('/f' AS BLOB), 1, column1, column2, column3,
            CAST('STANDARD' AS BLOB), 1, x'', 5, column4, CAST('info' AS BLOB) FROM (VALUES
            (1, 20210307090510, 20210307090520, 3), (2, 20210307090520, 20210307090520, 0),
            (3, 20210307090520, 20210307090510, 3), (1004, 20210307090540, NULL, 3));
    )");
    const fs::path folder = dir / "old", data = folder / "data";
    for (const char* part : {"data/0", "data/1", "incoming"}) fs::create_directories(folder / part);
    std::ofstream(data / "0/1") << "one";
    std::ofstream(data / "0/3") << "three is too long";
    std::ofstream(data / "1/1004") << "fou";
    for (const char* left : {"data/0/9", "data/1/1005", "incoming/abcdef"}) std::ofstream(folder / left) << "left";
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open((folder / "catalogue.db").c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, old.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    EXPECT_EQ(SetUpWith("STOREDIR old\n"), DSM_RC_ABORT_SYSTEM_ERROR);
    EXPECT_FALSE(fs::exists(folder / "mark"));
    sqlite3_close(database);
    // An earlier attempt was killed after its first steps.
    std::ofstream(folder / "catalogue.new") << "half";
    ASSERT_EQ(SetUpWith("STOREDIR old\n"), 0);
    {
        const Host host;
        ASSERT_EQ(host.rc, 0);
        const auto found = host.List(Name("/d", "/f"));
        ASSERT_EQ(found.size(), 4U);
        std::vector<int> seconds;
        for (const auto& v : found) seconds.insert(seconds.end(), {v.insDate.second, v.expDate.second});
        EXPECT_EQ(seconds, (std::vector<int>{10, 20, 20, 21, 21, 22, 40, 0}));
        EXPECT_EQ(host.Get(found[0].objId) + host.Get(found[1].objId) + host.Get(found[3].objId), "onefou");
        ObjID id = found[2].objId;
        dsmGetList list{dsmGetListVersion, 1, &id, nullptr};
        ASSERT_EQ(dsmBeginGetData(host.handle, bTrue, gtBackup, &list), 0);
        EXPECT_EQ(dsmGetObj(host.handle, &id, nullptr), DSM_RC_ABORT_SYSTEM_ERROR);
        ASSERT_EQ(dsmEndGetData(host.handle), 0);
        EXPECT_EQ(host.Put(Name("/d", "/f"), "five"), 0);
        EXPECT_EQ(host.List(Name("/d", "/f")).at(4).objId.lo, 1005U);
    }
    EXPECT_TRUE(fs::exists(folder / "catalogue-schema1.db"));
    EXPECT_FALSE(fs::exists(data / "0/9"));
    std::size_t lost = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(folder / "lost+found")) ++lost;
    EXPECT_EQ(lost, 3U);
    ASSERT_EQ(SetUpWith("STOREDIR old\nKEEP STANDARD EXISTING 1"), 0);
    EXPECT_EQ(Host().Contents(Name("/d", "/f")), Texts{"five*"});
    EXPECT_FALSE(fs::exists(data / "0/1"));
}

}  // namespace

// SQLite and the stand-in call these: symbols of the program come before those of libraries.
extern "C" ssize_t pwrite64(int file, const void* bytes, size_t size, off64_t offset) {
    if (!fullWhile.empty() && access(fullWhile.c_str(), F_OK) == 0) {
        errno = ENOSPC;
        return -1;
    }
    return loseWrites ? static_cast<ssize_t>(size) : syscall(SYS_pwrite64, file, bytes, size, offset);
}

extern "C" int fdatasync(int file) {
    if (failFlush.exchange(false)) {
        errno = EIO;
        return -1;
    }
    if (flushMilliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(flushMilliseconds));
    const int result = static_cast<int>(syscall(SYS_fdatasync, file));
    ++flushes;
    return result;
}
