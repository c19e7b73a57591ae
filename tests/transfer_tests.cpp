// Backup and restore.
#include "Fixture.h"

namespace {

const Found directory{"/vm", "", "/a", DSM_OBJ_DIRECTORY};

Lines DirectoryCheck(const std::string& hl, const std::string& ll) {
    return {"dsmBeginQuery q=1 v=2 '/vm' '" + hl + "' '" + ll + "' type=2 state=1 at=0.0.0.0.0.0",
            "dsmGetNextQObj v=3 length=4600 response=8", "dsmEndQuery"};
}

Lines Announcement(const std::string& name, const std::string& attributes) {
    return {"dsmBindMC " + name + " send=0 v=1 mc=''", "dsmBeginTxn",
            "dsmSendObj send=0 " + name + " v=4 owner='' size=" + attributes};
}

const Lines commit = {"dsmEndSendObj", "dsmEndTxn vote=1 reason=0"};

}  // namespace

TEST_F(Library, BacksUpAnObjectUnderItsDirectories) {
    const int session = Connect();
    const auto create = [](const std::string& hl, const std::string& ll, const std::string& mc) {
        return Announcement("'/vm' '" + hl + "' '" + ll + "' type=2", "0:0 compressed=0 info='' length=1 mc=" + mc) +
               commit;
    };
    EXPECT_EQ(TsmBeginBackupEx(session, C("a\\b/"), C("f"), 1ll << 32, C("abc"), C("LONG")), 0);
    EXPECT_EQ(api.Taken(),
              DirectoryCheck("", "/a") + create("", "/a", "'LONG'") + DirectoryCheck("/a", "/b") +
                  create("/a", "/b", "'LONG'") +
                  Announcement("'/vm' '/a/b' '/f' type=1", "1:0 compressed=0 info='abc' length=4 mc='LONG'"));
    EXPECT_EQ(TsmSendData(session, reinterpret_cast<unsigned char*>(C("hello")), 5), 0);
    EXPECT_EQ(TsmEndBackup(session), 0);
    EXPECT_EQ(api.Taken(), Lines{"dsmSendData v=3 'hello' length=5"} + commit);

    // Directories that are there are left alone; the top of the filespace has none.
    api.Finds({directory});
    EXPECT_EQ(TsmBeginBackup(session, C("/a"), C("x/y"), -1), 0);
    EXPECT_EQ(api.Taken(),
              DirectoryCheck("", "/a") + Announcement("'/vm' '/a' '/x/y' type=1",
                                                      "4294967295:4294967295 compressed=0 info='' length=1 mc=null"));
    for (const char* top : {"", "/"}) {
        EXPECT_EQ(TsmBeginBackup(session, C(top), C("d"), 0), 0);
        EXPECT_EQ(api.Taken(), Announcement("'/vm' '' '/d' type=2", "0:0 compressed=0 info='' length=1 mc=null"));
    }
    // The name is used as it is.
    for (const char* name : {"x\\y", "/f", "f/", ""}) {
        EXPECT_EQ(TsmBeginBackup(session, C(""), C(name), 1), 0);
        EXPECT_EQ(api.Taken(), Announcement("'/vm' '' '/" + std::string(name) + "' type=1",
                                            "0:1 compressed=0 info='' length=1 mc=null"));
    }
    // An empty part is a level of its own, whose look-up has its trailing delimiter dropped like any path.
    EXPECT_EQ(TsmBeginBackup(session, C("/a//b"), C("f"), 1), 0);
    EXPECT_EQ(api.Taken(), DirectoryCheck("", "/a") + create("", "/a", "null") + DirectoryCheck("/a", "/") +
                               create("/a", "/", "null") + DirectoryCheck("/a", "/b") + create("/a/", "/b", "null") +
                               Announcement("'/vm' '/a//b' '/f' type=1", "0:1 compressed=0 info='' length=1 mc=null"));
    const struct {
        const char* delimiter;
        const char* path;
        std::string first, second, object;
    } others[] = {{"\\", "a/b", "'\\vm' '' '\\a'", "'\\vm' '\\a' '\\b'", "'\\vm' '\\a\\b' '\\f'"},
                  {":", "a/b:c", "':vm' '' ':a/b'", "':vm' ':a/b' ':c'", "':vm' ':a/b:c' ':f'"},
                  // Of a longer delimiter the first character divides; the rest of it begins the next level.
                  {"<>", "a<>b", "'<>vm' '' '<>>a'", "'<>vm' '<>>a' '<>>b'", "'<>vm' '<>a<>b' '<>f'"}};
    for (const auto& o : others) {
        EXPECT_EQ(TsmBeginBackup(Connect(o.delimiter), C(o.path), C("f"), 1), 0);
        const Lines calls = api.Taken();
        ASSERT_EQ(calls.size(), 19u);
        EXPECT_EQ(calls[0], "dsmBeginQuery q=1 v=2 " + o.first + " type=2 state=1 at=0.0.0.0.0.0");
        EXPECT_EQ(calls[8], "dsmBeginQuery q=1 v=2 " + o.second + " type=2 state=1 at=0.0.0.0.0.0");
        EXPECT_EQ(calls[16], "dsmBindMC " + o.object + " type=1 send=0 v=1 mc=''");
    }
}

TEST_F(Library, RefusesBackupsBeforeAnyCall) {
    const int session = Connect();
    const std::string path(1024, 'p'), name(256, 'n'), info(65535, 'i'), level = "a/" + name + "/b";
    std::string deep;  // of parts that fit, but too long in all
    while (deep.size() < 1024) deep += "deep/";
    const struct {
        const char* path;
        const char* name;
        const char* info;
        int result;
    } cases[] = {{nullptr, "n", nullptr, -2000},       {"p", nullptr, nullptr, -2000},
                 {path.c_str(), "n", nullptr, -2120},  {deep.c_str(), "n", nullptr, -2120},
                 {level.c_str(), "n", nullptr, -2120}, {"a", name.c_str(), nullptr, -2120},
                 {"a", "n", info.c_str(), -2120}};
    for (const auto& c : cases) {
        EXPECT_EQ(TsmBeginBackupEx(session, C(c.path), C(c.name), 1, C(c.info), nullptr), c.result);
    }
    // A delimiter so long that the names of the levels do not fit.
    const std::string delimiter(200, '/');
    EXPECT_EQ(TsmBeginBackup(Connect(delimiter.c_str()), C("//x"), C("n"), 1), -2120);
    EXPECT_EQ(api.Taken(), Lines{});
    EXPECT_EQ(TsmSendData(session, nullptr, 1), -2009);
    EXPECT_EQ(TsmSendData(session, reinterpret_cast<unsigned char*>(C("x")), -1), -109);
    EXPECT_EQ(TsmBeginBackup(Open("/"), C("a"), C("n"), 1), -2061);
    EXPECT_EQ(api.Taken(), Lines{});
    const int again = Connect();
    EXPECT_EQ(TsmBeginBackupEx(again, C(""), C(name.c_str() + 1), 1, C(info.c_str() + 1), nullptr), 0);
    EXPECT_NE(api.Taken().back().find("length=65535"), std::string::npos);
}

// How a backup at the top of the filespace, or of a directory below it, answers the failure of one call.
TEST_F(Library, AnswersFailedBackups) {
    const std::string sent = "BindMC BeginTxn SendObj", ended = sent + " EndTxn",
                      asked = "BeginQuery GetNextQObj EndQuery";
    const struct {
        const char* path;
        std::map<std::string, std::deque<Answer>> answers;
        int result;
        std::string calls;
    } cases[] = {
        {"", {{"dsmBindMC", {{2025}}}}, -2025, "BindMC"},
        {"", {{"dsmBeginTxn", {{-5}}}}, -5, "BindMC BeginTxn"},
        {"", {{"dsmSendObj", {{1}}}}, -1, sent},
        {"", {{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{2302, 40000}}}}, -40000, ended},
        {"", {{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{0, 12}}}}, -12, ended},
        {"", {{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{11, 0}}}}, -11, ended},
        {"", {{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{0, 0}}}}, 0, ended},
        // In the directory pass: nothing of the object is sent.
        {"a/b", {{"dsmBeginQuery", {{9}}}}, -9, "BeginQuery"},
        {"a/b", {{"dsmEndQuery", {{9}}}}, -9, asked},
        {"a/b", {{"dsmSendObj", {{3}}}}, -3, asked + " " + sent},
        {"a/b", {{"dsmEndTxn", {{2302, 8}}}}, -8, asked + " " + sent + " EndSendObj EndTxn"},
    };
    const int session = Connect();
    for (const auto& c : cases) {
        for (const auto& [function, answers] : c.answers) api.Answers(function, answers);
        EXPECT_EQ(TsmBeginBackup(session, C(c.path), C("f"), 1), c.result);
        EXPECT_EQ(api.TakenNames(), Calls(c.calls));
    }
}

TEST_F(Library, AnswersFailedSendingAndCommitting) {
    const std::string ended = "SendData EndSendObj EndTxn";
    const struct {
        std::map<std::string, std::deque<Answer>> answers;
        int result;
        std::string calls;
    } sending[] = {
        {{{"dsmSendData", {{1}}}}, -1, "SendData"},
        {{{"dsmSendData", {{-11}}}}, -11, "SendData"},
        {{{"dsmSendData", {{157}}}, {"dsmEndTxn", {{2302, 12}}}}, -12, ended},
        {{{"dsmSendData", {{157}}}, {"dsmEndSendObj", {{5}}}, {"dsmEndTxn", {{0, 12}}}}, -12, ended},
        {{{"dsmSendData", {{157}}}, {"dsmEndTxn", {{7, 0}}}}, -7, ended},
        {{{"dsmSendData", {{157}}}}, 0, ended},
    };
    const int session = Connect();
    auto* data = reinterpret_cast<unsigned char*>(C("abcdef"));
    for (const auto& c : sending) {
        for (const auto& [function, answers] : c.answers) api.Answers(function, answers);
        EXPECT_EQ(TsmSendData(session, data, 6), c.result);
        EXPECT_EQ(api.TakenNames(), Calls(c.calls));
    }
    EXPECT_EQ(TsmSendData(session, nullptr, 0), 0);
    api.takes = {2, 3, 1};
    EXPECT_EQ(TsmSendData(session, data, 6), 0);
    EXPECT_NE(api.lastSent, reinterpret_cast<char*>(data)) << "the caller's buffer stays with the caller";
    EXPECT_EQ(api.Taken(), (Lines{"dsmSendData v=3 '' length=0", "dsmSendData v=3 'abcdef' length=6",
                                  "dsmSendData v=3 'cdef' length=4", "dsmSendData v=3 'f' length=1"}));
    api.takes = {2, 0};
    EXPECT_EQ(TsmSendData(session, data, 6), -1) << "takes nothing";
    api.takes = {7};
    EXPECT_EQ(TsmSendData(session, data, 6), -1) << "takes more than there is";
    EXPECT_EQ(api.Taken().size(), 3u);

    const struct {
        Answer endSend, endTxn;
        int result;
    } ending[] = {{{5}, {0, 0}, 0}, {{0}, {2302, 65535}, -65535}, {{0}, {0, 3}, -3}, {{0}, {2041, 0}, -2041}};
    for (const auto& c : ending) {
        api.Answers("dsmEndSendObj", {c.endSend});
        api.Answers("dsmEndTxn", {c.endTxn});
        EXPECT_EQ(TsmEndBackup(session), c.result);
        EXPECT_EQ(api.Taken(), commit);
    }
}

TEST_F(Library, RestoresTheLastMatch) {
    const int session = Connect();
    std::string room(100000, '\0');
    auto* buffer = reinterpret_cast<unsigned char*>(room.data());
    // Texts that fill their fields, without a terminator.
    Found brim{std::string(1025, 'f'), std::string(1025, 'h'), std::string(257, 'l'), 1, 99};
    brim.mc = std::string(31, 'm');
    Found last{"/vm", "/dir/sub", "/a.bin", 1, (1ull << 32) + 5};
    last.id = 3;
    last.mc = "LONG";
    api.Finds({brim, last});
    api.Answers("dsmGetObj", {{2200}});
    EXPECT_EQ(TsmBeginRestore(session, C("dir\\sub/"), C("a*"), C("2021-3-7 9:5")), (1ll << 32) + 5);
    api.chunks = {"one", "two", "three", ""};
    api.Answers("dsmGetData", {{2200}, {2200}, {121}});
    EXPECT_EQ(TsmGetData(session, &buffer, 100), 3);
    EXPECT_EQ(room.substr(0, 4), std::string("one\0", 4));
    EXPECT_EQ(TsmGetData(session, &buffer, 65536), 3);
    EXPECT_EQ(TsmGetData(session, &buffer, -1), 5);
    EXPECT_EQ(room.substr(0, 6), std::string("three\0", 6));
    EXPECT_EQ(TsmGetData(session, &buffer, 100), 0);
    EXPECT_EQ(TsmEndRestore(session), 0);
    EXPECT_EQ(TsmGetData(session, &buffer, 100), 0);
    EXPECT_EQ(buffer, reinterpret_cast<unsigned char*>(room.data()));
    EXPECT_EQ(api.Taken(), (Lines{"dsmBeginQuery q=1 v=2 '/vm' '/dir/sub' '/a*' type=1 state=255 at=2021.3.7.9.5.0",
                                  "dsmGetNextQObj v=3 length=4600 response=8", "dsmEndQuery",
                                  "dsmBindMC '/vm' '/dir/sub' '/a.bin' type=1 send=0 v=1 mc='LONG'",
                                  "dsmBeginGetData wait=1 get=0 v=2 n=1 0:3", "dsmGetObj 0:3",
                                  "dsmGetData v=3 length=32768 got=0", "dsmGetData v=3 length=65536 got=0",
                                  "dsmGetData v=3 length=32768 got=0", "dsmEndGetObj", "dsmEndGetData"}));

    api.Finds({last, brim});
    api.Answers("dsmGetObj", {{2200}});
    EXPECT_EQ(TsmBeginRestore(session, C("d"), C("f"), nullptr), 99);
    EXPECT_EQ(api.Taken().at(3), "dsmBindMC '" + std::string(1024, 'f') + "' '" + std::string(1024, 'h') + "' '" +
                                     std::string(256, 'l') + "' type=1 send=0 v=1 mc='" + std::string(30, 'm') + "'");

    const struct {
        const char* delimiter;
        const char* path;
        const char* name;
        const char* query;
    } names[] = {{"\\", "dir/sub", "f", "'\\vm' '\\dir\\sub' '\\f'"},
                 {"/", "", "/f", "'/vm' '' '//f'"},
                 {"/", "/", "x\\y", "'/vm' '' '/x\\y'"},
                 {"/", "*", "*", "'/vm' '/*' '/*'"}};
    for (const auto& n : names) {
        EXPECT_EQ(TsmBeginRestore(Connect(n.delimiter), C(n.path), C(n.name), nullptr), -2);
        EXPECT_EQ(api.Taken().at(0),
                  std::string("dsmBeginQuery q=1 v=2 ") + n.query + " type=1 state=1 at=0.0.0.0.0.0");
    }
}

TEST_F(Library, AnswersFailedRestores) {
    const int session = Connect();
    const Found empty{"/vm", "/d", "/f"};
    const struct {
        std::vector<Found> found;
        dsInt16_t end;
        std::map<std::string, std::deque<Answer>> answers;
        long long result;
        std::size_t calls;
    } cases[] = {
        {{empty}, 121, {{"dsmBeginQuery", {{5}}}}, -5, 1},
        {{empty}, 2, {}, -2, 2},
        {{empty}, -8, {}, -8, 2},
        {{empty}, 0, {}, -1, 2},
        {{}, 121, {}, -2, 3},
        {{empty}, 121, {{"dsmEndQuery", {{6}}}}, -6, 3},
        {{empty}, 121, {{"dsmBindMC", {{7}}}}, -7, 4},
        {{empty}, 121, {{"dsmBeginGetData", {{-8}}}}, -8, 5},
        {{empty}, 121, {{"dsmGetObj", {{9}}}}, -9, 6},
        {{empty}, 121, {{"dsmGetObj", {{0}}}}, -1, 6},
        {{empty}, 121, {{"dsmGetObj", {{121}}}, {"dsmEndGetObj", {{4}}}}, -4, 7},
        {{empty}, 121, {{"dsmGetObj", {{121}}}}, 0, 7},
    };
    for (const auto& c : cases) {
        if (c.answers.count("dsmBeginQuery") == 0) api.Finds(c.found, c.end);
        for (const auto& [function, answers] : c.answers) api.Answers(function, answers);
        EXPECT_EQ(TsmBeginRestore(session, C("d"), C("f"), nullptr), c.result);
        EXPECT_EQ(api.Taken().size(), c.calls);
    }
    std::string room(32768, '-');
    auto* buffer = reinterpret_cast<unsigned char*>(room.data());
    EXPECT_EQ(TsmGetData(session, &buffer, 1), 0) << "an object without bytes";
    EXPECT_EQ(api.Taken(), Lines{});
    api.Finds({empty});
    api.Answers("dsmGetObj", {{121}});
    api.Answers("dsmEndGetObj", {{4}});
    EXPECT_EQ(TsmBeginRestore(session, C("d"), C("f"), nullptr), -4);
    api.Taken();
    EXPECT_EQ(TsmGetData(session, &buffer, 1), -1) << "the stream has not ended";
    EXPECT_EQ(api.TakenNames(), Lines{"dsmGetData"});

    api.Finds({empty});
    api.Answers("dsmGetObj", {{2200}});
    EXPECT_EQ(TsmBeginRestore(session, C("d"), C("f"), nullptr), 0);
    unsigned char* nowhere = nullptr;
    EXPECT_EQ(TsmGetData(session, &nowhere, 1), -2009);
    EXPECT_EQ(TsmGetData(session, nullptr, 1), -2009);
    api.Taken();
    api.chunks = {"lost", "lost", std::string(32769, 'x'), "end"};
    api.Answers("dsmGetData", {{11}, {0}, {2200}, {121}});
    EXPECT_EQ(TsmGetData(session, &buffer, 1), -11);
    EXPECT_EQ(TsmGetData(session, &buffer, 1), -1);
    EXPECT_EQ(TsmGetData(session, &buffer, 1), -1) << "more than there is room for";
    EXPECT_EQ(room, std::string(32768, '-'));
    api.Answers("dsmEndGetObj", {{4}});
    EXPECT_EQ(TsmGetData(session, &buffer, 1), -4);
    EXPECT_EQ(room.substr(0, 4), "end-") << "placed, though not reported";
    EXPECT_EQ(TsmGetData(session, &buffer, 1), 0);
    api.Answers("dsmEndGetData", {{5}, {-5}});
    EXPECT_EQ(TsmEndRestore(session), -5);
    EXPECT_EQ(TsmEndRestore(session), -5);
    EXPECT_EQ(api.TakenNames(), (Lines{"dsmGetData", "dsmGetData", "dsmGetData", "dsmGetData", "dsmEndGetObj",
                                       "dsmEndGetData", "dsmEndGetData"}));

    const std::string path(1024, 'p'), name(256, 'n');
    EXPECT_EQ(TsmBeginRestore(session, C(path.c_str()), C("n"), nullptr), -2120);
    EXPECT_EQ(TsmBeginRestore(session, C("p"), C(name.c_str()), nullptr), -2120);
    EXPECT_EQ(TsmBeginRestore(session, nullptr, C("n"), nullptr), -2000);
    EXPECT_EQ(TsmBeginRestore(session, C("p"), nullptr, nullptr), -2000);
    EXPECT_EQ(TsmBeginRestore(Open("/"), C("p"), C("n"), nullptr), -2061);
    EXPECT_EQ(api.Taken(), Lines{});
}
