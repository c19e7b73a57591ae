// Want of memory at every single allocation of the library, and what is left in memory that it gives back.
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <set>

#include "Fixture.h"

namespace {

long countdown = 0;  // the allocation that fails, counted down; 0: none
bool failed = false;
std::size_t watchedSize = 0;  // the library's blocks of this size are looked at when they are freed; 0: none
std::set<const void*> watched;
int wiped = 0;

bool Fails() {
    if (countdown == 0 || ApiDouble::inside > 0 || --countdown > 0) return false;
    return failed = true;
}

void Release(void* block) {
    if (block != nullptr && watchedSize != 0 && watched.count(block) != 0) {
        const auto* bytes = static_cast<const char*>(block);
        wiped += std::all_of(bytes, bytes + watchedSize, [](char byte) { return byte == 0; });
    }
    std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
    void* block = Fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    if (size != 0 && size == watchedSize && ApiDouble::inside == 0) watched.insert(block);
    return block;
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept try {
    return operator new(size);
} catch (const std::bad_alloc&) {
    return nullptr;
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* block) noexcept {
    Release(block);
}
void operator delete[](void* block) noexcept {
    Release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    Release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    Release(block);
}

// Where the sanitizer is part of the program it keeps its own, and growing a large block cannot be made to fail.
#if defined(__has_feature)
#define SANITIZER_INSIDE __has_feature(address_sanitizer)
#else
#define SANITIZER_INSIDE 0
#endif
#if !SANITIZER_INSIDE
extern "C" void* realloc(void* block, std::size_t size) noexcept {
    static const auto next = reinterpret_cast<void* (*)(void*, std::size_t)>(dlsym(RTLD_NEXT, "realloc"));
    return Fails() ? nullptr : next(block, size);
}
#endif

TEST(Memory, EveryFailedAllocationIsAResult) {
    ApiDouble& api = ApiDouble::Get();
    const std::string path = "keep/a/component-that-no-string-keeps-in-itself/and/a/long/path";
    char* p = C(path.c_str());
    const Found object{"/vm", "/a", "/f"};
    int session = 0;
    char** list = nullptr;
    TsmObject* objects = nullptr;
    unsigned char room[32768] = {};
    unsigned char* buffer = room;
    const auto nothing = [] {};
    const auto findsOne = [&] { api.Finds({object}); };
    const auto findsTwo = [&] { api.Finds({object, object}); };
    const struct {
        const char* name;
        std::function<void()> prepare;
        std::function<long long()> run;
        long long expected;
        bool tidiesUp;  // goes on after failures in what it does for tidiness
    } operations[] = {
        {"connect", nothing, [&] { return TsmConnectToFileSpace(session, p); }, 0, false},
        {"filespaces", findsTwo, [&] { return TsmGetFileSpaces(session, &list); }, 2, false},
        {"classes", findsTwo, [&] { return TsmGetMgmtClasses(session, &list); }, 2, false},
        {"delete filespace", nothing, [&] { return TsmDeleteFileSpace(session, p); }, 0, false},
        {"inventory", [&] { api.Finds(std::vector<Found>(40, object)); },
         [&] { return TsmGetBackupInfo(session, p, p, 1, 0, &objects); }, 40, false},
        {"backup", nothing, [&] { return TsmBeginBackupEx(session, p, p, 1, p, p); }, 0, false},
        {"send", nothing, [&] { return TsmSendData(session, room, sizeof room); }, 0, false},
        {"restore", [&] { findsOne(), api.Answers("dsmGetObj", {{2200}}); },
         [&] { return TsmBeginRestore(session, p, p, nullptr); }, 0, false},
        {"read", [&] { api.Answers("dsmGetData", {{121}}); }, [&] { return TsmGetData(session, &buffer, 1); }, 0,
         false},
        {"delete active", findsTwo, [&] { return TsmDelete(session, p, p, 0, nullptr); }, 0, true},
        {"delete versions", findsTwo, [&] { return TsmDelete(session, p, p, 1, nullptr); }, 0, true},
        {"rename", [&] { findsOne(), findsOne(), findsOne(); },
         [&] { return TsmRenameBackup(session, p, p, "new/path/of/some/length", p); }, 0, true},
    };
    const auto failing = [](long nth, const auto& run) {
        failed = false;
        countdown = nth;
        const long long result = run();
        countdown = 0;
        return result;
    };
    long nth = 0;
    do {
        const auto result = failing(++nth, [] { return TsmInitApi(nullptr, nullptr, nullptr, C("APPLICATION")); });
        EXPECT_EQ(result, failed ? -102 : 0);
        if (tsmApi != nullptr) TsmReleaseApi();
    } while (failed);
    EXPECT_GT(nth, 2);
    ASSERT_EQ(TsmInitApi(nullptr, nullptr, nullptr, nullptr), 0);
    api.Reset();
    const auto open = [&] { return session = TsmOpenSession(C("N"), C("O"), C("P"), C("-x"), C("e"), C("U"), C("/")); };
    nth = 0;
    do {
        const auto result = failing(++nth, open);
        EXPECT_EQ(result, failed ? -102 : 7);
        EXPECT_EQ(api.Taken().empty(), failed) << "nobody is signed on";
    } while (failed);
    for (const auto& operation : operations) {
        SCOPED_TRACE(operation.name);
        nth = 0;
        do {
            ASSERT_EQ(open(), 7);
            ASSERT_EQ(TsmConnectToFileSpace(session, C("vm")), 0);
            operation.prepare();
            api.Taken();
            const long long result = failing(++nth, operation.run);
            if (!failed) {
                EXPECT_EQ(result, operation.expected);
            } else if (!operation.tidiesUp || result != 0) {
                EXPECT_EQ(result, -102) << nth;
            }
            const Lines calls = api.TakenNames();
            EXPECT_EQ(std::count(calls.begin(), calls.end(), "dsmBeginQuery"),
                      std::count(calls.begin(), calls.end(), "dsmEndQuery"))
                << "a query was left open";
            api.sets.clear();
            EXPECT_EQ(TsmBeginBackup(session, C("d"), C("again"), 1), 0) << "the session is still of use";
            EXPECT_EQ(TsmCloseSession(session), 0);
        } while (failed);
        EXPECT_GT(nth, 1) << "it allocates";
    }
    TsmReleaseApi();
}

TEST_F(Library, WipesTheTextsOfASignOn) {
    char secret[] = "a text that is told by its length, which nothing else has";
    watchedSize = sizeof secret;
    const int session = TsmOpenSession(secret, secret, secret, secret, secret, secret, nullptr);
    EXPECT_EQ(watched.size(), 6u);
    EXPECT_EQ(TsmCloseSession(session), 0);
    watchedSize = 0;
    EXPECT_EQ(wiped, 6);
}
