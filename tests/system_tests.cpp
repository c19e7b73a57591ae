// Whole operations: the library and the stand-in, on a store of their own.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "standin/testcontrol.h"
#include "tsmconnector.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

namespace {

char* C(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

class System : public testing::Test {
protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "tsm-system-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
        standinReset();
        Start("");
        session = Open();
    }
    void TearDown() override {
        TsmReleaseApi();
        standinReset();
        fs::remove_all(folder);
    }
    void Start(const std::string& options) {
        std::ofstream(folder / "dsm.opt") << "STOREDIR store\n" << options;
        ASSERT_EQ(TsmInitApi(C((folder / "dsm.opt").string()), nullptr, nullptr, nullptr), 0);
    }
    int Open(const std::string& password = "secret", const std::string& filespace = "vm") {
        const int opened = TsmOpenSession(C("NODE"), nullptr, C(password), nullptr, nullptr, nullptr, C("/"));
        if (opened > 0) {
            EXPECT_EQ(TsmConnectToFileSpace(opened, C(filespace)), 0);
        }
        return opened;
    }
    // Stores data in uneven pieces.
    int Store(const std::string& path, const std::string& name, const std::string& data) {
        return Store(session, path, name, data);
    }
    static int Store(int with, const std::string& path, const std::string& name, std::string data) {
        int result =
            TsmBeginBackupEx(with, C(path), C(name), std::max<long long>(1, static_cast<long long>(data.size())),
                             C("info of " + name), nullptr);
        for (std::size_t at = 0; result == 0 && at < data.size();) {
            const std::size_t piece = std::min<std::size_t>(data.size() - at, 70001);
            result = TsmSendData(with, reinterpret_cast<unsigned char*>(&data[at]), static_cast<int>(piece));
            at += piece;
        }
        return result == 0 ? TsmEndBackup(with) : result;
    }
    // What a restore gives, or the code of its failure.
    std::string Fetch(const std::string& path, const std::string& name, const char* at = nullptr) {
        const long long size = TsmBeginRestore(session, C(path), C(name), at == nullptr ? nullptr : C(at));
        if (size < 0) return std::to_string(size);
        std::vector<unsigned char> room(32768);
        unsigned char* buffer = room.data();
        std::string data;
        int got;
        while ((got = TsmGetData(session, &buffer, 0)) > 0) data.append(room.begin(), room.begin() + got);
        EXPECT_EQ(got, 0);
        EXPECT_EQ(TsmEndRestore(session), 0);
        return data;
    }
    // The whole inventory of the filespace, a version a line, directory objects with a trailing delimiter.
    Lines All(bool activeOnly = false) {
        TsmObject* objects = nullptr;
        const int count = TsmGetBackupInfo(session, C("*"), nullptr, activeOnly ? 1 : 0, TSM_OBJECTS_ANY, &objects);
        EXPECT_GE(count, 0);
        Lines lines;
        for (int i = 0; i < count; ++i) {
            lines.push_back(std::string(objects[i].highLevelName) + objects[i].lowLevelName +
                            (objects[i].isFile ? "" : "/"));
        }
        TsmEndGetBackupInfo(session);
        std::sort(lines.begin(), lines.end());
        return lines;
    }
    fs::path folder;
    int session = 0;
};

std::string Bytes(std::size_t length, unsigned seed = 1) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>((seed = seed * 1103515245 + 12345) >> 16);
    return bytes;
}

}  // namespace

TEST_F(System, StoresListsAndRestores) {
    // Around the sizes of chunks and pieces, and with nothing to send.
    for (const std::size_t size : {0u, 1u, 32767u, 32768u, 32769u, 65536u, 300000u}) {
        const std::string name = std::to_string(size), data = Bytes(size);
        ASSERT_EQ(Store("a/b", name, data), 0);
        EXPECT_EQ(Fetch("/a\\b/", name) == data, true) << size;
    }
    EXPECT_EQ(All(), (Lines{"/a/", "/a/b/", "/a/b/0", "/a/b/1", "/a/b/300000", "/a/b/32767", "/a/b/32768", "/a/b/32769",
                            "/a/b/65536"}));
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(session, C("a/b"), C("300*"), 1, TSM_OBJECTS_FILES, &objects), 1);
    EXPECT_STREQ(objects->highLevelName, "/a/b");
    EXPECT_STREQ(objects->lowLevelName, "/300000");
    EXPECT_STREQ(objects->objectInfo, "info of 300000");
    EXPECT_STREQ(objects->fileSpace, "vm");
    EXPECT_EQ(objects->size, 300000);
    TsmEndGetBackupInfo(session);
    EXPECT_EQ(Fetch("a", "b"), "-2") << "a directory object";
    EXPECT_EQ(Fetch("a", "missing"), "-2");

    char** names = nullptr;
    ASSERT_EQ(TsmConnectToFileSpace(session, C("other")), 0);
    EXPECT_EQ(All(), Lines{}) << "a filespace of its own";
    ASSERT_EQ(TsmGetFileSpaces(session, &names), 2);
    EXPECT_EQ(Lines(names, names + 2), (Lines{"other", "vm"}));
    TsmEndGetFileSpaces(session);
    ASSERT_EQ(TsmGetMgmtClasses(session, &names), 1);
    EXPECT_STREQ(names[0], "STANDARD");
    TsmEndGetMgmtClasses(session);
    EXPECT_EQ(TsmDeleteFileSpace(session, C("vm")), 0);
    EXPECT_EQ(TsmGetFileSpaces(session, &names), 1);
    EXPECT_EQ(TsmSetAccess(session, C("OTHER"), C("/other"), nullptr), 0);
    EXPECT_EQ(TsmSetAccess(session, C("OTHER"), C("/vm"), nullptr), -2061);
    EXPECT_EQ(Open("wrong"), -137);
    EXPECT_EQ(TsmBeginBackupEx(session, C(""), C("f"), 1, nullptr, C("NONE")), -2025);
}

TEST_F(System, KeepsVersionsInTime) {
    const char* moments[] = {"2021-03-07 09:05:00", "2021-03-07 09:05:01", "2021-12-31 23:59:59"};
    for (const char* moment : moments) {
        standinSetClock(moment);
        ASSERT_EQ(Store("d", "f", moment), 0);
    }
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(session, C("d"), C("f"), 0, 0, &objects), 3);
    // A listing's own dates select the versions they stand for.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Fetch("d", "f", std::string(objects[i].backupDate).c_str()), moments[i]);
    EXPECT_EQ(Fetch("d", "f"), moments[2]);
    EXPECT_EQ(Fetch("d", "f", "2021-12-31 23:59:58"), moments[1]);
    EXPECT_EQ(Fetch("d", "f", "2021-03-07 09:04:59"), "-2");
    ASSERT_EQ(TsmGetBackupInfoPointInTime(session, C("d"), C("f"), C("2021-6-1"), 2, &objects), 1);
    EXPECT_STREQ(objects->backupDate, "2021-3-7 9:5:1");
    TsmEndGetBackupInfoPointInTime(session);
    standinSetClock("2022-01-01 00:00:00");
    EXPECT_EQ(TsmDelete(session, C("d"), C("f"), 0, nullptr), 0);
    EXPECT_EQ(Fetch("d", "f"), "-2");
    EXPECT_EQ(Fetch("d", "f", "2021-12-31 23:59:59"), moments[2]) << "deactivated, not gone";
}

// The ways out that the header names, after failures that leave something open.
TEST_F(System, RecoversAfterFailures) {
    ASSERT_EQ(Store("d", "f", "first"), 0);
    TsmObject* objects = nullptr;
    standinFail("dsmSendObj", 1, 11, 0);
    EXPECT_EQ(TsmBeginBackup(session, C("d"), C("f"), 5), -11);
    EXPECT_EQ(TsmGetBackupInfo(session, C("d"), C("f"), 1, 0, &objects), -2041) << "the transaction is open";
    TsmEndBackup(session);
    EXPECT_EQ(Fetch("d", "f"), "first");

    standinFail("dsmDeleteObj", 1, 11, 0);
    EXPECT_EQ(TsmDelete(session, C("d"), C("f"), 0, nullptr), -11);
    EXPECT_EQ(TsmDelete(session, C("d"), C("f"), 0, nullptr), -2041);
    TsmEndBackup(session);
    EXPECT_EQ(Fetch("d", "f"), "first");

    // Half an object: the session is closed, and the half is gone.
    ASSERT_EQ(TsmBeginBackup(session, C("d"), C("f"), 10), 0);
    ASSERT_EQ(TsmSendData(session, reinterpret_cast<unsigned char*>(C("half")), 4), 0);
    standinFail("dsmSendData", 1, 11, 0);
    EXPECT_EQ(TsmSendData(session, reinterpret_cast<unsigned char*>(C("half")), 4), -11);
    EXPECT_EQ(TsmCloseSession(session), 0);
    session = Open();
    EXPECT_EQ(Fetch("d", "f"), "first");
    for (const auto& entry : fs::recursive_directory_iterator(folder / "store" / "incoming")) {
        EXPECT_FALSE(entry.is_regular_file()) << "bytes left behind";
    }

    // The server gives up: object and transaction are ended, the session goes on.
    standinFail("dsmSendData", 1, 157, 12);
    ASSERT_EQ(TsmBeginBackup(session, C("d"), C("f"), 10), 0);
    EXPECT_EQ(TsmSendData(session, reinterpret_cast<unsigned char*>(C("half")), 4), -12);
    EXPECT_EQ(Fetch("d", "f"), "first");
    standinFail("dsmEndTxn", 1, 0, 9);
    EXPECT_EQ(Store("d", "f", "second"), -9);
    EXPECT_EQ(Fetch("d", "f"), "first");

    // A restore that is broken off, and one that never got its data open.
    standinFail("dsmGetObj", 1, 11, 0);
    EXPECT_EQ(TsmBeginRestore(session, C("d"), C("f"), nullptr), -11);
    EXPECT_EQ(TsmEndRestore(session), 0);
    ASSERT_EQ(TsmBeginRestore(session, C("d"), C("f"), nullptr), 5);
    EXPECT_EQ(TsmEndRestore(session), 0);
    EXPECT_EQ(Fetch("d", "f"), "first");
    EXPECT_EQ(TsmBeginBackup(session, C("d"), C("e"), 0), 0);
    EXPECT_EQ(TsmSendData(session, reinterpret_cast<unsigned char*>(C("x")), 1), -2107);
}

TEST_F(System, DeletesWithTheDirectoriesLeftEmpty) {
    for (const char* path : {"a/b/c", "a/b/d", "a/e"}) {
        for (const char* name : {"1", "2"}) ASSERT_EQ(Store(path, name, "x"), 0);
    }
    ASSERT_EQ(Store("a/b/c", "1", "newer"), 0);
    EXPECT_EQ(TsmDelete(session, C("a/b/c"), C("1"), 0, nullptr), 0);
    EXPECT_EQ(All(true), (Lines{"/a/", "/a/b/", "/a/b/c/", "/a/b/c/2", "/a/b/d/", "/a/b/d/1", "/a/b/d/2", "/a/e/",
                                "/a/e/1", "/a/e/2"}));
    EXPECT_EQ(TsmDelete(session, C("a/b/d"), nullptr, 1, nullptr), 0);
    EXPECT_EQ(TsmDelete(session, C("a/b/c"), C("2"), 0, nullptr), 0);
    EXPECT_EQ(All(true), (Lines{"/a/", "/a/e/", "/a/e/1", "/a/e/2"})) << "inactive versions do not hold a directory";
    EXPECT_EQ(All(),
              (Lines{"/a/", "/a/b/", "/a/b/c/", "/a/b/c/1", "/a/b/c/1", "/a/b/c/2", "/a/e/", "/a/e/1", "/a/e/2"}));

    ASSERT_EQ(Store("a/e", "3", "x"), 0);
    standinFail("dsmDeleteObj", 2, 11, 0);
    EXPECT_EQ(TsmDelete(session, C("a/e"), nullptr, 1, nullptr), -11);
    TsmEndBackup(session);
    EXPECT_EQ(All(true), (Lines{"/a/", "/a/e/", "/a/e/2", "/a/e/3"})) << "the earlier ones are gone, and nothing else";
    EXPECT_EQ(TsmDelete(session, C("*"), nullptr, 1, nullptr), 0);
    EXPECT_EQ(All(), Lines{});
    EXPECT_EQ(fs::is_empty(folder / "store" / "data") ||
                  std::none_of(fs::recursive_directory_iterator(folder / "store" / "data"),
                               fs::recursive_directory_iterator(), [](const auto& e) { return e.is_regular_file(); }),
              true);

    // As deep as names allow, all the way up.
    std::string deep;
    while (deep.size() < 1020) deep += "/d";
    ASSERT_EQ(Store(deep, "f", "x"), 0);
    EXPECT_EQ(All().size(), 511u);
    EXPECT_EQ(TsmDelete(session, C(deep), C("f"), 1, nullptr), 0);
    EXPECT_EQ(All(), Lines{});
}

TEST_F(System, RenamesWithAllVersions) {
    standinSetClock("2021-01-01 00:00:00");
    ASSERT_EQ(Store("old/x", "f", "v1"), 0);
    standinSetClock("2021-01-02 00:00:00");
    ASSERT_EQ(Store("old/x", "f", "v2"), 0);
    ASSERT_EQ(Store("old/x", "g", "g"), 0);
    ASSERT_EQ(TsmRenameBackup(session, "old/x", "f", "new", "f"), 0);
    EXPECT_EQ(All(), (Lines{"/new/", "/new/f", "/new/f", "/old/", "/old/x/", "/old/x/g"}));
    EXPECT_EQ(Fetch("new", "f"), "v2");
    EXPECT_EQ(Fetch("new", "f", "2021-01-01"), "v1");
    // Onto a taken name, whose object is replaced; the old path goes with its last object.
    ASSERT_EQ(TsmRenameBackup(session, "old/x", "g", "new", "f"), 0);
    EXPECT_EQ(All(), (Lines{"/new/", "/new/f"}));
    EXPECT_EQ(Fetch("new", "f"), "g");
    EXPECT_EQ(TsmRenameBackup(session, "old/x", "g", "new", "f"), -2);
    EXPECT_EQ(TsmRenameBackup(session, "new", "f", "new", "f"), 0);
    EXPECT_EQ(All(), (Lines{"/new/"})) << "renaming a name to itself deletes it";
}

TEST_F(System, KeepsATakenNameThatMayNotBeDeleted) {
    TsmReleaseApi();
    Start("BACKDELETE NO\n");
    session = Open();
    ASSERT_EQ(Store("a", "f", "mine"), 0);
    ASSERT_EQ(Store("b", "g", "theirs"), 0);
    EXPECT_EQ(TsmDelete(session, C("b"), C("g"), 1, nullptr), -2302);
    ASSERT_EQ(TsmRenameBackup(session, "a", "f", "b", "g"), 0);
    EXPECT_EQ(Fetch("b", "g"), "mine");
    TsmObject* objects = nullptr;
    ASSERT_EQ(TsmGetBackupInfo(session, C("/b??? ??? *"), C("g*"), 0, TSM_OBJECTS_FILES, &objects), 1);
    const std::string hl = objects->highLevelName, ll = objects->lowLevelName;
    TsmEndGetBackupInfo(session);
    EXPECT_EQ(hl.size(), 2u + 25u);
    EXPECT_EQ(hl.substr(2), ll.substr(2)) << "one time for both";
    EXPECT_EQ(Fetch(hl, ll.substr(1)), "theirs");
}

TEST_F(System, ServesManyThreads) {
    const std::string data = Bytes(200000);
    std::vector<std::thread> threads;
    std::vector<int> failures(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                const int own = Open();
                for (int n = 0; n < 3; ++n) {
                    failures[static_cast<std::size_t>(t)] |=
                        Store(own, "t/" + std::to_string(t), std::to_string(n), data);
                }
                failures[static_cast<std::size_t>(t)] |= TsmCloseSession(own);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(4));
    for (int t = 0; t < 4; ++t) {
        for (int n = 0; n < 3; ++n) EXPECT_EQ(Fetch("t/" + std::to_string(t), std::to_string(n)) == data, true);
    }
    EXPECT_EQ(All(true).size(), 1u + 4u + 12u);
}
