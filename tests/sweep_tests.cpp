// Every call that an operation makes on the API fails once, in several ways: what the host is told, which calls still
// follow, what the store holds afterwards, and that the session goes on or can be closed.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "standin/testcontrol.h"
#include "tsmconnector.h"

namespace fs = std::filesystem;
using Lines = std::multiset<std::string>;  // what a store holds, a version or a filespace a line

namespace {

char* C(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

struct Kind {
    dsInt16_t rc;
    dsUint16_t reason;
    bool commitsOnly;
};
constexpr Kind kinds[] = {{11, 12, false}, {-11, 12, false}, {157, 12, false}, {0, 12, true}, {11, 0, true}};

// The letters that stand for the API's functions.
constexpr std::pair<char, const char*> functions[] = {
    {'S', "dsmSetUp"},        {'I', "dsmInitEx"},     {'T', "dsmTerminate"},   {'C', "dsmCleanUp"},
    {'F', "dsmRegisterFS"},   {'B', "dsmBeginQuery"}, {'n', "dsmGetNextQObj"}, {'e', "dsmEndQuery"},
    {'m', "dsmBindMC"},       {'t', "dsmBeginTxn"},   {'o', "dsmSendObj"},     {'s', "dsmSendData"},
    {'f', "dsmEndSendObj"},   {'c', "dsmEndTxn"},     {'d', "dsmDeleteObj"},   {'r', "dsmRenameObj"},
    {'g', "dsmBeginGetData"}, {'O', "dsmGetObj"},     {'D', "dsmGetData"},     {'x', "dsmEndGetObj"},
    {'z', "dsmEndGetData"}};

enum Stage { nothing, initialised, signedOn, connected };

// An operation, the calls that it makes undisturbed (letters as above), and for each of them what its failure means:
//   .  the negated code, and nothing further is called     r  the same, then the host ends its restore
//   p  the code with its sign turned round, after a clean-up     =  the code as it is
//   a  as ., but 157 ends the transaction and gives the negated reason
//   w  passed over, so that the object is missing; 157 makes the commit fail with the reason
//   W  the same in a rename's tidying, which no failure leaves
//   c  a backup's commit: the negated reason, without one the negated code
//   d  a deletion's commit: the negated code, with 0 the negated reason
//   M  a rename's commit: the negated reason, 0 without one; a reason with 0 is passed over
//   m  the same for the rename proper
//   b  the operation breaks off with 0
//   g  nothing at all
//   t  the tidying of a rename's old path ends there, and the new path is still seen to
//   k  what is left under a rename's taken target is moved aside
//   u  a rename's taken target counts as free, and the server refuses
struct Operation {
    const char* name;
    Stage stage;
    std::function<long long(int&)> run;
    long long result;
    std::string calls;
    std::string rules;
    const char* changes;  // which lines the operation adds and takes away
    const char* target = "";
    const char* aside = "";
};

void PrintTo(const Operation& operation, std::ostream* out) {
    *out << operation.name;
}

fs::path folder;  // of the test program: the prepared store, and the copy at work

int Open() {
    return TsmOpenSession(C("NODE"), nullptr, C("secret"), nullptr, nullptr, nullptr, C("/"));
}

int InitApi() {
    return TsmInitApi(C((folder / "dsm.opt").string()), nullptr, nullptr, nullptr);
}

int Start(Stage stage, int& session) {
    int result = stage >= initialised ? InitApi() : 0;
    if (result == 0 && stage >= signedOn) result = (session = Open()) > 0 ? 0 : session;
    return result == 0 && stage >= connected ? TsmConnectToFileSpace(session, C("vm")) : result;
}

// Stores the pieces one by one. What fails leaves the rest undone.
long long Store(int session, const char* path, const char* name, const std::vector<std::string>& pieces) {
    int result = TsmBeginBackupEx(session, C(path), C(name), 1, C("info"), nullptr);
    for (const std::string& piece : pieces) {
        if (result != 0) return result;
        result = TsmSendData(session, reinterpret_cast<unsigned char*>(C(piece)), static_cast<int>(piece.size()));
    }
    return result != 0 ? result : TsmEndBackup(session);
}

// Reads so many pieces at most. Returns how many bytes came, or the first failure.
long long Fetch(int session, const char* path, const char* name, char* at, int pieces, std::string* data = nullptr) {
    std::vector<unsigned char> room(32768);
    unsigned char* buffer = room.data();
    const long long size = TsmBeginRestore(session, C(path), C(name), at);
    long long total = 0, got = 0;
    while (size >= 0 && pieces-- > 0 && (got = TsmGetData(session, &buffer, 0)) > 0) {
        total += got;
        if (data != nullptr) data->append(room.begin(), room.begin() + got);
    }
    const int end = TsmEndRestore(session);
    return size < 0 ? size : got < 0 ? got : end < 0 ? end : total;
}

std::string WithoutBlanks(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

std::string Sorted(std::string text) {
    std::sort(text.begin(), text.end());
    return text;
}

std::string Names(const Lines& lines, char sign) {
    std::string names;
    for (const std::string& line : lines) names += sign + line.substr(0, line.find(' ')) + " ";
    return names;
}

Lines Minus(const Lines& from, const Lines& what) {
    Lines rest;
    std::set_difference(from.begin(), from.end(), what.begin(), what.end(), std::inserter(rest, rest.end()));
    return rest;
}

std::size_t FilesIn(const char* part) {
    const fs::recursive_directory_iterator entries(folder / "store" / part);
    return static_cast<std::size_t>(
        std::count_if(begin(entries), end(entries), [](const auto& entry) { return entry.is_regular_file(); }));
}

struct Outcome {
    long long result;
    Lines state;
    int follow;  // calls after the one that failed; -1: not looked at
};

class Sweep : public testing::TestWithParam<Operation> {
protected:
    static void SetUpTestSuite() {
        std::string name = "/dev/shm/tsm-sweep-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            name = (fs::temp_directory_path() / "tsm-sweep-XXXXXX").string();
            ASSERT_NE(mkdtemp(name.data()), nullptr);
        }
        folder = name;
        std::ofstream(folder / "dsm.opt") << "STOREDIR store\n";
        int session = 0;
        ASSERT_EQ(Start(connected, session), 0);
        const struct {
            const char *path, *name, *data;
        } stored[] = {{"d", "f", "d1"},     {"d", "f", "second"}, {"d", "keep", "k"},
                      {"c/e/g", "f", "c1"}, {"old/x", "f", "o1"}, {"old/x", "f", "o2"},
                      {"t", "f", "t1"},     {"t", "f", "t2"},     {"t", "keep", "k"}};
        int second = 10;
        for (const auto& object : stored) {
            standinSetClock(("2021-01-01 00:00:" + std::to_string(second++)).c_str());
            ASSERT_EQ(Store(session, object.path, object.name, {object.data}), 0);
        }
        ASSERT_EQ(Store(session, "", "big", {std::string(32769, 'x')}), 0);
        ASSERT_EQ(TsmReleaseApi(), 0);
        fs::rename(folder / "store", folder / "prepared");
    }
    static void TearDownTestSuite() { fs::remove_all(folder); }

    void TearDown() override {
        if (tsmApi != nullptr) TsmReleaseApi();
        standinReset();
    }

    // The whole store, as a new session sees it: versions with their data, active ones with a star. Directory objects
    // are told by a delimiter at the end; the time in a name that was moved aside is a tilde.
    Lines Contents() {
        Lines lines;
        if (op.stage == nothing || tsmApi == nullptr) {
            if (tsmApi != nullptr) TsmReleaseApi();
            EXPECT_EQ(InitApi(), 0);
        }
        session = Open();
        EXPECT_GT(session, 0);
        char** names = nullptr;
        const int filespaces = TsmGetFileSpaces(session, &names);
        for (int i = 0; i < filespaces; ++i) lines.insert(names[i]);
        EXPECT_EQ(TsmConnectToFileSpace(session, C("vm")), 0);
        const auto list = [&](int activeOnly) {
            TsmObject* objects = nullptr;
            const int count = TsmGetBackupInfo(session, C("*"), nullptr, activeOnly, TSM_OBJECTS_ANY, &objects);
            EXPECT_GE(count, 0);
            return std::vector<TsmObject>(objects, objects + std::max(count, 0));
        };
        const std::vector<TsmObject> active = list(1);
        std::size_t withData = 0;
        for (const TsmObject& v : list(0)) {
            std::string line;
            for (std::string name : {v.highLevelName, v.lowLevelName}) {
                if (!name.empty() && name.back() == '\n') name.replace(name.size() - 25, 25, "~");
                line += name;
            }
            const auto same = [&](const TsmObject& a) { return std::memcmp(&a, &v, sizeof v) == 0; };
            line += v.isFile ? " " : "/ ";
            if (std::any_of(active.begin(), active.end(), same)) line += "*";
            if (v.isFile) {
                std::string data;
                EXPECT_GE(Fetch(session, v.highLevelName, v.lowLevelName + 1, C(v.backupDate), 9, &data), 0);
                line += std::string(v.backupDate) + v.objectInfo + data.substr(0, 20) + std::to_string(data.size());
                withData += data.size() > 32768;  // smaller ones have no file
            }
            lines.insert(line);
        }
        EXPECT_EQ(TsmCloseSession(session), 0);
        EXPECT_EQ(TsmReleaseApi(), 0);
        EXPECT_EQ(FilesIn("data"), withData) << "bytes that belong to nothing, or the reverse";
        EXPECT_EQ(FilesIn("incoming"), 0u) << "bytes left behind";
        return lines;
    }

    // Runs the operation on the prepared store with the nth to the last call failing (0: none).
    void Run(std::size_t nth, std::size_t last, Kind kind) {
        fs::remove_all(folder / "store");
        fs::copy(folder / "prepared", folder / "store", fs::copy_options::recursive);
        session = 0;
        ASSERT_EQ(Start(op.stage, session), 0);
        standinReset();
        standinSetClock("2022-02-02 02:02:02");
        for (std::size_t n = nth; n != 0 && n <= last; ++n) {
            standinFail("*", static_cast<unsigned>(n), kind.rc, kind.reason);
        }
        result = op.run(session);
        total = standinCalls("*");
        made.clear();
        for (const auto& [letter, function] : functions) made.append(standinCalls(function), letter);
        standinReset();
        standinSetClock("2022-02-02 02:02:03");
    }

    // Leaves the session in one of the ways that hosts are told, and tells what the store holds then.
    Lines Leave(bool open, bool endFirst) {
        if (tsmApi != nullptr && session > 0) {
            char** names = nullptr;
            if (endFirst) {
                EXPECT_EQ(TsmGetFileSpaces(session, &names) == -2041, open) << "whether a transaction was left open";
                if (open) TsmEndBackup(session);
                EXPECT_GT(TsmGetFileSpaces(session, &names), 0) << "the session is still of use";
            }
            EXPECT_EQ(TsmCloseSession(session), 0);
        }
        return Contents();
    }

    std::size_t CommitsBefore(std::size_t at) const {
        return static_cast<std::size_t>(std::count(calls.begin(), calls.begin() + static_cast<long>(at), 'c'));
    }

    // The last state without what some of the commits did.
    Lines Undone(std::size_t from, std::size_t to) const {
        Lines lines = states.back();
        for (std::size_t i = from; i < to; ++i) {
            lines = Minus(lines, Minus(states[i + 1], states[i]));
            lines.merge(Minus(states[i], states[i + 1]));
        }
        return lines;
    }

    // The last state without the target's objects, or with those of another state moved aside.
    Lines Target(const Lines* movedAside) const {
        Lines lines;
        const std::string target = op.target;
        const auto is = [&](const std::string& line) { return line.compare(0, target.size(), target) == 0; };
        for (const std::string& line : states.back()) {
            if (movedAside != nullptr || !is(line)) lines.insert(line);
        }
        for (const std::string& line : movedAside != nullptr ? *movedAside : Lines{}) {
            if (is(line)) lines.insert(op.aside + line.substr(target.size()));
        }
        return lines;
    }

    Outcome Expected(std::size_t at, Kind kind) const {
        const char call = calls[at], rule = rules[at];
        const int negated = -std::abs(kind.rc), reason = -static_cast<int>(kind.reason);
        const bool willAbort = kind.rc == 157;
        const std::size_t commits = CommitsBefore(at);
        const Lines& here = states[commits];
        if (rule == '.') return {negated, here, 0};
        if (rule == 'r') return {negated, here, 1};
        if (rule == 'p') return {-kind.rc, here, 1};
        if (rule == '=') return {kind.rc, here, 0};
        if (rule == 'a') return {willAbort ? reason : negated, here, !willAbort ? 0 : call == 's' ? 2 : 1};
        if (rule == 'w' && willAbort) return {reason, here, 1};
        if (rule == 'W' && willAbort) return {0, here, 1};
        if (rule == 'w' || rule == 'W') return {0, Undone(commits, commits + 1), -1};
        if (rule == 'c') return {reason != 0 ? reason : negated, here, 0};
        if (rule == 'd') return {kind.rc != 0 ? negated : reason, here, 0};
        if ((rule == 'm' || rule == 'M') && kind.rc != 0) return {reason, here, 0};
        // What was not renamed is then deleted under its old name, and that is meant to stay so.
        if (rule == 'm') return {0, Target(nullptr), -1};
        if (rule == 'b') return {0, here, -1};
        if (rule == 'g' || rule == 'M') return {op.result, states.back(), -1};
        if (rule == 'u') return {-32, here, 2};
        // A deletion that was refused leaves its transaction in the way of all that follows.
        if (rule == 't' && call == 'd') return {0, here, -1};
        if (rule == 'k' && call == 'd') return {-2041, here, 1};
        if (rule == 't') return {0, Undone(commits, CommitsBefore(rules.find_first_not_of("tg", at))), -1};
        if (rule == 'k') return {0, Target(&here), -1};
        ADD_FAILURE() << "no such rule: " << rule;
        return {};
    }

    void FailOnce(std::size_t at, Kind kind) {
        const char call = calls[at];
        SCOPED_TRACE("call " + std::to_string(at + 1) + " (" + call + ") answers " + std::to_string(kind.rc) +
                     ", reason " + std::to_string(kind.reason));
        Run(at + 1, at + 1, kind);
        const Outcome expected = Expected(at, kind);
        EXPECT_EQ(result, expected.result);
        if (expected.follow >= 0) {
            EXPECT_EQ(total, at + 1 + static_cast<std::size_t>(expected.follow)) << "calls made in all";
        }
        if (expected.follow == 0) {
            EXPECT_EQ(Sorted(made), Sorted(calls.substr(0, at + 1)));
        }
        // After a failure in the middle of data a host closes at once; otherwise both ways are tried.
        const bool open = rules[at] == 'u' || call == 'd' || ((call == 'o' || call == 'r') && kind.rc != 157);
        EXPECT_EQ(Leave(open, kind.rc > 0 && call != 's'), expected.state);
    }

    const Operation& op = GetParam();
    const std::string calls = WithoutBlanks(op.calls), rules = WithoutBlanks(op.rules);
    std::vector<Lines> states;  // after each number of commits
    int session = 0;
    long long result = 0;
    std::size_t total = 0;
    std::string made;  // the calls, by function
};

const std::string climb = "Bne Bnne tdc", oldPath = "Bne" + climb + climb, newDirectory = "Bne mtofc";
const std::string tidyOld = "tgt ttt tttt ttt ttt tttt ttt", tidyNew = "bbb bbbWb";

// Where the operations put what nobody looks at.
char** list;
TsmObject* objects;

const Operation operations[] = {
    {"Initialise", nothing, [](int&) { return InitApi(); }, 0, "S", "p", ""},
    {"SignOn", initialised, [](int& s) { return (s = Open()) > 0 ? 1 : s; }, 1, "I", ".", ""},
    {"Connect", signedOn, [](int& s) { return TsmConnectToFileSpace(s, C("other")); }, 0, "F", ".", "+other "},
    {"ListFilespaces", connected, [](int& s) { return TsmGetFileSpaces(s, &list); }, 1, "Bnne", "....", ""},
    {"ListClasses", connected, [](int& s) { return TsmGetMgmtClasses(s, &list); }, 1, "Bnne", "....", ""},
    {"BackupWithMissingDirectories", connected, [](int& s) { return Store(s, "n/m", "f", {"data"}); }, 0,
     newDirectory + newDirectory + "mto s fc", "... ..awc ... ..awc ..a a wc", "+/n/ +/n/m/ +/n/m/f "},
    {"BackupWithExistingDirectories", connected, [](int& s) { return Store(s, "c/e", "f", {}); }, 0, "Bnne Bnne mto fc",
     ".... .... ..a wc", "+/c/e/f "},
    {"SendInPieces", connected,
     [](int& s) {
         standinTakeAtMost(3);
         return Store(s, "d", "f", {"12345", "678"});
     },
     0, "Bnne mto sss fc", ".... ..a aaa wc", "+/d/f +/d/f -/d/f "},
    {"Inventory", connected, [](int& s) { return TsmGetBackupInfo(s, C("*"), nullptr, 0, TSM_OBJECTS_ANY, &objects); },
     17, "B" + std::string(18, 'n') + "e", std::string(20, '.'), ""},
    {"InventoryAtAPointInTime", connected,
     [](int& s) {
         return TsmGetBackupInfoPointInTime(s, C("*"), nullptr, C("2021-1-1 0:0:14"), TSM_OBJECTS_ANY, &objects);
     },
     10, "B" + std::string(11, 'n') + "e", std::string(13, '.'), ""},
    {"RestoreToTheEnd", connected, [](int& s) { return Fetch(s, "d", "f", nullptr, 9); }, 6, "Bnne mgODx z",
     "rrrr rrrrr .", ""},
    {"RestoreBrokenOff", connected, [](int& s) { return Fetch(s, "", "big", nullptr, 1); }, 32768, "Bnne mgOD z",
     "rrrr rrrr .", ""},
    {"DeleteActive", connected, [](int& s) { return TsmDelete(s, C("d"), C("f"), 0, nullptr); }, 0, "Bnne tdc Bnne",
     ".bb. ..d bbbb", "+/d/f -/d/f "},
    {"DeleteAllVersions", connected, [](int& s) { return TsmDelete(s, C("d"), C("f"), 1, nullptr); }, 0,
     "Bnnne tdc tdc Bnne", ".bbb. ..d ..d bbbb", "-/d/f -/d/f "},
    {"DeleteWithClimb", connected, [](int& s) { return TsmDelete(s, C("c/e/g"), C("f"), 1, nullptr); }, 0,
     "Bnne tdc" + climb + climb + climb, ".bb. ..d" + std::string(30, 'b'), "-/c/ -/c/e/ -/c/e/g/ -/c/e/g/f "},
    {"RenameOntoAFreeName", connected, [](int& s) { return TsmRenameBackup(s, "old/x", "f", "n/m", "g"); }, 0,
     "Bnnne Bne trc" + oldPath + newDirectory + newDirectory, "ggggg ggg .am" + tidyOld + tidyNew + tidyNew,
     "+/n/ +/n/m/ +/n/m/g +/n/m/g -/old/ -/old/x/ -/old/x/f -/old/x/f ", "/n/m/g "},
    {"RenameOntoATakenName", connected, [](int& s) { return TsmRenameBackup(s, "old/x", "f", "t", "f"); }, 0,
     "Bnnne Bnnne Bnnne tdc tdc Bnne trc trc" + oldPath + "Bnne",
     "ggggg uuuuu kkkkk kkk kkk gggg .aM .am" + tidyOld + "bbbb",
     "+/t/f +/t/f -/old/ -/old/x/ -/old/x/f -/old/x/f -/t/f -/t/f ", "/t/f ", "/t~/f~ "},
    {"Close", connected, [](int& s) { return TsmCloseSession(std::exchange(s, 0)); }, 0, "T", "=", ""},
    {"Release", connected, [](int&) { return TsmReleaseApi(); }, 0, "TC", "g=", ""},
};

}  // namespace

TEST_P(Sweep, SurvivesFailuresOfEveryCall) {
    ASSERT_EQ(calls.size(), rules.size());
    Run(0, 0, {});
    EXPECT_EQ(result, op.result);
    ASSERT_EQ(Sorted(made), Sorted(calls)) << "the undisturbed calls";
    ASSERT_EQ(total, calls.size()) << "and no others";
    const Lines after = Leave(false, true);

    // From every call on, all fail: what was committed before is there, and nothing else.
    for (std::size_t n = 1; n <= calls.size(); ++n) {
        SCOPED_TRACE("dead from call " + std::to_string(n) + " on");
        Run(n, n + 50, kinds[0]);
        const Lines state = Leave(false, false);
        if (CommitsBefore(n - 1) == states.size()) states.push_back(state);
        EXPECT_EQ(state, states.back());
    }
    if (std::strchr("cF", calls.back()) != nullptr) states.push_back(after);
    ASSERT_EQ(states.back(), after);
    EXPECT_EQ(Names(Minus(after, states[0]), '+') + Names(Minus(states[0], after), '-'), op.changes);

    int faults = 0;
    for (std::size_t at = 0; at < calls.size(); ++at) {
        for (const Kind& kind : kinds) {
            if (!kind.commitsOnly || calls[at] == 'c') ++faults, FailOnce(at, kind);
        }
    }
    RecordProperty("faults", faults);
}

INSTANTIATE_TEST_SUITE_P(Operation, Sweep, testing::ValuesIn(operations),
                         [](const auto& operation) { return std::string(operation.param.name); });
