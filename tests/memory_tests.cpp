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
    if (block && watchedSize != 0 && watched.count(block) != 0) {
        const auto* bytes = static_cast<const char*>(block);
        wiped += std::all_of(bytes, bytes + watchedSize, [](char byte) { return byte == 0; });
    }
    std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
    void* block = Fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (!block) throw std::bad_alloc();
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

// Prepares, runs and checks the result, with each allocation of the run failing in turn until none does. Returns how
// many have failed.
template <class Prepare, class Run, class Check>
int FailEachAllocation(Prepare prepare, Run run, Check check) {
    for (int nth = 1;; ++nth) {
        prepare();
        failed = false;
        countdown = nth;
        const long long result = run();
        countdown = 0;
        check(result);
        if (!failed) return nth - 1;
    }
}

TEST(Initialisation, IsRefusedWithoutMemory) {
    ApiDouble::Get().Reset();
    const auto check = [](long long result) {
        EXPECT_EQ(result, failed ? -102 : 0);
        if (tsmApi) TsmReleaseApi();
    };
    const auto init = [] { return TsmInitApi(nullptr, nullptr, nullptr, C("APPLICATION")); };
    EXPECT_GT(FailEachAllocation([] {}, init, check), 1);
}

TEST_F(Library, SignsNobodyOnWithoutMemory) {
    const auto check = [&](long long result) {
        EXPECT_EQ(result, failed ? -102 : 7);
        EXPECT_EQ(api.TakeCalls().empty(), failed) << "nobody is signed on";
    };
    const auto signOn = [] { return TsmOpenSession(C("N"), C("O"), C("P"), C("-x"), C("e"), C("U"), C("/")); };
    EXPECT_GT(FailEachAllocation([] {}, signOn, check), 7);
}

TEST_F(Connected, EveryFailedAllocationIsAResult) {
    char* const p = C("keep/a/component-that-no-string-keeps-in-itself/and/a/long/path");
    const Found object{"/vm", "/a", "/f"};
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
        bool tidiesUp = false;  // goes on after failures in what it does for tidiness
    } operations[] = {
        {"connect", nothing, [&] { return TsmConnectToFileSpace(session, p); }, 0},
        {"filespaces", findsTwo, [&] { return TsmGetFileSpaces(session, &list); }, 2},
        {"classes", findsTwo, [&] { return TsmGetMgmtClasses(session, &list); }, 2},
        {"delete filespace", nothing, [&] { return TsmDeleteFileSpace(session, p); }, 0},
        {"inventory", [&] { api.Finds(std::vector<Found>(40, object)); },
         [&] { return TsmGetBackupInfo(session, p, p, 1, 0, &objects); }, 40},
        {"backup", nothing, [&] { return TsmBeginBackupEx(session, p, p, 1, p, p); }, 0},
        {"send", nothing, [&] { return TsmSendData(session, room, sizeof room); }, 0},
        {"restore", [&] { findsOne(), api.Answers("dsmGetObj", {{2200}}); },
         [&] { return TsmBeginRestore(session, p, p, nullptr); }, 0},
        {"read", [&] { api.Answers("dsmGetData", {{121}}); }, [&] { return TsmGetData(session, &buffer, 1); }, 0},
        {"delete active", findsTwo, [&] { return TsmDelete(session, p, p, 0, nullptr); }, 0, true},
        {"delete versions", findsTwo, [&] { return TsmDelete(session, p, p, 1, nullptr); }, 0, true},
        {"rename", [&] { findsOne(), findsOne(), findsOne(); },
         [&] { return TsmRenameBackup(session, p, p, "new/path/of/some/length", p); }, 0, true},
    };
    for (const auto& operation : operations) {
        SCOPED_TRACE(operation.name);
        const auto prepare = [&] {
            session = Connect();
            operation.prepare();
        };
        const auto check = [&](long long result) {
            const bool passedOver = operation.tidiesUp && result == 0;
            EXPECT_EQ(result, failed && !passedOver ? -102 : operation.expected);
            const Lines calls = api.TakeCallNames();
            EXPECT_EQ(std::count(calls.begin(), calls.end(), "dsmBeginQuery"),
                      std::count(calls.begin(), calls.end(), "dsmEndQuery"))
                << "a query was left open";
            api.sets.clear();
            EXPECT_EQ(TsmBeginBackup(session, C("d"), C("again"), 1), 0) << "the session is still of use";
            EXPECT_EQ(TsmCloseSession(session), 0);
            api.TakeCalls();
        };
        EXPECT_GT(FailEachAllocation(prepare, operation.run, check), 0);
    }
}

TEST_F(Library, WipesTheTextsOfASignOn) {
    char secret[] = "a text of a length that nothing else has, so that it is known";
    watchedSize = sizeof secret;
    const int session = TsmOpenSession(secret, secret, secret, secret, secret, secret, nullptr);
    EXPECT_EQ(watched.size(), 6u);
    EXPECT_EQ(TsmCloseSession(session), 0);
    watchedSize = 0;
    EXPECT_EQ(wiped, 6);
}
