// Deletion, the directories that it leaves empty, and renaming.
#include <ctime>

#include "Fixture.h"

namespace {

Found Object(const std::string& hl, const std::string& ll, dsUint32_t id, dsUint8_t type = DSM_OBJ_FILE) {
    Found found{"/vm", hl, ll, type};
    found.id = id;
    return found;
}

Lines Removed(const std::string& what) {
    return {"dsmBeginTxn", "dsmDeleteObj " + what, "dsmEndTxn vote=1 reason=0"};
}

Lines Renamed(const std::string& from, const std::string& to) {
    return {"dsmBeginTxn", "dsmRenameObj v=1 out=1 repository=11 " + from + " to " + to + " merge=0 id=0:0",
            "dsmEndTxn vote=1 reason=0"};
}

// Of '/f', which is renamed to '/b' '/g', where a directory with two versions is.
class RenameToATakenName : public Connected {
protected:
    void AnswerLookUps() {
        api.sets.clear();
        api.Finds({Object("", "/f", 1)});
        api.Finds({Object("/b", "/g", 2, DSM_OBJ_DIRECTORY)});
        api.Finds({Object("/b", "/g", 2), Object("/b", "/g", 3)});
        api.Finds({Object("/b", "/h", 4)});  // a sibling
    }
};

}  // namespace

TEST_F(Connected, DeletesActiveVersionsByNameAndClimbs) {
    // Two active objects, then the directories above, of which the topmost still holds something.
    api.Finds({Object("/a/b", "/f", 5), Object("/a/b", "/g", 6, 9)});
    api.Finds({}, 2);
    api.Finds({Object("/a", "/b", 7, DSM_OBJ_DIRECTORY)});
    api.Finds({Object("/a", "/c", 8)});
    EXPECT_EQ(TsmDelete(session, C("a\\b/"), nullptr, 2, nullptr), 0);
    EXPECT_EQ(api.TakeCalls(),
              Asked("'/vm' '/a/b' '/*'", 255, 1) + Removed("del=1 v=1 '/vm' '/a/b' '/f' type=1 group=105") +
                  Removed("del=1 v=1 '/vm' '/a/b' '/g' type=9 group=106") + Asked("'/vm' '/a/b' '/*'", 255, 1) +
                  Asked("'/vm' '/a' '/b'", 255, 1) + Removed("del=1 v=1 '/vm' '/a' '/b' type=2 group=107") +
                  Asked("'/vm' '/a' '/*'", 255, 1));
}

TEST_F(Connected, DeletesEveryVersionByIdentifierAndClimbsPastMissingDirectories) {
    api.Finds({Object("/a/b", "/f", 1), Object("/a/b", "/f", 2), Object("/a/b", "/f", 3)});
    EXPECT_EQ(TsmDelete(session, C("/a/b"), C("f/"), 1, nullptr), 0);
    EXPECT_EQ(api.TakeCalls(), Asked("'/vm' '/a/b' '/f'", 255, 255) + Removed("del=2 v=1 0:1") +
                                   Removed("del=2 v=1 0:2") + Removed("del=2 v=1 0:3") +
                                   Asked("'/vm' '/a/b' '/*'", 255, 1) + Asked("'/vm' '/a' '/b'", 255, 255) +
                                   Asked("'/vm' '/a' '/*'", 255, 1) + Asked("'/vm' '' '/a'", 255, 255));
}

TEST_F(Library, ClimbsFromAnyDirectory) {
    const struct {
        const char* delimiter;
        const char* path;
        const char* name;
        Lines calls;
    } names[] = {
        {"/", "*", nullptr,
         Asked("'/vm' '*' '/*'", 255, 1) + Asked("'/vm' '*' '/*'", 255, 1) + Asked("'/vm' '' '/*'", 255, 1)},
        {"/", "a//", "f",
         Asked("'/vm' '/a/' '/f'", 255, 1) + Asked("'/vm' '/a' '/*'", 255, 1) + Asked("'/vm' '' '/a'", 255, 1)},
        // A delimiter that would lead back to the same directory for ever.
        {"aa", "x", "f",
         Asked("'aavm' 'aax' 'aaf'", 255, 1) + Asked("'aavm' 'aax' '/*'", 255, 1) +
             Asked("'aavm' 'aaa' 'aax'", 255, 1)},
    };
    for (const auto& n : names) {
        EXPECT_EQ(TsmDelete(Connect(n.delimiter), C(n.path), C(n.name), 0, nullptr), 0);
        EXPECT_EQ(api.TakeCalls(), n.calls);
    }
    // A delimiter of several characters loses a level for each, if not a character.
    EXPECT_EQ(TsmDelete(Connect("ab"), C("abxabyabzabw"), C("f"), 0, nullptr), 0);
    EXPECT_EQ(api.TakeCallNames().size(), 3u * 9u);
}

TEST_F(Connected, DeletesWhatWasCurrentAtAMoment) {
    EXPECT_EQ(TsmDelete(session, C(""), C("f"), 1, C("2021-3-7")), 0);
    EXPECT_EQ(api.TakeCalls().at(0), "dsmBeginQuery q=1 v=2 '/vm' '' '/f' type=255 state=255 at=2021.3.7.0.0.0");
}

TEST_F(Connected, AnswersFailedDeletions) {
    const std::string asked = "BeginQuery GetNextQObj EndQuery ", removed = "BeginTxn DeleteObj EndTxn ";
    dsInt16_t end = 0;
    const auto deletion = [&] {
        api.sets.clear();
        api.Finds({Object("/a", "/f", 1), Object("/a", "/g", 2)}, end);
        api.Finds({});  // nothing else in the directory
        api.Finds({Object("", "/a", 3, DSM_OBJ_DIRECTORY)});
        return TsmDelete(session, C("a"), nullptr, 0, nullptr);
    };
    Expect({{"dsmBeginQuery", {{0}, {9}}}}, 0, asked + "BeginQuery", deletion);
    end = 11;
    Expect({{"dsmBeginQuery", {{0}, {9}}}}, 0, asked + "BeginQuery", deletion);
    Expect({{"dsmEndQuery", {{5}}}}, -2, asked, deletion);
    end = 2;
    Expect({{"dsmEndQuery", {{5}}}}, -2, asked, deletion);
    end = 121;
    Expect({{"dsmBeginQuery", {{-5}}}}, -5, "BeginQuery", deletion);
    Expect({{"dsmEndQuery", {{1}}}}, -1, asked, deletion);
    Expect({{"dsmBeginTxn", {{0}, {7}}}}, -7, asked + removed + "BeginTxn", deletion);
    Expect({{"dsmDeleteObj", {{0}, {157}}}}, -157, asked + removed + "BeginTxn DeleteObj", deletion);
    Expect({{"dsmEndTxn", {{2302, 106}}}}, -2302, asked + removed, deletion);
    Expect({{"dsmEndTxn", {{0, 40000}}}}, -40000, asked + removed, deletion);
    // A climb that fails on its way ends there, and the result is that of the deletion.
    const std::string climbing = asked + removed + removed + asked;
    Expect({{"dsmBeginTxn", {{0}, {0}, {7}}}}, 0, climbing + asked + "BeginTxn", deletion);
    Expect({{"dsmBeginQuery", {{0}, {0}, {8}}}}, 0, climbing + "BeginQuery", deletion);
    Expect({{"dsmEndQuery", {{0}, {8}}}}, 0, climbing, deletion);
}

TEST_F(Connected, RenamesToAFreeName) {
    api.Finds({Object("/old", "/f", 1, DSM_OBJ_DIRECTORY), Object("/old", "/f", 2)});
    api.Finds({});                         // the new name is free
    api.Finds({Object("/old", "/f", 3)});  // what is left under the old one
    api.Finds({});                         // nothing else in its directory
    api.Finds({Object("", "/old", 4, DSM_OBJ_DIRECTORY)});
    EXPECT_EQ(TsmRenameBackup(session, "old/", "f\\", "n\\ew", "/g"), 0);
    EXPECT_EQ(api.TakeCalls(),
              Asked("'/vm' '/old' '/f'", 255, 255) + Asked("'/vm' '/n/ew' '/g'", 255, 255) +
                  Renamed("'/vm' '/old' '/f' type=2", "'/n/ew' '/g'") + Asked("'/vm' '/old' '/f'", 255, 255) +
                  Removed("del=2 v=1 0:3") + Asked("'/vm' '/old' '/*'", 255, 1) + Asked("'/vm' '' '/old'", 255, 255) +
                  Removed("del=2 v=1 0:4") + NewDirectory("'/vm' '' '/n'") + NewDirectory("'/vm' '/n' '/ew'"));
}

TEST_F(Connected, RenamesAFileToAFreeNameWhenLookUpsBreakOff) {
    api.Finds({Object("/a/b", "/f", 1, DSM_OBJ_DIRECTORY)}, 11);
    api.Finds({Object("", "/c/d", 1, DSM_OBJ_DIRECTORY)}, -11);
    EXPECT_EQ(TsmRenameBackup(session, "a/b", "f", "/", "c"), 0);
    EXPECT_EQ(api.TakeCalls().at(5), Renamed("'/vm' '/a/b' '/f' type=1", "'' '/c'").at(1));
}

TEST_F(Connected, RenamesEvenIfWhatFollowsFails) {
    // Its deletion and its directories.
    for (const char* function : {"dsmBeginQuery", "dsmEndQuery"}) {
        api.sets.clear();
        api.Finds({Object("/old", "/f", 1)});
        api.Answers(function, {{0}, {0}, {5}, {0}, {5}, {5}});
        EXPECT_EQ(TsmRenameBackup(session, "old", "f", "new", "f"), 0);
        api.TakeCalls();
        api.Answers(function, {});
    }
}

TEST_F(Connected, RenamesNothingThatIsNotThere) {
    EXPECT_EQ(TsmRenameBackup(session, "old", "f", "new", "f"), -2);
    EXPECT_EQ(api.TakeCalls(), Asked("'/vm' '/old' '/f'", 255, 255)) << "the new name is not looked at";
}

TEST_F(RenameToATakenName, MovesItAside) {
    AnswerLookUps();
    api.Answers("dsmDeleteObj", {{0}, {106}});  // a deletion that fails is passed over
    api.Answers("dsmEndTxn", {{0}, {0, 5}});    // the reason of one commit stays for the next
    std::string time;
    tzset();
    setenv("TZ", "ABC-7", 1);  // as a host may at any time
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(TsmRenameBackup(session, "", "f", "b", "g"), 0);
    const std::time_t after = std::time(nullptr);
    const Lines calls = api.TakeCalls();
    const std::size_t aside = 14;
    ASSERT_GT(calls.size(), aside + 5);
    for (const std::time_t& moment : {before, after}) {
        const std::string candidate = std::ctime(&moment);
        if (calls[aside + 1].find("/b" + candidate + "'") != std::string::npos) time = candidate;
    }
    EXPECT_EQ(time.size(), 25u);
    Lines expected = Asked("'/vm' '' '/f'", 255, 255) + Asked("'/vm' '/b' '/g'", 255, 255) +
                     Asked("'/vm' '/b' '/g'", 255, 255) + Removed("del=2 v=1 0:2") +
                     Lines{"dsmBeginTxn", "dsmDeleteObj del=2 v=1 0:3"} +
                     Renamed("'/vm' '/b' '/g' type=2", "'/b" + time + "' '/g" + time + "'") +
                     Renamed("'/vm' '' '/f' type=1", "'/b' '/g'");
    expected.back() = "dsmEndTxn vote=1 reason=5";
    EXPECT_EQ(Lines(calls.begin(), calls.begin() + static_cast<long>(expected.size())), expected);
}

TEST_F(RenameToATakenName, EndsWhereARenameFails) {
    const std::string asked = "BeginQuery GetNextQObj EndQuery ", renamed = "BeginTxn RenameObj EndTxn ";
    const auto rename = [&] {
        AnswerLookUps();
        api.sets[2] = {{}, 2};  // nothing to delete at the taken name
        return TsmRenameBackup(session, "", "f", "b", "g");
    };
    for (const int nth : {0, 1}) {  // the rename aside, the main one
        // Both look-ups, the deletion, its check of the directory.
        const std::string before = asked + asked + asked + asked + (nth == 0 ? "" : renamed), all = before + renamed;
        const auto answer = [&](const Answer& last) {
            std::deque<Answer> answers(static_cast<std::size_t>(nth), Answer{0});
            answers.push_back(last);
            return answers;
        };
        Expect({{"dsmBeginTxn", answer({7})}}, -7, before + "BeginTxn", rename);
        Expect({{"dsmRenameObj", answer({32})}}, -32, before + "BeginTxn RenameObj", rename);
        Expect({{"dsmRenameObj", answer({-9})}}, -9, before + "BeginTxn RenameObj", rename);
        Expect({{"dsmRenameObj", answer({157})}, {"dsmEndTxn", answer({0, 0})}}, 0, all, rename);
        Expect({{"dsmRenameObj", answer({157})}, {"dsmEndTxn", answer({0, 5})}}, 0, all, rename);
        Expect({{"dsmRenameObj", answer({157})}, {"dsmEndTxn", answer({2302, 40000})}}, -40000, all, rename);
        Expect({{"dsmRenameObj", answer({157})}, {"dsmEndTxn", answer({2302, 0})}}, 0, all, rename);
        Expect({{"dsmEndTxn", answer({2302, 12})}}, -12, all, rename);
        Expect({{"dsmEndTxn", answer({2302, 0})}}, 0, all, rename);
        // Of a commit the return code alone counts. What was left is deleted, and the directory created.
        Expect({{"dsmEndTxn", answer({0, 5})}}, 0,
               all + (nth == 0 ? renamed : "") + asked + asked + "BindMC BeginTxn SendObj EndSendObj EndTxn", rename);
    }
}

TEST_F(Connected, RefusesRenamesToTakenNamesThatDoNotFitWithTheTime) {
    const std::string name(256, 'n');
    std::string deep = "/";  // as long as a path may be, of parts that fit
    while (deep.size() < 1024) deep += (deep.size() % 100 == 99 && deep.size() < 1023) ? "/" : "d";
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
        EXPECT_EQ(api.TakeCallNames().size() == 6, !fits);
        if (fits) continue;
        // A free name is not moved aside.
        api.sets.clear();
        api.Finds({Object("/o", "/f", 1)});
        EXPECT_EQ(TsmRenameBackup(session, "o", "f", newPath.c_str(), newName.c_str()), 0);
        api.TakeCalls();
    }
}
