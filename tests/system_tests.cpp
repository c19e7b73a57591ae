// Whole operations of the library over the stand-in, on a store of their own. Then each of them again and again, with
// another one of its calls on the API failing every time.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "standin/testcontrol.h"
#include "tsmconnector.h"

namespace fs = std::filesystem;
using Lines = std::multiset<std::string>;

namespace {

char* C(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

int Open() {
    return TsmOpenSession(C("NODE"), nullptr, C("secret"), nullptr, nullptr, nullptr, C("/"));
}

// Stores data in pieces. What fails leaves the rest undone.
int Store(int session, const std::string& path, const std::string& name, std::string data, std::size_t piece = 70001) {
    int result = TsmBeginBackupEx(session, C(path), C(name), std::max(1, static_cast<int>(data.size())),
                                  C("info of " + name), nullptr);
    for (std::size_t at = 0; result == 0 && at < data.size(); at += piece) {
        const std::size_t length = std::min(data.size() - at, piece);
        result = TsmSendData(session, reinterpret_cast<unsigned char*>(&data[at]), static_cast<int>(length));
    }
    return result == 0 ? TsmEndBackup(session) : result;
}

// Reads so many pieces at most. Returns how many bytes came, or the first failure.
long long Fetch(int session, const std::string& path, const std::string& name, const char* at, std::string& data,
                int pieces = 99) {
    std::vector<unsigned char> room(TSM_LEAST_READ);
    unsigned char* buffer = room.data();
    const long long size = TsmBeginRestore(session, C(path), C(name), const_cast<char*>(at));
    int got = 0;
    data.clear();
    while (size >= 0 && pieces-- > 0 && (got = TsmGetData(session, &buffer, 0)) > 0) {
        data.append(room.begin(), room.begin() + got);
    }
    const int end = TsmEndRestore(session);
    return size < 0 ? size : got < 0 ? got : end < 0 ? end : static_cast<long long>(data.size());
}

std::string Bytes(std::size_t length) {
    unsigned seed = 1;
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>((seed = seed * 1103515245 + 12345) >> 16);
    return bytes;
}

// The name of a version; a directory object has a delimiter at the end, the time in a name that was moved
// aside is a tilde.
std::string Name(const TsmObject& version) {
    std::string line;
    for (std::string part : {version.highLevelName, version.lowLevelName}) {
        if (!part.empty() && part.back() == '\n') part.replace(part.size() - 25, 25, "~");
        line += part;
    }
    return line + (version.isFile ? "" : "/");
}

class System : public testing::Test {
protected:
    void SetUp() override {
        std::string name = "/dev/shm/tsm-system-XXXXXX";
        if (!mkdtemp(name.data())) {
            name = (fs::temp_directory_path() / "tsm-system-XXXXXX").string();
            ASSERT_NE(mkdtemp(name.data()), nullptr);
        }
        folder = name;
        standinReset();
        Start("");
    }
    void TearDown() override {
        if (tsmApi) TsmReleaseApi();
        standinReset();
        fs::remove_all(folder);
    }
    int InitApi() { return TsmInitApi(C((folder / "dsm.opt").string()), nullptr, nullptr, nullptr); }
    void Start(const std::string& options) {
        std::ofstream(folder / "dsm.opt") << "STOREDIR store\n" << options;
        ASSERT_EQ(InitApi(), 0);
        session = Open();
        ASSERT_EQ(TsmConnectToFileSpace(session, C("vm")), 0);
    }
    std::string Data(const std::string& path, const std::string& name, const char* at = nullptr) {
        std::string data;
        const long long result = Fetch(session, path, name, at, data);
        return result < 0 ? std::to_string(result) : data;
    }
    std::vector<TsmObject> List(int activeOnly) {
        TsmObject* objects = nullptr;
        const int count = TsmGetBackupInfo(session, C("*"), nullptr, activeOnly, TSM_OBJECTS_ANY, &objects);
        EXPECT_GE(count, 0);
        const std::vector<TsmObject> list(objects, objects + std::max(count, 0));
        TsmEndGetBackupInfo(session);
        return list;
    }
    Lines All(int activeOnly = 0) {
        Lines lines;
        for (const TsmObject& version : List(activeOnly)) lines.insert(Name(version));
        return lines;
    }
    std::size_t FilesIn(const char* part) {
        const fs::recursive_directory_iterator entries(folder / "store" / part);
        return static_cast<std::size_t>(
            std::count_if(begin(entries), end(entries), [](const auto& entry) { return entry.is_regular_file(); }));
    }
    fs::path folder;
    int session = 0;
};

}  // namespace

TEST_F(System, StoresListsAndRestores) {
    // Around the sizes of chunks and pieces, and with nothing to send.
    for (const std::size_t size : {0u, 1u, 32767u, 32768u, 32769u, 65536u, 300000u}) {
        ASSERT_EQ(Store(session, "a/b", std::to_string(size), Bytes(size)), 0);
        EXPECT_EQ(Data("/a\\b/", std::to_string(size)) == Bytes(size), true) << size;
    }
    EXPECT_EQ(All(), (Lines{"/a/", "/a/b/", "/a/b/0", "/a/b/1", "/a/b/300000", "/a/b/32767", "/a/b/32768", "/a/b/32769",
                            "/a/b/65536"}));
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(session, C("a/b"), C("300*"), 1, TSM_OBJECTS_FILES, &objects), 1);
    EXPECT_STREQ(objects->objectInfo, "info of 300000");
    EXPECT_STREQ(objects->fileSpace, "vm");
    EXPECT_EQ(objects->size, 300000);
    EXPECT_EQ(Data("a", "b"), "-2") << "a directory object";

    char** names = nullptr;
    ASSERT_EQ(TsmConnectToFileSpace(session, C("other")), 0);
    EXPECT_EQ(All(), Lines{}) << "a filespace of its own";
    ASSERT_EQ(TsmGetFileSpaces(session, &names), 2);
    EXPECT_EQ(Lines(names, names + 2), (Lines{"other", "vm"}));
    EXPECT_EQ(TsmDeleteFileSpace(session, C("vm")), 0);
    EXPECT_EQ(TsmGetFileSpaces(session, &names), 1);
    EXPECT_EQ(TsmSetAccess(session, C("OTHER"), C("/vm"), nullptr), -2061);
}

TEST_F(System, DeletesAndRenamesWithTheDirectoriesLeftEmpty) {
    for (const char* path : {"a/b/c", "a/b/d", "a/e"}) {
        for (const char* name : {"1", "2"}) ASSERT_EQ(Store(session, path, name, path), 0);
    }
    EXPECT_EQ(TsmDelete(session, C("a/b/c"), C("1"), 0, nullptr), 0);
    EXPECT_EQ(TsmDelete(session, C("a/b/d"), nullptr, 1, nullptr), 0);
    EXPECT_EQ(All(1), (Lines{"/a/", "/a/b/", "/a/b/c/", "/a/b/c/2", "/a/e/", "/a/e/1", "/a/e/2"}));
    EXPECT_EQ(TsmDelete(session, C("a/b/c"), C("2"), 0, nullptr), 0);
    EXPECT_EQ(All(1), (Lines{"/a/", "/a/e/", "/a/e/1", "/a/e/2"})) << "inactive versions do not hold a directory";
    // Onto a taken name, whose object is replaced; and the traps that the documents name.
    EXPECT_EQ(TsmRenameBackup(session, "a/e", "1", "a/e", "2"), 0);
    EXPECT_EQ(TsmRenameBackup(session, "a/e", "1", "a/e", "2"), -2);
    EXPECT_EQ(All(1), (Lines{"/a/", "/a/e/", "/a/e/2"}));
    standinFail("dsmEndTxn", 1, 0, 12);
    EXPECT_EQ(TsmRenameBackup(session, "a/e", "2", "new", "2"), 0);
    EXPECT_EQ(All(1), Lines{"/new/"}) << "a commit with 0 and a reason, which did not rename";
    ASSERT_EQ(Store(session, "new", "1", "x"), 0);
    EXPECT_EQ(TsmRenameBackup(session, "new", "1", "new", "1"), 0);
    EXPECT_EQ(All(1), Lines{"/new/"}) << "renaming a name to itself deletes it";
    EXPECT_EQ(TsmDelete(session, C("*"), nullptr, 1, nullptr), 0);
    EXPECT_EQ(All(), Lines{});
    EXPECT_EQ(FilesIn("data"), 0u);

    // As deep as names allow, all the way up.
    std::string deep;
    while (deep.size() < 1020) deep += "/d";
    ASSERT_EQ(Store(session, deep, "f", "x"), 0);
    EXPECT_EQ(All().size(), 511u);
    EXPECT_EQ(TsmDelete(session, C(deep), C("f"), 1, nullptr), 0);
    EXPECT_EQ(All(), Lines{});
}

TEST_F(System, KeepsATakenNameThatMayNotBeDeleted) {
    TsmReleaseApi();
    Start("BACKDELETE NO\n");
    ASSERT_EQ(Store(session, "a", "f", "mine"), 0);
    ASSERT_EQ(Store(session, "b", "g", "theirs"), 0);
    EXPECT_EQ(TsmDelete(session, C("b"), C("g"), 1, nullptr), -2302);
    ASSERT_EQ(TsmRenameBackup(session, "a", "f", "b", "g"), 0);
    EXPECT_EQ(Data("b", "g"), "mine");
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(session, C("/b??? ??? *"), C("g*"), 0, TSM_OBJECTS_FILES, &objects), 1);
    const std::string hl = objects->highLevelName, ll = objects->lowLevelName;
    EXPECT_EQ(hl.substr(2), ll.substr(2)) << "one time for both";
    EXPECT_EQ(Data(hl, ll.substr(1)), "theirs");
}

TEST_F(System, ServesManyThreads) {
    const std::string data = Bytes(200000);
    std::vector<std::thread> threads;
    std::vector<int> failures(4);
    for (std::size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                const int own = Open();
                failures[t] |= TsmConnectToFileSpace(own, C("vm"));
                const std::string path = "t/" + std::to_string(t);
                for (int n = 0; n < 3; ++n) failures[t] |= Store(own, path, std::to_string(n), data);
                failures[t] |= TsmCloseSession(own);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(4));
    for (int t = 0; t < 4; ++t) {
        for (int n = 0; n < 3; ++n) EXPECT_EQ(Data("t/" + std::to_string(t), std::to_string(n)) == data, true);
    }
    EXPECT_EQ(All(1).size(), 1u + 4u + 12u);
}

namespace {

enum Stage { Nothing, Initialised, SignedOn, Connected };

struct Operation {
    const char* name;
    Stage stage;
    std::function<long long(int&)> run;
    long long result;
    const char* changes;     // names that it adds to the store and takes away
    const char* passedOver;  // the API's functions whose failure it may answer with success; "*": any
};

void PrintTo(const Operation& operation, std::ostream* out) {
    *out << operation.name;
}

// How a call fails; in a row, so do the 50 that follow.
struct Fault {
    dsInt16_t rc;
    dsUint16_t reason;
    bool inARow;
    const char* only;  // the function that can fail so; null: any
};
const Fault faults[] = {{11, 12, false, nullptr}, {-11, 12, false, nullptr},   {157, 12, false, nullptr},
                        {11, 12, true, nullptr},  {0, 12, false, "dsmEndTxn"}, {11, 0, false, "dsmEndTxn"}};

const char* const functions[] = {
    "dsmSetUp",     "dsmInitEx",    "dsmTerminate",    "dsmCleanUp", "dsmRegisterFS", "dsmBeginQuery", "dsmGetNextQObj",
    "dsmEndQuery",  "dsmBindMC",    "dsmBeginTxn",     "dsmSendObj", "dsmSendData",   "dsmEndSendObj", "dsmEndTxn",
    "dsmDeleteObj", "dsmRenameObj", "dsmBeginGetData", "dsmGetObj",  "dsmGetData",    "dsmEndGetObj",  "dsmEndGetData"};

std::string scratch;  // where the operations put what nobody looks at
char** list;
TsmObject* objects;
const char* optionsFile;

const Operation operations[] = {
    {"Initialise", Nothing, [](int&) { return TsmInitApi(C(optionsFile), nullptr, nullptr, nullptr); }, 0, "", ""},
    {"SignOn", Initialised, [](int& s) { return (s = Open()) > 0 ? 1 : s; }, 1, "", ""},
    {"Connect", SignedOn, [](int& s) { return TsmConnectToFileSpace(s, C("other")); }, 0, "+other ", ""},
    {"ListFilespaces", Connected, [](int& s) { return TsmGetFileSpaces(s, &list); }, 1, "", ""},
    {"ListClasses", Connected, [](int& s) { return TsmGetMgmtClasses(s, &list); }, 1, "", ""},
    {"BackupWithNewDirectories", Connected, [](int& s) { return Store(s, "n/m", "f", "data"); }, 0,
     "+/n/ +/n/m/ +/n/m/f ", "dsmEndSendObj"},
    {"BackupInPieces", Connected,
     [](int& s) {
         standinTakeAtMost(3);
         return Store(s, "d", "f", "12345678", 5);
     },
     0, "+/d/f +/d/f -/d/f ", "dsmEndSendObj"},
    {"Inventory", Connected, [](int& s) { return TsmGetBackupInfo(s, C("*"), nullptr, 0, TSM_OBJECTS_ANY, &objects); },
     17, "", ""},
    {"InventoryAtAMoment", Connected,
     [](int& s) {
         return TsmGetBackupInfoPointInTime(s, C("*"), nullptr, C("2021-1-1 0:0:14"), TSM_OBJECTS_ANY, &objects);
     },
     10, "", ""},
    {"RestoreToTheEnd", Connected, [](int& s) { return Fetch(s, "d", "f", nullptr, scratch); }, 6, "", ""},
    {"RestoreBrokenOff", Connected, [](int& s) { return Fetch(s, "", "big", nullptr, scratch, 1); }, 32768, "", ""},
    {"DeleteActive", Connected, [](int& s) { return TsmDelete(s, C("d"), C("f"), 0, nullptr); }, 0, "+/d/f -/d/f ",
     "*"},
    {"DeleteAllVersions", Connected, [](int& s) { return TsmDelete(s, C("d"), C("f"), 1, nullptr); }, 0, "-/d/f -/d/f ",
     "*"},
    {"DeleteWithClimb", Connected, [](int& s) { return TsmDelete(s, C("c/e/g"), C("f"), 1, nullptr); }, 0,
     "-/c/ -/c/e/ -/c/e/g/ -/c/e/g/f ", "*"},
    {"RenameOntoAFreeName", Connected, [](int& s) { return TsmRenameBackup(s, "old/x", "f", "n/m", "g"); }, 0,
     "+/n/ +/n/m/ +/n/m/g +/n/m/g -/old/ -/old/x/ -/old/x/f -/old/x/f ", "*"},
    {"RenameOntoATakenName", Connected, [](int& s) { return TsmRenameBackup(s, "old/x", "f", "t", "f"); }, 0,
     "+/t/f +/t/f -/old/ -/old/x/ -/old/x/f -/old/x/f -/t/f -/t/f ", "*"},
    {"Close", Connected, [](int& s) { return TsmCloseSession(std::exchange(s, 0)); }, 0, "", ""},
    {"Release", Connected, [](int&) { return TsmReleaseApi(); }, 0, "", "dsmTerminate"},
};

Lines Minus(const Lines& from, const Lines& what) {
    Lines rest;
    std::set_difference(from.begin(), from.end(), what.begin(), what.end(), std::inserter(rest, rest.end()));
    return rest;
}

class Sweep : public System, public testing::WithParamInterface<Operation> {
protected:
    void StoreObjects() {
        const char* const stored[][3] = {{"d", "f", "d1"},     {"d", "f", "second"}, {"d", "keep", "k"},
                                         {"c/e/g", "f", "c1"}, {"old/x", "f", "o1"}, {"old/x", "f", "o2"},
                                         {"t", "f", "t1"},     {"t", "f", "t2"},     {"t", "keep", "k"}};
        int second = 10;
        for (const auto& [path, name, data] : stored) {
            standinSetClock(("2021-01-01 00:00:" + std::to_string(second++)).c_str());
            ASSERT_EQ(Store(session, path, name, data), 0);
        }
        ASSERT_EQ(Store(session, "", "big", std::string(32769, 'x')), 0);
        ASSERT_EQ(TsmReleaseApi(), 0);
        fs::rename(folder / "store", folder / "prepared");
        options = (folder / "dsm.opt").string();
        optionsFile = options.c_str();
    }

    // Runs the operation on the prepared store; the nth call of a function fails ("*": of any; 0: none does). Leaves
    // the session in one of the ways that the host guide names.
    long long Run(const char* function, unsigned nth, const Fault& fault) {
        const Operation& op = GetParam();
        fs::remove_all(folder / "store");
        fs::copy(folder / "prepared", folder / "store", fs::copy_options::recursive);
        session = 0;
        EXPECT_TRUE(op.stage < Initialised || InitApi() == 0);
        EXPECT_TRUE(op.stage < SignedOn || (session = Open()) > 0);
        EXPECT_TRUE(op.stage < Connected || TsmConnectToFileSpace(session, C("vm")) == 0);
        standinReset();
        standinSetClock("2022-02-02 02:02:02");
        for (unsigned n = nth; n != 0 && n <= nth + (fault.inARow ? 50 : 0); ++n) {
            standinFail(function, n, fault.rc, fault.reason);
        }
        const long long result = op.run(session);
        for (const char* counted : functions) calls[counted] = static_cast<unsigned>(standinCalls(counted));
        calls["*"] = static_cast<unsigned>(standinCalls("*"));
        standinReset();
        standinSetClock("2022-02-02 02:02:03");
        if (!tsmApi || session <= 0) return result;
        // A host that got half its data away closes the session, any other may end what is open.
        if (!fault.inARow && std::strcmp(function, "dsmSendData") != 0) {
            if (TsmGetFileSpaces(session, &list) == TSM_RESULT_BAD_CALL_SEQUENCE) TsmEndBackup(session);
            EXPECT_GT(TsmGetFileSpaces(session, &list), 0) << "the session is still of use";
        }
        EXPECT_EQ(TsmCloseSession(session), 0);
        return result;
    }

    // What the store holds, as a new session sees it: the names of filespaces and versions (of files with their moment,
    // active ones with a star), and the data of all versions, under whatever name.
    struct Contents {
        Lines names, data;
    };
    Contents Look() {
        Contents found;
        std::size_t large = 0;  // smaller objects have no file
        if (tsmApi) TsmReleaseApi();
        Start("");
        const int filespaces = TsmGetFileSpaces(session, &list);
        for (int i = 0; i < filespaces; ++i) found.names.insert(list[i]);
        const std::vector<TsmObject> active = List(1);
        for (const TsmObject& v : List(0)) {
            const auto same = [&](const TsmObject& a) { return std::memcmp(&a, &v, sizeof v) == 0; };
            found.names.insert(Name(v) + " " + (v.isFile ? v.backupDate : "") +
                               (std::any_of(active.begin(), active.end(), same) ? "*" : ""));
            if (!v.isFile) continue;
            const std::string data = Data(v.highLevelName, v.lowLevelName + 1, v.backupDate);
            large += data.size() > 32768;
            found.data.insert(v.backupDate + data);
        }
        EXPECT_EQ(TsmReleaseApi(), 0);
        EXPECT_EQ(FilesIn("data"), large) << "bytes that belong to nothing, or the reverse";
        EXPECT_EQ(FilesIn("incoming"), 0u) << "bytes left behind";
        return found;
    }

    std::string options;
    std::map<std::string, unsigned> calls;  // of the last run
};

}  // namespace

// Whatever fails: nothing is lost that the operation leaves alone, nothing appears that neither was there before nor is
// there after a success, and the failure is reported, unless the header says otherwise.
TEST_P(Sweep, SurvivesFailuresOfEveryCall) {
    const Operation& op = GetParam();
    StoreObjects();
    fs::copy(folder / "prepared", folder / "store", fs::copy_options::recursive);
    const Contents before = Look();
    EXPECT_EQ(Run("", 0, {}), op.result);
    const auto undisturbed = calls;
    const Contents after = Look();
    std::string changes;
    const auto add = [&](const char* sign, const Lines& lines) {
        for (const std::string& line : lines) changes += sign + line.substr(0, line.find(' ')) + " ";
    };
    add("+", Minus(after.names, before.names));
    add("-", Minus(before.names, after.names));
    EXPECT_EQ(changes, op.changes);

    int count = 0;
    for (const auto& [function, times] : undisturbed) {
        const bool any = function == "*", passedOver = *op.passedOver == '*' || function == op.passedOver;
        for (const Fault& fault : faults) {
            if (any != fault.inARow || (fault.only && function != fault.only)) continue;
            // A rename believes a commit that answers 0.
            if (fault.rc == 0 && std::strncmp(op.name, "Rename", 6) == 0) continue;
            for (unsigned nth = 1; nth <= times; ++nth, ++count) {
                SCOPED_TRACE(function + " " + std::to_string(nth) + " answers " + std::to_string(fault.rc) +
                             ", reason " + std::to_string(fault.reason));
                const long long result = Run(function.c_str(), nth, fault);
                EXPECT_TRUE(any || passedOver || result != op.result) << "a failure that is not reported";
                const Contents now = Look();
                EXPECT_EQ(Minus(before.data, now.data), Minus(Minus(before.data, after.data), now.data)) << "lost";
                EXPECT_EQ(Minus(Minus(now.data, before.data), after.data), Lines{}) << "stray";
                for (const std::string& line : before.names) {
                    EXPECT_GE(now.names.count(line), std::min<std::size_t>(after.names.count(line), 1)) << line;
                }
                for (const std::string& line : now.names) {
                    const std::string name = line.substr(0, line.find('*'));
                    const auto known = [&](const Lines& lines) {
                        return lines.count(name) + lines.count(name + "*") + (name.find('~') != name.npos) > 0;
                    };
                    EXPECT_TRUE(known(before.names) || known(after.names)) << line;
                }
            }
        }
    }
    RecordProperty("faults", count);
}

INSTANTIATE_TEST_SUITE_P(Operation, Sweep, testing::ValuesIn(operations),
                         [](const auto& operation) { return std::string(operation.param.name); });
