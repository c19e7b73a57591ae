// Backup and restore.
#include <cstdlib>

#include "Fixture.h"

TEST_F(Connected, BacksUpAnObjectUnderNewDirectories) {
    EXPECT_EQ(TsmBeginBackupEx(session, C("a\\b/"), C("f"), 1ll << 32, C("abc"), C("LONG")), 0);
    EXPECT_EQ(api.TakeCalls(),
              NewDirectory("'/vm' '' '/a'", "'LONG'") + NewDirectory("'/vm' '/a' '/b'", "'LONG'") +
                  Announced("'/vm' '/a/b' '/f' type=1", "1:0 compressed=0 info='abc' length=4 mc='LONG'"));
    EXPECT_EQ(TsmSendData(session, Bytes("hello"), 5), 0);
    EXPECT_EQ(TsmEndBackup(session), 0);
    EXPECT_EQ(api.TakeCalls(), Lines{"dsmSendData v=3 'hello' length=5"} + commit);
}

TEST_F(Connected, LeavesDirectoriesAloneThatExist) {
    api.Finds({Found{"/vm", "", "/a", DSM_OBJ_DIRECTORY}});
    EXPECT_EQ(TsmBeginBackup(session, C("/a"), C("f"), -1), 0);
    EXPECT_EQ(api.TakeCalls(),
              Asked("'/vm' '' '/a'", 2, 1) +
                  Announced("'/vm' '/a' '/f' type=1", "4294967295:4294967295 compressed=0 info='' length=1 mc=null"));
    EXPECT_EQ(TsmBeginBackup(session, C("/"), C("d"), 0), 0);
    EXPECT_EQ(api.TakeCalls(), Announced("'/vm' '' '/d' type=2", "0:0 compressed=0 info='' length=1 mc=null"))
        << "the top of the filespace has no directory object, and size 0 makes one of the object";
}

TEST_F(Library, MakesADirectoryOfEachLevel) {
    const struct {
        const char* delimiter;
        const char* path;
        Lines levels;
        std::string object;
    } cases[] = {
        {"\\", "a/b", NewDirectory("'\\vm' '' '\\a'") + NewDirectory("'\\vm' '\\a' '\\b'"), "'\\vm' '\\a\\b' '\\f'"},
        {":", "a/b:c", NewDirectory("':vm' '' ':a/b'") + NewDirectory("':vm' ':a/b' ':c'"), "':vm' ':a/b:c' ':f'"},
        // An empty part is a level of its own. The look-ups below it drop the delimiter at its end, as of any path.
        {"/", "a//b",
         NewDirectory("'/vm' '' '/a'") + NewDirectory("'/vm' '/a' '/'") +
             NewDirectory("'/vm' '/a/' '/b'", "null", "'/vm' '/a' '/b'"),
         "'/vm' '/a//b' '/f'"},
        {"/", "///a",
         NewDirectory("'/vm' '' '/'") + NewDirectory("'/vm' '/' '/'", "null", "'/vm' '' '/'") +
             NewDirectory("'/vm' '//' '/a'", "null", "'/vm' '' '/a'"),
         "'/vm' '///a' '/f'"},
        // Of a longer delimiter the first character divides; the rest of it begins the next level.
        {"<>", "a<>b", NewDirectory("'<>vm' '' '<>>a'") + NewDirectory("'<>vm' '<>>a' '<>>b'"),
         "'<>vm' '<>a<>b' '<>f'"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TsmBeginBackup(Connect(c.delimiter), C(c.path), C("f"), 1), 0);
        EXPECT_EQ(api.TakeCalls(),
                  c.levels + Announced(c.object + " type=1", "0:1 compressed=0 info='' length=1 mc=null"));
    }
}

TEST_F(Connected, AnswersFailedBackups) {
    const std::string sent = "BindMC BeginTxn SendObj", ended = sent + " EndTxn";
    const auto backup = [&] { return TsmBeginBackup(session, C(""), C("f"), 1); };
    Expect({{"dsmBindMC", {{2025}}}}, -2025, "BindMC", backup);
    Expect({{"dsmBeginTxn", {{-5}}}}, -5, "BindMC BeginTxn", backup);
    Expect({{"dsmSendObj", {{1}}}}, -1, sent, backup);
    // 157: the server has given the transaction up, and its end tells why.
    Expect({{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{2302, 40000}}}}, -40000, ended, backup);
    Expect({{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{0, 12}}}}, -12, ended, backup);
    Expect({{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{11, 0}}}}, -11, ended, backup);
    Expect({{"dsmSendObj", {{157}}}, {"dsmEndTxn", {{0, 0}}}}, 0, ended, backup);
}

TEST_F(Connected, SendsNothingOfAnObjectWithoutItsDirectories) {
    const std::string asked = "BeginQuery GetNextQObj EndQuery", sent = asked + " BindMC BeginTxn SendObj";
    const auto backup = [&] { return TsmBeginBackup(session, C("a/b"), C("f"), 1); };
    Expect({{"dsmBeginQuery", {{9}}}}, -9, "BeginQuery", backup);
    Expect({{"dsmEndQuery", {{9}}}}, -9, asked, backup);
    Expect({{"dsmSendObj", {{3}}}}, -3, sent, backup);
    Expect({{"dsmEndTxn", {{2302, 8}}}}, -8, sent + " EndSendObj EndTxn", backup);
}

TEST_F(Connected, AnswersFailedSending) {
    const std::string ended = "SendData EndSendObj EndTxn";
    const auto send = [&] { return TsmSendData(session, Bytes("abcdef"), 6); };
    Expect({{"dsmSendData", {{1}}}}, -1, "SendData", send);
    Expect({{"dsmSendData", {{-11}}}}, -11, "SendData", send);
    // 157, as for the announcement.
    Expect({{"dsmSendData", {{157}}}, {"dsmEndTxn", {{2302, 12}}}}, -12, ended, send);
    Expect({{"dsmSendData", {{157}}}, {"dsmEndSendObj", {{5}}}, {"dsmEndTxn", {{0, 12}}}}, -12, ended, send);
    Expect({{"dsmSendData", {{157}}}, {"dsmEndTxn", {{7, 0}}}}, -7, ended, send);
    Expect({{"dsmSendData", {{157}}}}, 0, ended, send);
}

TEST_F(Connected, SendsUntilAllIsTaken) {
    auto* const data = Bytes("abcdef");
    EXPECT_EQ(TsmSendData(session, nullptr, 0), 0);
    api.acceptedBytes = {2, 3, 1};
    EXPECT_EQ(TsmSendData(session, data, 6), 0);
    EXPECT_NE(api.lastSent, reinterpret_cast<char*>(data)) << "the caller's buffer stays with the caller";
    EXPECT_EQ(api.TakeCalls(), (Lines{"dsmSendData v=3 '' length=0", "dsmSendData v=3 'abcdef' length=6",
                                      "dsmSendData v=3 'cdef' length=4", "dsmSendData v=3 'f' length=1"}));
    api.acceptedBytes = {2, 0};
    EXPECT_EQ(TsmSendData(session, data, 6), -1) << "takes nothing";
    api.acceptedBytes = {7};
    EXPECT_EQ(TsmSendData(session, data, 6), -1) << "takes more than there is";
    EXPECT_EQ(api.TakeCalls().size(), 3u);
}

TEST_F(Connected, AnswersFailedCommits) {
    const auto end = [&] { return TsmEndBackup(session); };
    Expect({{"dsmEndSendObj", {{5}}}}, 0, "EndSendObj EndTxn", end);
    Expect({{"dsmEndTxn", {{2302, 65535}}}}, -65535, "EndSendObj EndTxn", end);
    Expect({{"dsmEndTxn", {{0, 3}}}}, -3, "EndSendObj EndTxn", end);
    Expect({{"dsmEndTxn", {{2041, 0}}}}, -2041, "EndSendObj EndTxn", end);
}

namespace {

class Restore : public Connected {
protected:
    // Begins the restore of one object, which answers so.
    long long Begin(const Found& found, dsInt16_t getObj = 2200) {
        api.Finds({found});
        api.Answers("dsmGetObj", {{getObj}});
        const long long size = TsmBeginRestore(session, C("d"), C("f"), nullptr);
        opening = api.TakeCalls();
        return size;
    }
    int Read(int size = 1) { return TsmGetData(session, &buffer, size); }
    const Found empty{"/vm", "/d", "/f"};
    // Its texts fill their fields, without a terminator.
    const Found brim{std::string(1025, 'f'), std::string(1025, 'h'), std::string(257, 'l'), 1, 99, "", {}, 1,
                     std::string(31, 'm')};
    Lines opening;
    std::string room = std::string(65536, '-');
    unsigned char* buffer = reinterpret_cast<unsigned char*>(room.data());
};

}  // namespace

TEST_F(Restore, OpensTheLastMatch) {
    const Found last{"/vm", "/dir/sub", "/a.bin", 1, (1ull << 32) + 5, "", {}, 3, "LONG"};
    api.Finds({brim, last});
    api.Answers("dsmGetObj", {{2200}});
    EXPECT_EQ(TsmBeginRestore(session, C("dir/sub"), C("a*"), C("2021-3-7 9:5")), (1ll << 32) + 5);
    EXPECT_EQ(api.TakeCalls(), (Lines{"dsmBeginQuery q=1 v=2 '/vm' '/dir/sub' '/a*' type=1 state=255 at=2021.3.7.9.5.0",
                                      "dsmGetNextQObj v=3 length=4600 response=8", "dsmEndQuery",
                                      "dsmBindMC '/vm' '/dir/sub' '/a.bin' type=1 send=0 v=1 mc='LONG'",
                                      "dsmBeginGetData wait=1 get=0 v=2 n=1 0:3", "dsmGetObj 0:3"}));
}

TEST_F(Restore, CutsNamesThatFillTheirFields) {
    EXPECT_EQ(Begin(brim), 99);
    EXPECT_EQ(opening.at(3), "dsmBindMC '" + std::string(1024, 'f') + "' '" + std::string(1024, 'h') + "' '" +
                                 std::string(256, 'l') + "' type=1 send=0 v=1 mc='" + std::string(30, 'm') + "'");
}

TEST_F(Restore, ReadsToTheEnd) {
    EXPECT_EQ(Begin(empty), 0);
    api.chunks = {"one", "two", "three", ""};
    api.Answers("dsmGetData", {{2200}, {2200}, {121}});
    EXPECT_EQ(Read(100), 3);
    EXPECT_EQ(room.substr(0, 4), "one-");
    EXPECT_EQ(Read(65536), 3);
    EXPECT_EQ(Read(-1), 5);
    EXPECT_EQ(room.substr(0, 6), "three-");
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(TsmEndRestore(session), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(buffer, reinterpret_cast<unsigned char*>(room.data()));
    EXPECT_EQ(api.TakeCalls(), (Lines{"dsmGetData v=3 length=32768 got=0", "dsmGetData v=3 length=65536 got=0",
                                      "dsmGetData v=3 length=32768 got=0", "dsmEndGetObj", "dsmEndGetData"}));
}

TEST_F(Restore, AnswersFailuresToOpen) {
    const std::string asked = "BeginQuery GetNextQObj", found = asked + " EndQuery", bound = found + " BindMC",
                      begun = bound + " BeginGetData", opened = begun + " GetObj", ended = opened + " EndGetObj";
    const auto open = [&] { return TsmBeginRestore(session, C("d"), C("f"), nullptr); };
    Expect({{"dsmBeginQuery", {{5}}}}, -5, "BeginQuery", open);
    Expect({}, -2, found, open);
    for (const dsInt16_t end : std::initializer_list<dsInt16_t>{2, 8, -8, 0}) {
        api.Finds({empty}, end);
        Expect({}, end == 0 ? -1 : -std::abs(end), asked, open);
    }
    const auto openOne = [&] { return api.Finds({empty}), open(); };
    Expect({{"dsmEndQuery", {{6}}}}, -6, found, openOne);
    Expect({{"dsmBindMC", {{7}}}}, -7, bound, openOne);
    Expect({{"dsmBeginGetData", {{-8}}}}, -8, begun, openOne);
    Expect({{"dsmGetObj", {{9}}}}, -9, opened, openOne);
    Expect({{"dsmGetObj", {{0}}}}, -1, opened, openOne);
    Expect({{"dsmGetObj", {{121}}}, {"dsmEndGetObj", {{4}}}}, -4, ended, openOne);
    Expect({{"dsmGetObj", {{121}}}}, 0, ended, openOne);
}

TEST_F(Restore, OfAnObjectWithoutBytesEndsAtOnce) {
    EXPECT_EQ(Begin(empty, 121), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(api.TakeCalls(), Lines{});
    api.Answers("dsmEndGetObj", {{4}});
    EXPECT_EQ(Begin(empty, 121), -4);
    EXPECT_EQ(Read(), -1) << "the stream has not ended";
    EXPECT_EQ(api.TakeCallNames(), Lines{"dsmGetData"});
}

TEST_F(Restore, AnswersFailedReads) {
    EXPECT_EQ(Begin(empty), 0);
    api.chunks = {"lost", "lost", std::string(32769, 'x'), "end"};
    api.Answers("dsmGetData", {{11}, {0}, {2200}, {121}});
    EXPECT_EQ(Read(), -11);
    EXPECT_EQ(Read(), -1);
    EXPECT_EQ(Read(), -1) << "more than there is room for";
    EXPECT_EQ(room, std::string(room.size(), '-'));
    api.Answers("dsmEndGetObj", {{4}});
    EXPECT_EQ(Read(), -4);
    EXPECT_EQ(room.substr(0, 4), "end-") << "placed, though not reported";
    EXPECT_EQ(Read(), 0);
    api.Answers("dsmEndGetData", {{5}, {-5}});
    EXPECT_EQ(TsmEndRestore(session), -5);
    EXPECT_EQ(TsmEndRestore(session), -5);
    EXPECT_EQ(api.TakeCallNames(), Calls("GetData GetData GetData GetData EndGetObj EndGetData EndGetData"));
}
