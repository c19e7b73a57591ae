// Deletion, the directories that it leaves empty, and renaming.
#include <ctime>

#include "Fixture.h"

namespace {

std::string Query(const std::string& name, int state) {
    return "dsmBeginQuery q=1 v=2 " + name + " type=255 state=" + std::to_string(state) + " at=0.0.0.0.0.0";
}

Found Object(const std::string& hl, const std::string& ll, dsUint32_t id, dsUint8_t type = DSM_OBJ_FILE) {
    Found found{"/vm", hl, ll, type};
    found.id = id;
    return found;
}

// The lines of one query.
Lines Asked(const std::string& name, int state) {
    return {Query(name, state), "dsmGetNextQObj v=3 length=4600 response=8", "dsmEndQuery"};
}

Lines Removed(const std::string& what) {
    return {"dsmBeginTxn", "dsmDeleteObj " + what, "dsmEndTxn vote=1 reason=0"};
}

Lines Renamed(const std::string& from, const std::string& to) {
    return {"dsmBeginTxn", "dsmRenameObj v=1 out=1 repository=11 " + from + " to " + to + " merge=0 id=0:0",
            "dsmEndTxn vote=1 reason=0"};
}

}  // namespace

TEST_F(Library, DeletesAndClimbs) {
    const int session = Connect();
    // Two active objects, then the directories above, of which the topmost still holds something.
    api.Finds({Object("/a/b", "/f", 5), Object("/a/b", "/g", 6, 9)});
    api.Finds({}, 2);
    api.Finds({Object("/a", "/b", 7, DSM_OBJ_DIRECTORY)});
    api.Finds({Object("/a", "/c", 8)});
    EXPECT_EQ(TsmDelete(session, C("a\\b/"), nullptr, 2, nullptr), 0);
    EXPECT_EQ(api.Taken(), Asked("'/vm' '/a/b' '/*'", 1) + Removed("del=1 v=1 '/vm' '/a/b' '/f' type=1 group=105") +
                               Removed("del=1 v=1 '/vm' '/a/b' '/g' type=9 group=106") + Asked("'/vm' '/a/b' '/*'", 1) +
                               Asked("'/vm' '/a' '/b'", 1) + Removed("del=1 v=1 '/vm' '/a' '/b' type=2 group=107") +
                               Asked("'/vm' '/a' '/*'", 1));

    // Every version, by identifier; a directory object that is missing does not stop the climb to the root.
    api.Finds({Object("/a/b", "/f", 1), Object("/a/b", "/f", 2), Object("/a/b", "/f", 3)});
    EXPECT_EQ(TsmDelete(session, C("/a/b"), C("f/"), 1, nullptr), 0);
    EXPECT_EQ(api.Taken(), Asked("'/vm' '/a/b' '/f'", 255) + Removed("del=2 v=1 0:1") + Removed("del=2 v=1 0:2") +
                               Removed("del=2 v=1 0:3") + Asked("'/vm' '/a/b' '/*'", 1) +
                               Asked("'/vm' '/a' '/b'", 255) + Asked("'/vm' '/a' '/*'", 1) +
                               Asked("'/vm' '' '/a'", 255));

    const struct {
        const char* delimiter;
        const char* path;
        const char* name;
        Lines calls;
    } names[] = {
        {"/", "*", nullptr, Asked("'/vm' '*' '/*'", 1) + Asked("'/vm' '*' '/*'", 1) + Asked("'/vm' '' '/*'", 1)},
        {"/", "", "x", Asked("'/vm' '' '/x'", 1)},
        {"/", "/", "", Asked("'/vm' '' '/'", 1)},
        {"\\", "", nullptr, Asked("'\\vm' '' '\\*'", 1)},
        {":", "", nullptr, Asked("':vm' '' '/*'", 1)},
        {"/", "a//", "f", Asked("'/vm' '/a/' '/f'", 1) + Asked("'/vm' '/a' '/*'", 1) + Asked("'/vm' '' '/a'", 1)},
        // A delimiter that would lead back to the same directory for ever.
        {"aa", "x", "f",
         Asked("'aavm' 'aax' 'aaf'", 1) + Asked("'aavm' 'aax' '/*'", 1) + Asked("'aavm' 'aaa' 'aax'", 1)},
    };
    for (const auto& n : names) {
        const int other = Connect(n.delimiter);
        EXPECT_EQ(TsmDelete(other, C(n.path), C(n.name), 0, nullptr), 0);
        EXPECT_EQ(api.Taken(), n.calls);
    }
    // A delimiter of several characters loses a level for each, if not a character.
    EXPECT_EQ(TsmDelete(Connect("ab"), C("abxabyabzabw"), C("f"), 0, nullptr), 0);
    EXPECT_EQ(api.TakenNames().size(), 3u * 9u);
    EXPECT_EQ(TsmDelete(Connect(), C(""), C("f"), 1, C("2021-3-7")), 0);
    EXPECT_EQ(api.Taken().at(0), "dsmBeginQuery q=1 v=2 '/vm' '' '/f' type=255 state=255 at=2021.3.7.0.0.0");
}

TEST_F(Library, AnswersFailedDeletions) {
    const std::vector<Found> two = {Object("/a", "/f", 1), Object("/a", "/g", 2)};
    const std::string asked = "BeginQuery GetNextQObj EndQuery ", removed = "BeginTxn DeleteObj EndTxn ";
    const struct {
        dsInt16_t end;
        std::map<std::string, std::deque<Answer>> answers;
        int result;
        std::string calls;
    } cases[] = {
        {121, {{"dsmBeginQuery", {{-5}}}}, -5, "BeginQuery"},
        {121, {{"dsmEndQuery", {{1}}}}, -1, asked},
        {2, {{"dsmEndQuery", {{5}}}}, -2, asked},
        {11, {{"dsmEndQuery", {{5}}}}, -2, asked},
        {11, {{"dsmBeginQuery", {{0}, {9}}}}, 0, asked + "BeginQuery"},
        {121, {{"dsmBeginTxn", {{0}, {7}}}}, -7, asked + removed + "BeginTxn"},
        {121, {{"dsmDeleteObj", {{0}, {157}}}}, -157, asked + removed + "BeginTxn DeleteObj"},
        {121, {{"dsmEndTxn", {{2302, 106}}}}, -2302, asked + removed},
        {121, {{"dsmEndTxn", {{0, 40000}}}}, -40000, asked + removed},
        {0, {{"dsmBeginQuery", {{0}, {9}}}}, 0, asked + "BeginQuery"},
        // A climb that fails on its way is nobody's failure, and ends there.
        {121, {{"dsmBeginTxn", {{0}, {0}, {7}}}}, 0, asked + removed + removed + asked + asked + "BeginTxn"},
        {121, {{"dsmBeginQuery", {{0}, {0}, {8}}}}, 0, asked + removed + removed + asked + "BeginQuery"},
        {121, {{"dsmEndQuery", {{0}, {8}}}}, 0, asked + removed + removed + asked},
    };
    for (const auto& c : cases) {
        const int session = Connect();
        api.sets.clear();
        api.Finds(two, c.end);
        if (c.answers.count("dsmBeginTxn") != 0) {
            api.Finds({});
            api.Finds({Object("", "/a", 3, DSM_OBJ_DIRECTORY)});
        }
        for (const auto& [function, answers] : c.answers) api.Answers(function, answers);
        EXPECT_EQ(TsmDelete(session, C("a"), nullptr, 0, nullptr), c.result);
        EXPECT_EQ(api.TakenNames(), Calls(c.calls));
        for (const auto& [function, answers] : c.answers) api.Answers(function, {});
    }
    const int session = Connect();
    EXPECT_EQ(TsmDelete(session, nullptr, C("f"), 0, nullptr), -2000);
    EXPECT_EQ(TsmDelete(session, C(std::string(1024, 'p').c_str()), C("f"), 0, nullptr), -2120);
    EXPECT_EQ(TsmDelete(session, C("p"), C(std::string(256, 'n').c_str()), 0, nullptr), -2120);
    EXPECT_EQ(TsmDelete(Open("/"), C("p"), C("f"), 0, nullptr), -2061);
    EXPECT_EQ(api.Taken(), Lines{});
}

TEST_F(Library, RenamesToAFreeName) {
    const int session = Connect();
    api.Finds({Object("/old", "/f", 1, DSM_OBJ_DIRECTORY), Object("/old", "/f", 2)});
    api.Finds({});                         // the new name is free
    api.Finds({Object("/old", "/f", 3)});  // what is left under the old one
    api.Finds({});                         // nothing else in its directory
    api.Finds({Object("", "/old", 4, DSM_OBJ_DIRECTORY)});
    EXPECT_EQ(TsmRenameBackup(session, "old/", "f\\", "n\\ew", "/g"), 0);
    const auto created = [](const std::string& hl, const std::string& ll) {
        const std::string name = "'/vm' '" + hl + "' '" + ll + "' type=2";
        return Lines{"dsmBeginQuery q=1 v=2 " + name + " state=1 at=0.0.0.0.0.0",
                     "dsmGetNextQObj v=3 length=4600 response=8",
                     "dsmEndQuery",
                     "dsmBindMC " + name + " send=0 v=1 mc=''",
                     "dsmBeginTxn",
                     "dsmSendObj send=0 " + name + " v=4 owner='' size=0:0 compressed=0 info='' length=1 mc=null",
                     "dsmEndSendObj",
                     "dsmEndTxn vote=1 reason=0"};
    };
    EXPECT_EQ(api.Taken(), Asked("'/vm' '/old' '/f'", 255) + Asked("'/vm' '/n/ew' '/g'", 255) +
                               Renamed("'/vm' '/old' '/f' type=2", "'/n/ew' '/g'") + Asked("'/vm' '/old' '/f'", 255) +
                               Removed("del=2 v=1 0:3") + Asked("'/vm' '/old' '/*'", 1) +
                               Asked("'/vm' '' '/old'", 255) + Removed("del=2 v=1 0:4") + created("", "/n") +
                               created("/n", "/ew"));

    // Look-ups that break off do not stop it: the old name counts as a file, the new one as free.
    api.Finds({Object("/a/b", "/f", 1, DSM_OBJ_DIRECTORY)}, 11);
    api.Finds({Object("", "/c/d", 1, DSM_OBJ_DIRECTORY)}, -11);
    EXPECT_EQ(TsmRenameBackup(Connect("\\"), "a/b", "f", "/", "c/d"), 0);
    const Lines calls = api.Taken();
    EXPECT_EQ(calls.at(0), Query("'\\vm' '\\a\\b' '\\f'", 255));
    EXPECT_EQ(calls.at(2), Query("'\\vm' '' '\\c\\d'", 255));
    EXPECT_EQ(calls.at(5), Renamed("'\\vm' '\\a\\b' '\\f' type=1", "'' '\\c\\d'").at(1));

    // What follows the rename may fail: its deletion and its directories.
    for (const char* function : {"dsmBeginQuery", "dsmEndQuery"}) {
        api.sets.clear();
        api.Finds({Object("/old", "/f", 1)});
        api.Answers(function, {{0}, {0}, {5}, {0}, {5}, {5}});
        EXPECT_EQ(TsmRenameBackup(Connect(), "old", "f", "new", "f"), 0);
        api.Taken();
        api.Answers(function, {});
    }
    api.sets.clear();
    EXPECT_EQ(TsmRenameBackup(Connect(), "old", "f", "new", "f"), -2);
    EXPECT_EQ(api.Taken(), Asked("'/vm' '/old' '/f'", 255)) << "the new name is not looked at";
}

TEST_F(Library, MovesATakenNameAside) {
    const int session = Connect();
    const auto prepare = [&] {
        api.sets.clear();
        api.Finds({Object("", "/f", 1)});
        api.Finds({Object("/b", "/g", 2, DSM_OBJ_DIRECTORY)});
        api.Finds({Object("/b", "/g", 2), Object("/b", "/g", 3)});
        api.Finds({Object("/b", "/h", 4)});  // a sibling
    };
    prepare();
    api.Answers("dsmDeleteObj", {{0}, {106}});  // a deletion that fails is passed over
    std::string time;
    tzset();
    setenv("TZ", "ABC-7", 1);  // as a host may at any time
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(TsmRenameBackup(session, "", "f", "b", "g"), 0);
    const std::time_t after = std::time(nullptr);
    const Lines calls = api.Taken();
    const std::size_t aside = 14;
    ASSERT_GT(calls.size(), aside + 5);
    for (const std::time_t& moment : {before, after}) {
        const std::string candidate = std::ctime(&moment);
        if (calls[aside + 1].find("/b" + candidate + "'") != std::string::npos) time = candidate;
    }
    EXPECT_EQ(time.size(), 25u);
    const Lines expected = Asked("'/vm' '' '/f'", 255) + Asked("'/vm' '/b' '/g'", 255) + Asked("'/vm' '/b' '/g'", 255) +
                           Removed("del=2 v=1 0:2") + Lines{"dsmBeginTxn", "dsmDeleteObj del=2 v=1 0:3"} +
                           Renamed("'/vm' '/b' '/g' type=2", "'/b" + time + "' '/g" + time + "'") +
                           Renamed("'/vm' '' '/f' type=1", "'/b' '/g'");
    EXPECT_EQ(Lines(calls.begin(), calls.begin() + static_cast<long>(expected.size())), expected);

    // Every way in which a rename can end, aside (the first) and the main one (the second).
    const struct {
        Answer begin, rename, end;
        int result;
        std::size_t calls;
        bool goesOn;
    } outcomes[] = {
        {{7}, {}, {}, -7, 1, false},          {{0}, {32}, {}, -32, 2, false},
        {{0}, {-9}, {}, -9, 2, false},        {{0}, {157}, {0, 0}, 0, 3, false},
        {{0}, {157}, {0, 5}, 0, 3, false},    {{0}, {157}, {2302, 40000}, -40000, 3, false},
        {{0}, {157}, {2302, 0}, 0, 3, false}, {{0}, {0}, {2302, 12}, -12, 3, false},
        {{0}, {0}, {2302, 0}, 0, 3, false},   {{0}, {0}, {0, 0}, 0, 3, true},
        {{0}, {0}, {0, 5}, 0, 3, true},  // the return code alone counts
    };
    for (const bool first : {true, false}) {
        for (const auto& o : outcomes) {
            prepare();
            api.sets[2] = {{}, 2};  // nothing to delete at the taken name
            const auto script = [&](const Answer& answer) {
                return first ? std::deque<Answer>{answer} : std::deque<Answer>{{0}, answer};
            };
            api.Answers("dsmBeginTxn", script(o.begin));
            api.Answers("dsmRenameObj", script(o.rename));
            api.Answers("dsmEndTxn", script(o.end));
            EXPECT_EQ(TsmRenameBackup(session, "", "f", "b", "g"), o.result);
            // Three queries, the check of the directory, and the rename aside where it went through.
            const std::size_t until = 3 * 3 + 3 + (first ? 0 : 3) + o.calls;
            const Lines names = api.TakenNames();
            EXPECT_EQ(names.size() > until, o.goesOn) << names.size() << " " << until;
            if (!o.goesOn) {
                EXPECT_EQ(names.size(), until);
            }
            for (const char* function : {"dsmBeginTxn", "dsmRenameObj", "dsmEndTxn"}) api.Answers(function, {});
        }
    }
}

TEST_F(Library, RefusesRenamesBeforeAnythingIsDeleted) {
    const int session = Connect();
    const std::string path(1024, 'p'), name(256, 'n');
    std::string deep = "/";  // as long as a path may be, of parts that fit
    while (deep.size() < 1024) deep += (deep.size() % 100 == 99 && deep.size() < 1023) ? "/" : "d";
    EXPECT_EQ(TsmRenameBackup(session, nullptr, "f", "n", "g"), -2000);
    EXPECT_EQ(TsmRenameBackup(session, "o", nullptr, "n", "g"), -2000);
    EXPECT_EQ(TsmRenameBackup(session, "o", "f", nullptr, "g"), -2000);
    EXPECT_EQ(TsmRenameBackup(session, "o", "f", "n", nullptr), -2000);
    EXPECT_EQ(TsmRenameBackup(session, path.c_str(), "f", "n", "g"), -2120);
    EXPECT_EQ(TsmRenameBackup(session, "o", name.c_str(), "n", "g"), -2120);
    EXPECT_EQ(TsmRenameBackup(session, "o", "f", path.c_str(), "g"), -2120);
    EXPECT_EQ(TsmRenameBackup(session, "o", "f", "n", name.c_str()), -2120);
    EXPECT_EQ(TsmRenameBackup(session, "o", "f", name.c_str(), "g"), -2120) << "a directory too long";
    EXPECT_EQ(TsmRenameBackup(Open("/"), "o", "f", "n", "g"), -2061);
    EXPECT_EQ(api.Taken(), Lines{});

    // Names that fit, but not with the time behind them, are refused only where the new name is taken.
    Connect();
    const struct {
        std::string path, name;
        bool fits;
    } limits[] = {{deep, "g", false},
                  {deep.substr(0, 999) + "d", "g", false},
                  {deep.substr(0, 999), "g", true},
                  {"n", name.substr(0, 231), false},
                  {"n", name.substr(0, 230), true}};
    for (const auto& [newPath, newName, fits] : limits) {
        api.sets.clear();
        api.Finds({Object("/o", "/f", 1)});
        api.Finds({Object("/n", "/g", 2)});
        EXPECT_EQ(TsmRenameBackup(session, "o", "f", newPath.c_str(), newName.c_str()), fits ? 0 : -2120);
        EXPECT_EQ(api.TakenNames().size() == 6, !fits);
        if (fits) continue;
        api.sets.clear();
        api.Finds({Object("/o", "/f", 1)});
        EXPECT_EQ(TsmRenameBackup(session, "o", "f", newPath.c_str(), newName.c_str()), 0);
        api.Taken();
    }
}
