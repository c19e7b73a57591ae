// The inventory query, its names and its records.
#include <cstring>

#include "Fixture.h"
#include "session/Result.h"
#include "util/Helpers.h"
#include "util/StringUtil.h"

TEST(Helpers, CutAndTestPaths) {
    using Fields = std::vector<std::string>;
    const std::pair<const char*, Fields> splits[] = {
        {"", {}},    {"a", {"a"}},    {"/a/b", {"", "a", "b"}}, {"a//b", {"a", "", "b"}}, {"a/b/", {"a", "b"}},
        {"/", {""}}, {"//", {"", ""}}};
    for (const auto& [text, fields] : splits) EXPECT_EQ(StringUtil::Split(text, '/'), fields) << text;
    Fields kept = {"x", "y"};
    EXPECT_EQ(&StringUtil::Split("a/b", '/', kept), &kept);
    EXPECT_EQ(kept, (Fields{"x", "y", "a", "b"}));

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

TEST_F(Library, BuildsQueryNames) {
    const struct {
        const char* delimiter;
        const char* path;
        const char* name;
        int activeOnly;
        int objectType;
        const char* query;
    } cases[] = {
        {"/", "dir/sub/", "a.bin", 1, 2, "'/vm' '/dir/sub' '/a.bin' type=1 state=1"},
        {"/", "dir\\sub\\", "x\\y/", 0, 0, "'/vm' '/dir/sub' '/x/y' type=255 state=255"},
        {"/", "\\dir", "\\f", 1, 0, "'/vm' '/dir' '/f' type=255 state=1"},
        {"/", "dir//", "*", 2, 1, "'/vm' '/dir/' '/*' type=2 state=255"},
        {"/", "", "", -1, 3, "'/vm' '' '/' type=1 state=255"},
        {"/", "/", "/", 1, -1, "'/vm' '' '/' type=1 state=1"},
        {"/", "*", nullptr, 1, 0, "'/vm' '*' '/*' type=255 state=1"},
        {"\\", "dir/sub", nullptr, 1, 0, "'\\vm' '\\dir\\sub' '\\*' type=255 state=1"},
        {":", "a/b\\c", nullptr, 1, 0, "':vm' ':a/b\\c' '/*' type=255 state=1"},
        {"ab", "xab", "y", 1, 0, "'abvm' 'abxa' 'aby' type=255 state=1"},
        {"ab", "", "/", 1, 0, "'abvm' '' 'ab/' type=255 state=1"},
        {"ab", "c", "", 1, 0, "'abvm' 'abc' 'ab' type=255 state=1"},
    };
    for (const auto& c : cases) {
        const int session = Connect(c.delimiter);
        TsmObject* objects = reinterpret_cast<TsmObject*>(this);
        api.Finds({}, c.objectType == 0 ? 2 : 121);
        EXPECT_EQ(TsmGetBackupInfo(session, C(c.path), C(c.name), c.activeOnly, c.objectType, &objects), 0);
        EXPECT_EQ(objects, nullptr);
        EXPECT_EQ(api.Taken(), (Lines{std::string("dsmBeginQuery q=1 v=2 ") + c.query + " at=0.0.0.0.0.0",
                                      "dsmGetNextQObj v=3 length=4600 response=8", "dsmEndQuery"}));
    }

    const std::pair<const char*, const char*> moments[] = {{"2021-03-07 09:05:00", "255 at=2021.3.7.9.5.0"},
                                                           {"2021-3-7 9:5:0", "255 at=2021.3.7.9.5.0"},
                                                           {"2021-03-07", "255 at=2021.3.7.0.0.0"},
                                                           {"20210307", "255 at=2021.0.0.0.0.0"},
                                                           {"2021-3-789 9:5:0", "255 at=2021.3.78.9.0.0"},
                                                           {"soon", "255 at=0.0.0.0.0.0"},
                                                           {nullptr, "1 at=0.0.0.0.0.0"}};
    const int session = Connect();
    TsmObject* objects;
    for (const auto& [text, query] : moments) {
        EXPECT_EQ(TsmGetBackupInfoPointInTime(session, C("a"), C("b"), C(text), 0, &objects), 0);
        EXPECT_EQ(api.Taken().at(0), std::string("dsmBeginQuery q=1 v=2 '/vm' '/a' '/b' type=255 state=") + query);
    }
}

TEST_F(Library, GivesRecordsWithAnExactLayout) {
    const int session = Connect();
    Found plain{"/vm", "/dir", "/file", DSM_OBJ_FILE, (5ull << 32) + 1, "note"};
    Found top{"/", "", "/d", DSM_OBJ_DIRECTORY, 0, "", {2021, 12, 31, 23, 59, 59}};
    // Everything longer than its field, and a date that no calendar has.
    Found wild{std::string(1025, 'f'), std::string(1025, 'h'),          std::string(257, 'l'), 7, 0,
               std::string(1536, 'i'), {65535, 255, 255, 255, 255, 255}};
    TsmObject* objects = nullptr;
    std::vector<TsmObject> first;
    for (int round = 0; round < 2; ++round) {  // the second time over an inventory that is still held
        api.Finds({plain, top, wild, Found{"", "", "", 3}});
        ASSERT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &objects), 4);
        if (round == 0) first.assign(objects, objects + 4);
    }
    EXPECT_EQ(std::memcmp(first.data(), objects, 4 * sizeof(TsmObject)), 0);

    TsmObject expected;
    std::memset(&expected, 0, sizeof expected);
    auto* bytes = reinterpret_cast<char*>(&expected);
    const auto put = [&](std::size_t offset, const std::string& text) {
        std::memcpy(bytes + offset, text.data(), text.size());
    };
    const auto number = [&](std::size_t offset, auto value) { std::memcpy(bytes + offset, &value, sizeof value); };
    put(0, "/dir");
    put(1027, "/file");
    number(1288, static_cast<long long>((5ull << 32) + 1));
    put(1296, "2021-3-7 9:5:0");
    put(1316, "note");
    put(1571, "vm");
    number(2596, 1);
    EXPECT_EQ(std::memcmp(&objects[0], &expected, 2600), 0);

    std::memset(&expected, 0, sizeof expected);
    put(1027, "/d");
    put(1296, "2021-12-31 23:59:59");
    EXPECT_EQ(std::memcmp(&objects[1], &expected, 2600), 0);

    std::memset(&expected, 0, sizeof expected);
    put(0, std::string(1025, 'h'));
    put(1027, std::string(256, 'l'));
    put(1296, "65535-255-255 255:2");
    put(1316, std::string(254, 'i'));
    put(1571, std::string(1024, 'f'));
    number(2596, 1);
    EXPECT_EQ(std::memcmp(&objects[2], &expected, 2600), 0);
    EXPECT_EQ(objects[3].fileSpace, std::string());
    EXPECT_EQ(objects[3].isFile, 1);

    // A query that finds nothing leaves what is held; either function releases it.
    TsmObject* none = objects;
    EXPECT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &none), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(objects[3].isFile, 1);
    api.Finds({plain}, 11);
    none = objects;
    EXPECT_EQ(TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &none), -11);
    EXPECT_EQ(objects[3].isFile, 1) << "nor does one that fails";
    api.Taken();
    EXPECT_EQ(TsmEndGetBackupInfoPointInTime(session), 0);
    EXPECT_EQ(TsmEndGetBackupInfo(session), 0);
    EXPECT_EQ(api.Taken(), Lines{});

    // Growing past several doublings keeps the order.
    std::vector<Found> many;
    for (dsUint32_t i = 0; i < 1000; ++i) many.push_back({"/vm", "/d", "/" + std::to_string(i), 1, i});
    api.Finds(many);
    ASSERT_EQ(TsmGetBackupInfo(session, C("d"), nullptr, 0, 0, &objects), 1000);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(objects[i].size, i);
}

TEST_F(Library, AnswersFailedQueries) {
    const int session = Connect();
    const Found one{"/vm", "/d", "/f"};
    const struct {
        dsInt16_t begin, end, endQuery;
        int result;
        std::size_t calls;
    } cases[] = {{5, 0, 0, -5, 1}, {-5, 0, 0, -5, 1},  {0, 11, 0, -11, 2}, {0, -11, 0, -11, 2},
                 {0, 0, 0, -1, 2}, {0, 121, 6, -6, 3}, {0, 2, 6, -6, 3}};
    for (const auto& c : cases) {
        TsmObject untouched;
        TsmObject* objects = &untouched;
        if (c.begin == 0) api.Finds({one}, c.end);
        api.Answers("dsmBeginQuery", {{c.begin}});
        api.Answers("dsmEndQuery", {});
        if (c.calls == 3) api.Answers("dsmEndQuery", {{c.endQuery}});
        EXPECT_EQ(TsmGetBackupInfo(session, C("d"), nullptr, 1, 0, &objects), c.result);
        EXPECT_EQ(objects, c.begin != 0 ? &untouched : nullptr);
        EXPECT_EQ(api.Taken().size(), c.calls);
    }
    TsmObject* objects = nullptr;
    const std::string path(1024, 'p'), name(256, 'n');
    EXPECT_EQ(TsmGetBackupInfo(session, C(path.c_str()), C("n"), 1, 0, &objects), -2120);
    EXPECT_EQ(TsmGetBackupInfo(session, C("p"), C(name.c_str()), 1, 0, &objects), -2120);
    EXPECT_EQ(TsmGetBackupInfo(session, nullptr, C("n"), 1, 0, &objects), -2000);
    EXPECT_EQ(TsmGetBackupInfo(session, C("p"), C("n"), 1, 0, nullptr), -2009);
    EXPECT_EQ(TsmGetBackupInfoPointInTime(session, C("p"), C("n"), nullptr, 0, nullptr), -2009);
    EXPECT_EQ(TsmGetBackupInfo(Open("/"), C("p"), C("n"), 1, 0, &objects), -2061);
    EXPECT_EQ(api.Taken(), Lines{});
    EXPECT_EQ(TsmGetBackupInfo(Connect(), C(path.c_str() + 1), C(name.c_str() + 1), 1, 0, &objects), 0);
}
