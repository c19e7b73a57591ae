// The inventory query, its names and its records.
#include <cstring>

#include "Fixture.h"
#include "session/Result.h"
#include "util/Helpers.h"
#include "util/StringUtil.h"

TEST(Helpers, SplitPaths) {
    using Fields = std::vector<std::string>;
    const std::pair<const char*, Fields> splits[] = {
        {"", {}},    {"a", {"a"}},    {"/a/b", {"", "a", "b"}}, {"a//b", {"a", "", "b"}}, {"a/b/", {"a", "b"}},
        {"/", {""}}, {"//", {"", ""}}};
    for (const auto& [text, fields] : splits) EXPECT_EQ(StringUtil::Split(text, '/'), fields) << text;
    Fields kept = {"x", "y"};
    EXPECT_EQ(&StringUtil::Split("a/b", '/', kept), &kept);
    EXPECT_EQ(kept, (Fields{"x", "y", "a", "b"}));
}

TEST(Helpers, TestHowTextsBeginAndEnd) {
    const std::string nul("a\0x", 3);
    const struct {
        std::string text, part;
        bool starts, ends;
    } tests[] = {{"", "", true, false},     {"abc", "", true, false},   {"", "/", false, false},
                 {"a", "ab", false, false}, {"a/", "/", false, true},   {"/", "/", true, true},
                 {"/a", "/", true, false},  {"xab", "ab", false, true}, {nul, std::string("a\0y", 3), false, true},
                 {nul, nul, true, true}};
    for (const auto& t : tests) {
        EXPECT_EQ(StringUtil::StringStartsWith(t.text, t.part), t.starts) << t.text << " " << t.part;
        EXPECT_EQ(StringUtil::StringEndsWith(t.text, t.part), t.ends) << t.text << " " << t.part;
    }
}

TEST(Helpers, ConvertSizesAndCounts) {
    EXPECT_EQ(connector::Saturated(2147483647), 2147483647);
    EXPECT_EQ(connector::Saturated(2147483657), 2147483647);
    const struct {
        long long size;
        dsUint32_t hi, lo;
    } sizes[] = {
        {0, 0, 0}, {5, 0, 5}, {4294967295, 0, 4294967295u}, {4294967296, 1, 0}, {-1, 4294967295u, 4294967295u}};
    for (const auto& s : sizes) {
        const dsStruct64_t words = Helpers::GetSizeEstimate(s.size);
        EXPECT_EQ(words.hi, s.hi);
        EXPECT_EQ(words.lo, s.lo);
        EXPECT_EQ(Helpers::GetSizeFromStruct(words), s.size);
    }
}

TEST_F(Connected, AsksForVersionsAndKindsOfObjects) {
    const struct {
        int activeOnly, objectType;
        int state, type;
    } cases[] = {{1, 2, 1, 1}, {0, 0, 255, 255}, {2, 1, 255, 2}, {-1, 3, 255, 1}, {1, -1, 1, 1}, {1, 0, 1, 255}};
    for (const auto& c : cases) {
        TsmObject* objects = reinterpret_cast<TsmObject*>(this);
        api.Finds({}, c.objectType == 0 ? 2 : 121);
        EXPECT_EQ(TsmGetBackupInfo(session, C("a"), C("b"), c.activeOnly, c.objectType, &objects), 0);
        EXPECT_EQ(objects, nullptr);
        EXPECT_EQ(api.TakeCalls(), Asked("'/vm' '/a' '/b'", c.type, c.state));
    }
}

TEST_F(Connected, ReadsMoments) {
    const std::pair<const char*, const char*> moments[] = {{"2021-03-07 09:05:00", "255 at=2021.3.7.9.5.0"},
                                                           {"2021-3-7 9:5:0", "255 at=2021.3.7.9.5.0"},
                                                           {"2021-03-07", "255 at=2021.3.7.0.0.0"},
                                                           {"20210307", "255 at=2021.0.0.0.0.0"},
                                                           {"2021-3-789 9:5:0", "255 at=2021.3.78.9.0.0"},
                                                           {"soon", "255 at=0.0.0.0.0.0"},
                                                           {nullptr, "1 at=0.0.0.0.0.0"}};
    TsmObject* objects;
    for (const auto& [text, query] : moments) {
        EXPECT_EQ(TsmGetBackupInfoPointInTime(session, C("a"), C("b"), C(text), 0, &objects), 0);
        EXPECT_EQ(api.TakeCalls().at(0), std::string("dsmBeginQuery q=1 v=2 '/vm' '/a' '/b' type=255 state=") + query);
    }
}

const Found file{"/vm", "/dir", "/file", DSM_OBJ_FILE, (5ull << 32) + 1, "note"};

TEST_F(Connected, GivesRecordsWithAnExactLayout) {
    const Found top{"/", "", "/d", DSM_OBJ_DIRECTORY, 0, "", {2021, 12, 31, 23, 59, 59}};
    // Everything longer than its field, and a date that no calendar has.
    const Found wild{std::string(1025, 'f'), std::string(1025, 'h'),          std::string(257, 'l'), 7, 0,
                     std::string(1536, 'i'), {65535, 255, 255, 255, 255, 255}};
    const struct {
        long long size;
        int isFile;
        std::map<std::size_t, std::string> texts;  // by their offsets; all other bytes are 0
    } expected[] = {
        {(5ll << 32) + 1, 1, {{0, "/dir"}, {1027, "/file"}, {1296, "2021-3-7 9:5:0"}, {1316, "note"}, {1571, "vm"}}},
        {0, 0, {{1027, "/d"}, {1296, "2021-12-31 23:59:59"}}},
        {0,
         1,
         {{0, std::string(1025, 'h')},
          {1027, std::string(256, 'l')},
          {1296, "65535-255-255 255:2"},
          {1316, std::string(254, 'i')},
          {1571, std::string(1024, 'f')}}},
        {0, 1, {{1296, "2021-3-7 9:5:0"}}}};
    for (int round = 0; round < 2; ++round) {  // the second time over an inventory that is still held
        TsmObject* object = nullptr;
        api.Finds({file, top, wild, Found{"", "", "", 3}});
        ASSERT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &object), 4);
        for (const auto& e : expected) {
            char bytes[2600] = {};
            for (const auto& [offset, text] : e.texts) std::memcpy(bytes + offset, text.data(), text.size());
            std::memcpy(bytes + 1288, &e.size, 8);
            std::memcpy(bytes + 2596, &e.isFile, 4);
            EXPECT_EQ(std::memcmp(bytes, object++, 2600), 0) << e.texts.at(1296);
        }
    }
}

TEST_F(Connected, HoldsRecordsUntilTheyAreReleased) {
    api.Finds({file});
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &objects), 1);
    TsmObject* none = objects;
    EXPECT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &none), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(objects->isFile, 1) << "a query that finds nothing leaves what is held";
    api.Finds({file}, 11);
    none = objects;
    EXPECT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &none), -11);
    EXPECT_EQ(objects->isFile, 1) << "so does one that fails";
    api.TakeCalls();
    EXPECT_EQ(TsmEndGetBackupInfoPointInTime(session), 0);
    EXPECT_EQ(TsmEndGetBackupInfo(session), 0);
    EXPECT_EQ(api.TakeCalls(), Lines{});
}

TEST_F(Library, KeepsTheOrderOfManyRecords) {
    std::vector<Found> many;
    for (dsUint32_t i = 0; i < 1000; ++i) many.push_back({"/vm", "/d", "/" + std::to_string(i), 1, i});
    api.Finds(many);
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(Connect(), C("d"), nullptr, 0, 0, &objects), 1000);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(objects[i].size, i);
}

TEST_F(Connected, AnswersFailedQueries) {
    TsmObject untouched;
    TsmObject* objects = nullptr;
    const auto query = [&] {
        objects = &untouched;
        return TsmGetBackupInfo(session, C("d"), nullptr, 1, 0, &objects);
    };
    for (const dsInt16_t rc : std::initializer_list<dsInt16_t>{5, -5}) {
        Expect({{"dsmBeginQuery", {{rc}}}}, -5, "BeginQuery", query);
        EXPECT_EQ(objects, &untouched);
    }
    for (const dsInt16_t end : std::initializer_list<dsInt16_t>{11, -11, 0, 121, 2}) {
        const bool ended = end == 121 || end == 2;
        api.Finds({file}, end);
        Expect({{"dsmEndQuery", {{6}}}},
               ended      ? -6
               : end == 0 ? -1
                          : -11,
               ended ? "BeginQuery GetNextQObj EndQuery" : "BeginQuery GetNextQObj", query);
        EXPECT_EQ(objects, nullptr);
    }
}
