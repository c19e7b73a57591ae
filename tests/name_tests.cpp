// The rules by which paths and names of a host become names on the server.
#include "Fixture.h"

TEST_F(Library, NamesObjectsByTheRulesOfEachOperation) {
    const struct {
        const char* delimiter;
        const char* path;
        const char* name;
        std::string given;    // by a backup and a restore
        std::string pattern;  // by a listing and a deletion
        std::string renamed;  // by a rename, from it and to it
    } cases[] = {
        {"/", "dir/sub/", "a.bin", "'/dir/sub' '/a.bin'", "'/dir/sub' '/a.bin'", "'/dir/sub' '/a.bin'"},
        {"/", "dir\\sub\\", "x\\y/", "'/dir/sub' '/x\\y/'", "'/dir/sub' '/x/y'", "'/dir/sub' '/x/y'"},
        {"/", "\\dir", "\\f", "'/dir' '/\\f'", "'/dir' '/f'", "'/dir' '/f'"},
        {"/", "dir//", "/f", "'/dir/' '//f'", "'/dir/' '/f'", "'/dir/' '/f'"},
        {"/", "", "", "'' '/'", "'' '/'", "'' '/'"},
        {"/", "/", "/", "'' '//'", "'' '/'", "'' '/'"},
        {"/", "*", "*", "'/*' '/*'", "'*' '/*'", "'/*' '/*'"},
        {"\\", "dir/sub", "x/y", "'\\dir\\sub' '\\x/y'", "'\\dir\\sub' '\\x\\y'", "'\\dir\\sub' '\\x\\y'"},
        {":", "a/b\\c", "d/e:", "':a/b\\c' ':d/e:'", "':a/b\\c' ':d/e'", "':a/b\\c' ':d/e'"},
        // Of a longer delimiter one character is dropped.
        {"ab", "xab", "y", "'abxa' 'aby'", "'abxa' 'aby'", "'abxa' 'aby'"},
        {"ab", "", "/", "'' 'ab/'", "'' 'ab/'", "'' 'ab/'"},
        {"ab", "c", "", "'abc' 'ab'", "'abc' 'ab'", "'abc' 'ab'"},
        {"/", "*", nullptr, "", "'*' '/*'", ""},
        {"\\", "dir", nullptr, "", "'\\dir' '\\*'", ""},
        {":", "", nullptr, "", "'' '/*'", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.delimiter) + " " + c.path);
        const int session = Connect(c.delimiter);
        const std::string fs = "'" + std::string(c.delimiter) + "vm' ", asked = Asked(fs + c.pattern, 255, 1).at(0);
        char *path = C(c.path), *name = C(c.name);
        TsmObject* objects;
        EXPECT_EQ(TsmGetBackupInfo(session, path, name, 1, TSM_OBJECTS_ANY, &objects), 0);
        EXPECT_EQ(api.TakeCalls().at(0), asked);
        EXPECT_EQ(TsmDelete(session, path, name, 0, nullptr), 0);
        EXPECT_EQ(api.TakeCalls().at(0), asked);
        if (!c.name) continue;
        EXPECT_EQ(TsmBeginRestore(session, path, name, nullptr), -2);
        EXPECT_EQ(api.TakeCalls(), Asked(fs + c.given, 1, 1));
        EXPECT_EQ(TsmBeginBackup(session, path, name, 1), 0);
        EXPECT_EQ(api.TakeCalls().rbegin()[2], "dsmBindMC " + fs + c.given + " type=1 send=0 v=1 mc=''");
        api.Finds({Found{}});
        EXPECT_EQ(TsmRenameBackup(session, path, name, path, name), 0);
        const Lines calls = api.TakeCalls(), lookUp = Asked(fs + c.pattern, 255, 255);
        EXPECT_EQ(Lines(calls.begin(), calls.begin() + 6), lookUp + lookUp);
        EXPECT_EQ(calls.at(7), "dsmRenameObj v=1 out=1 repository=11 " + fs + c.renamed + " type=1 to " + c.renamed +
                                   " merge=0 id=0:0");
    }
}

TEST_F(Library, NamesFilespaces) {
    const std::string longest(1023, 'n');
    const struct {
        const char* delimiter;
        std::string name;
        std::string connected;
        std::string deleted;
    } cases[] = {{"\\", "a/b\\c", "\\a\\b\\c", "\\a/b\\c"},
                 {"/", "a\\b", "/a/b", "/a\\b"},
                 {":", "a/b\\c", ":a/b\\c", ":a/b\\c"},
                 {"/", "/x", "//x", "//x"},
                 {"/", "", "/", "/"},
                 {"//", "a\\b", "//a\\b", "//a\\b"},
                 {"/", longest, "/" + longest, "/" + longest}};
    for (const auto& c : cases) {
        const int session = Open(c.delimiter);
        EXPECT_EQ(TsmConnectToFileSpace(session, C(c.name.c_str())), 0);
        EXPECT_EQ(TsmDeleteFileSpace(session, C(c.name.c_str())), 0);
        EXPECT_EQ(api.TakeCalls(), (Lines{"dsmRegisterFS v=1 '" + c.connected + "' 'NTFS' 0:0 0:0 'FS-INFO' length=8",
                                          "dsmDeleteFS '" + c.deleted + "' repository=1"}));
    }
    EXPECT_EQ(TsmSetAccess(Open("/"), C("nodeB"), C("\\vm01"), C("ignored")), 0);
    EXPECT_EQ(api.TakeCalls(), Lines{"dsmSetAccess access=0 '\\vm01' '\\' '*' type=1 node='nodeB' owner=null"});
}
