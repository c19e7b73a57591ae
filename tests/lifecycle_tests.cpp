// Set-up, sign-on and sign-off, the registry, filespaces and management classes, the thread wrappers.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>
#include <tuple>

#include "Fixture.h"
#include "session/TsmSession.h"

TEST(Initialisation, HandsTheEnvironmentToTheApi) {
    ApiDouble& api = ApiDouble::Get();
    api.Reset();
    EXPECT_EQ(tsmApi, nullptr);
    EXPECT_EQ(TsmInitApi(C("dsm.opt"), C("/log"), C("/api"), C("APP")), 0);
    EXPECT_EQ(TsmOpenSession(C("N"), C("O"), C("P"), C("-x"), C("extra"), C("UP"), C("ab")), 7);
    EXPECT_EQ(TsmReleaseApi(), 0);
    EXPECT_EQ(tsmApi, nullptr);
    EXPECT_EQ(
        api.TakeCalls(),
        (Lines{"dsmSetUp mt=1 v=4 config='dsm.opt' dir='/api' log='/log'/'dsierror.log'", "dsmQueryApiVersionEx v=0",
               "dsmInitEx v=5 out=0 api=8 node='N' owner='O' password='P' user='N' userPassword='UP' app='APP' "
               "config=null options='-x' delimiter=a unicode=0",
               "dsmTerminate", "dsmCleanUp mt=1"}));

    api.Answers("dsmCleanUp", {{2}});
    EXPECT_EQ(TsmInitApi(nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(TsmOpenSession(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, C("")), 7);
    EXPECT_EQ(TsmReleaseApi(), 2) << "the clean-up's code, not negated";
    EXPECT_EQ(api.TakeCalls(),
              (Lines{"dsmSetUp mt=1 v=4 config='' dir='' log=''/''", "dsmQueryApiVersionEx v=0",
                     "dsmInitEx v=5 out=0 api=8 node=null owner=null password=null user=null userPassword=null "
                     "app='KARVELON-CLIENT' config=null options=null delimiter=\\ unicode=0",
                     "dsmTerminate", "dsmCleanUp mt=1"}));
}

TEST(Initialisation, FailsClearlyAndCanBeTriedAgain) {
    ApiDouble& api = ApiDouble::Get();
    api.Reset();
    EXPECT_EQ(TsmOpenSession(C("N"), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -2014);
    EXPECT_EQ(TsmCloseSession(7), -2014);
    EXPECT_EQ(TsmReleaseApi(), -2014);
    EXPECT_EQ(api.TakeCalls(), Lines{});

    api.Answers("dsmSetUp", {{2}, {-1}});
    EXPECT_EQ(TsmInitApi(nullptr, nullptr, nullptr, C("APP")), -2);
    EXPECT_NE(tsmApi, nullptr);
    EXPECT_EQ(TsmOpenSession(C("N"), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -2041);
    EXPECT_EQ(api.TakeCalls().at(1), "dsmCleanUp mt=1");
    EXPECT_EQ(TsmInitApi(nullptr, nullptr, nullptr, nullptr), 1) << "the plain negation";
    EXPECT_EQ(api.TakeCallNames(), (Lines{"dsmCleanUp", "dsmSetUp", "dsmCleanUp"}))
        << "the failed one is released first";
    EXPECT_EQ(TsmReleaseApi(), 0);
    EXPECT_EQ(tsmApi, nullptr);

    std::string path(1279, 'p');
    EXPECT_EQ(TsmInitApi(path.data(), path.data(), path.data(), nullptr), 0);
    EXPECT_EQ(TsmInitApi(nullptr, nullptr, nullptr, nullptr), -2041);
    EXPECT_EQ(api.TakeCallNames(), (Lines{"dsmCleanUp", "dsmSetUp", "dsmQueryApiVersionEx"}));
    EXPECT_EQ(TsmReleaseApi(), 0);
    path += 'p';
    for (int which = 0; which < 3; ++which) {
        api.TakeCalls();
        EXPECT_EQ(TsmInitApi(which == 0 ? path.data() : nullptr, which == 1 ? path.data() : nullptr,
                             which == 2 ? path.data() : nullptr, nullptr),
                  -2120);
        EXPECT_EQ(TsmReleaseApi(), 0);
        EXPECT_EQ(api.TakeCallNames(), Lines{"dsmCleanUp"});
    }
}

TEST_F(Library, KeepsSessionsByHandle) {
    EXPECT_EQ(Open("/", 3), 3);
    EXPECT_EQ(Open("/", 1), 1);
    EXPECT_EQ(Open("/", 2), 2);
    api.Answers("dsmInitEx", {{137}, {-1}});
    EXPECT_EQ(Open("/"), -137);
    EXPECT_EQ(Open("/"), -1);
    EXPECT_EQ(Open("/", 0), 0) << "a sign-on without a handle opens nothing";
    EXPECT_EQ(TsmEndBackup(0), -2014);
    api.nextHandle = 9;
    EXPECT_EQ(TsmCloseSession(9), 0) << "never opened";
    EXPECT_EQ(api.TakeCalls(), Lines{});

    // A handle that the API gives out anew replaces the session, which is not signed off.
    EXPECT_EQ(TsmConnectToFileSpace(2, C("old")), 0);
    api.TakeCalls();
    EXPECT_EQ(Open("/", 2), 2);
    TsmObject* objects;
    EXPECT_EQ(TsmGetBackupInfo(2, C("a"), C("b"), 1, 0, &objects), -2061);

    api.Answers("dsmTerminate", {{2}});
    api.nextHandle = 9;
    EXPECT_EQ(TsmCloseSession(3), 2) << "the code of the sign-off, not negated";
    EXPECT_EQ(TsmCloseSession(3), 0);
    EXPECT_EQ(api.TakeCalls(), Lines{"dsmTerminate h=3"});
    EXPECT_EQ(Open("/", 5), 5);
    api.nextHandle = 9;
    EXPECT_EQ(TsmReleaseApi(), 0);
    EXPECT_EQ(api.TakeCalls(), (Lines{"dsmTerminate h=1", "dsmTerminate h=2", "dsmTerminate h=5", "dsmCleanUp mt=1"}));
}

// Each handle leads to its own session. The registry's lock is not held while a session works: a call from inside the
// API would hang.
TEST_F(Library, WorksOnOtherHandlesMeanwhile) {
    const int first = Connect();
    EXPECT_EQ(Open("/", 8), 8);
    api.nextHandle = 9;
    api.meanwhile = [] { EXPECT_EQ(TsmEndRestore(8), 0); };
    EXPECT_EQ(TsmEndBackup(first), 0);
    for (const int handle : {8, first, first, 8}) EXPECT_EQ(TsmEndRestore(handle), 0);
    EXPECT_EQ(api.TakeCalls(),
              (Lines{"dsmEndSendObj h=7", "dsmEndGetData h=8", "dsmEndTxn h=7 vote=1 reason=0", "dsmEndGetData h=8",
                     "dsmEndGetData h=7", "dsmEndGetData h=7", "dsmEndGetData h=8"}));
}

TEST_F(Library, HoldsItsLockWhileItSignsOnAndOff) {
    auto* const mutex = reinterpret_cast<pthread_mutex_t*>(tsmApi);  // the registry's first field
    int held = 0;
    const auto isHeld = [&] { pthread_mutex_trylock(mutex) == EBUSY ? ++held : pthread_mutex_unlock(mutex); };
    for (const dsUint32_t handle : {3u, 4u}) {
        api.meanwhile = isHeld;
        EXPECT_EQ(Open("/", handle), static_cast<int>(handle));
    }
    for (const auto& signOff : {+[] { return TsmCloseSession(3); }, +[] { return TsmReleaseApi(); }}) {
        api.meanwhile = isHeld;
        EXPECT_EQ(signOff(), 0);
    }
    EXPECT_EQ(held, 4);
}

// Every function that takes a handle, without a session to take it to.
TEST_F(Library, RefusesUnknownHandlesWithoutCallingTheApi) {
    const auto tryAll = [] {
        char** list = nullptr;
        TsmObject* objects = nullptr;
        unsigned char byte = 0;
        unsigned char* buffer = &byte;
        char* t = C("t");
        return All(TsmConnectToFileSpace(4, t), TsmGetFileSpaces(4, &list), TsmEndGetFileSpaces(4),
                   TsmDeleteFileSpace(4, t), TsmGetMgmtClasses(4, &list), TsmEndGetMgmtClasses(4),
                   TsmBeginBackup(4, t, t, 1), TsmBeginBackupEx(4, t, t, 1, t, t), TsmSendData(4, &byte, 1),
                   TsmEndBackup(4), TsmGetBackupInfo(4, t, t, 1, 0, &objects), TsmEndGetBackupInfo(4),
                   TsmGetBackupInfoPointInTime(4, t, t, t, 0, &objects), TsmEndGetBackupInfoPointInTime(4),
                   TsmBeginRestore(4, t, t, t), TsmGetData(4, &buffer, 1), TsmEndRestore(4), TsmDelete(4, t, t, 1, t),
                   TsmRenameBackup(4, t, t, t, t), TsmSetAccess(4, t, t, t));
    };
    EXPECT_EQ(tryAll(), std::vector<long long>(20, -2014));
    EXPECT_EQ(api.TakeCalls(), Lines{});
    TsmReleaseApi();
    EXPECT_EQ(tryAll(), std::vector<long long>(20, -2014)) << "and without an instance";
}

TEST_F(Connected, RefusesNullTextsWithoutCallingTheApi) {
    char* t = C("t");
    TsmObject* objects = nullptr;
    EXPECT_EQ(All(TsmConnectToFileSpace(session, nullptr), TsmDeleteFileSpace(session, nullptr),
                  TsmSetAccess(session, nullptr, t, t), TsmSetAccess(session, t, nullptr, t),
                  TsmBeginBackup(session, nullptr, t, 1), TsmBeginBackup(session, t, nullptr, 1),
                  TsmGetBackupInfo(session, nullptr, t, 1, 0, &objects), TsmBeginRestore(session, nullptr, t, t),
                  TsmBeginRestore(session, t, nullptr, t), TsmDelete(session, nullptr, t, 1, t),
                  TsmRenameBackup(session, nullptr, t, t, t), TsmRenameBackup(session, t, nullptr, t, t),
                  TsmRenameBackup(session, t, t, nullptr, t), TsmRenameBackup(session, t, t, t, nullptr)),
              std::vector<long long>(14, -2000));
    EXPECT_EQ(api.TakeCalls(), Lines{});
}

TEST_F(Connected, RefusesNullAddressesWithoutCallingTheApi) {
    char* t = C("t");
    unsigned char* nowhere = nullptr;
    EXPECT_EQ(All(TsmGetFileSpaces(session, nullptr), TsmGetMgmtClasses(session, nullptr),
                  TsmGetBackupInfo(session, t, t, 1, 0, nullptr), TsmSendData(session, nullptr, 1),
                  TsmGetBackupInfoPointInTime(session, t, t, nullptr, 0, nullptr), TsmGetData(session, nullptr, 1),
                  TsmGetData(session, &nowhere, 1)),
              std::vector<long long>(7, -2009));
    EXPECT_EQ(TsmSendData(session, Bytes("x"), -1), -109);
    EXPECT_EQ(api.TakeCalls(), Lines{});
}

TEST_F(Connected, RefusesTextsThatDoNotFit) {
    const std::string paths(1024, 'p'), names(256, 'n'), infos(65535, 'i'), levels = "a/" + names + "/b";
    std::string deep;  // of parts that fit, but too long in all
    while (deep.size() < 1024) deep += "deep/";
    char *t = C("t"), *path = C(paths.c_str()), *name = C(names.c_str()), *info = C(infos.c_str());
    TsmObject* objects = nullptr;
    const int s = session, slashes = Open(std::string(200, '/').c_str(), 8);
    EXPECT_EQ(TsmConnectToFileSpace(slashes, t), 0);
    api.TakeCalls();
    EXPECT_EQ(
        All(TsmConnectToFileSpace(s, path), TsmDeleteFileSpace(s, path),
            TsmSetAccess(s, t, C((paths + "p").c_str()), t), TsmBeginBackup(s, path, t, 1),
            TsmBeginBackup(s, C(deep.c_str()), t, 1), TsmBeginBackup(s, C(levels.c_str()), t, 1),
            TsmBeginBackup(s, t, name, 1), TsmBeginBackupEx(s, t, t, 1, info, t),
            TsmBeginBackup(slashes, C("//x"), t, 1), TsmGetBackupInfo(s, path, t, 1, 0, &objects),
            TsmGetBackupInfo(s, t, name, 1, 0, &objects), TsmBeginRestore(s, path, t, t),
            TsmBeginRestore(s, t, name, t), TsmDelete(s, path, t, 0, t), TsmDelete(s, t, name, 0, t),
            TsmRenameBackup(s, path, t, t, t), TsmRenameBackup(s, t, name, t, t), TsmRenameBackup(s, t, t, path, t),
            TsmRenameBackup(s, t, t, t, name), TsmRenameBackup(s, t, t, name, t)),  // a directory too long
        std::vector<long long>(20, -2120));
    EXPECT_EQ(api.TakeCalls(), Lines{});
    EXPECT_EQ(TsmGetBackupInfo(s, path + 1, name + 1, 1, 0, &objects), 0) << "just fits";
    EXPECT_EQ(TsmBeginBackupEx(s, C(""), name + 1, 1, info + 1, nullptr), 0);
    EXPECT_NE(api.TakeCalls().back().find("length=65535"), std::string::npos);
}

TEST_F(Library, RefusesObjectsWithoutAFilespace) {
    const int session = Open("/");
    char* t = C("t");
    TsmObject* objects = nullptr;
    EXPECT_EQ(
        All(TsmBeginBackup(session, t, t, 1), TsmGetBackupInfo(session, t, t, 1, 0, &objects),
            TsmBeginRestore(session, t, t, t), TsmDelete(session, t, t, 1, t), TsmRenameBackup(session, t, t, t, t)),
        std::vector<long long>(5, -2061));
    EXPECT_EQ(api.TakeCalls(), Lines{});
}

TEST(Session, WithoutAHandleNeedsNoSignOff) {
    ApiDouble& api = ApiDouble::Get();
    api.Reset();
    TsmSession session;
    dsmApiVersionEx version = {};
    EXPECT_EQ(session.OpenSession(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, version), 7);
    api.TakeCalls();
    api.Answers("dsmTerminate", {{2}});
    EXPECT_EQ(session.CloseSession(), 2);
    EXPECT_EQ(session.CloseSession(), 0);
    EXPECT_EQ(api.TakeCalls(), Lines{"dsmTerminate"}) << "a failed sign-off is not tried again";
    char* text = session._RcApiOut(7, -50);
    EXPECT_EQ(std::string(text), std::string(1021, 'm') + "-50") << "as long as a message can be";
    std::free(text);
}

TEST_F(Library, AnswersFailedFilespaceCalls) {
    const int session = Open("/");
    api.Answers("dsmRegisterFS", {{2062}, {2}, {-3}});
    api.Answers("dsmDeleteFS", {{106}});
    api.Answers("dsmSetAccess", {{-7}});
    EXPECT_EQ(TsmConnectToFileSpace(session, C("a")), 0) << "registered already";
    EXPECT_EQ(TsmConnectToFileSpace(session, C("b")), -2);
    EXPECT_EQ(TsmConnectToFileSpace(session, C("b")), -3);
    EXPECT_EQ(TsmDeleteFileSpace(session, C("a")), -106);
    EXPECT_EQ(TsmSetAccess(session, C("n"), C("/a"), nullptr), -7);
    api.TakeCalls();
    TsmObject* objects;
    EXPECT_EQ(TsmGetBackupInfo(session, C(""), C("x"), 1, 0, &objects), 0);
    EXPECT_NE(api.TakeCalls().at(0).find("'/b'"), std::string::npos) << "a failed registration leaves the new name";
}

namespace {

// Both listings of names have the same shape; here is what differs.
const struct NameListing {
    int (*get)(int, char***);
    int (*end)(int);
    std::string begin;
    std::string next;
    int noMatch;
    Lines names;
    std::size_t longest;
} nameListings[] = {{TsmGetFileSpaces,
                     TsmEndGetFileSpaces,
                     "dsmBeginQuery q=3 v=1 '*'",
                     "dsmGetNextQObj v=3 length=1672 response=4",
                     -2,
                     {"vm01", "data", "data", ""},
                     1024},
                    {TsmGetMgmtClasses,
                     TsmEndGetMgmtClasses,
                     "dsmBeginQuery q=4 v=1 '' detail=0",
                     "dsmGetNextQObj v=3 length=290 response=1",
                     0,
                     {"\\vm01", "/data", "/data", "/", ""},
                     31}};

Found Named(const std::string& name) {
    return Found{name, "", "", 1, 0, "", {}, 1, name};
}

const std::vector<Found> severalNames = {Named("\\vm01"), Named("/data"), Named("/data"), Named("/"), Named("")};

}  // namespace

TEST_F(Library, ListsNames) {
    const int session = Open("/");
    for (const NameListing& listing : nameListings) {
        char** list = nullptr;
        for (int round = 0; round < 2; ++round) {  // the second time the first list is still held
            api.Finds(severalNames);
            ASSERT_EQ(listing.get(session, &list), static_cast<int>(listing.names.size()));
            EXPECT_EQ(Lines(list, list + listing.names.size()), listing.names);
            EXPECT_EQ(api.TakeCalls(), (Lines{listing.begin, listing.next, "dsmEndQuery"}));
        }
        EXPECT_EQ(listing.end(session), 0);
        EXPECT_EQ(listing.end(session), 0);
        EXPECT_EQ(api.TakeCalls(), Lines{});
        // Texts that fill their fields without a terminator are cut.
        api.Finds({Named(std::string(2000, 'x'))});
        ASSERT_EQ(listing.get(session, &list), 1);
        EXPECT_EQ(std::strlen(list[0]), listing.longest);
        api.TakeCalls();
    }
}

TEST_F(Library, AnswersFailedListingsOfNames) {
    const int session = Open("/");
    const std::string asked = "BeginQuery GetNextQObj", ended = asked + " EndQuery";
    char *untouched = nullptr, **list = nullptr;
    for (const NameListing& listing : nameListings) {
        const auto get = [&] { return list = &untouched, listing.get(session, &list); };
        Expect({{"dsmBeginQuery", {{4}}}}, -4, "BeginQuery", get);
        EXPECT_EQ(list, &untouched);
        const std::tuple<std::vector<Found>, dsInt16_t, int> endings[] = {{{}, 2, listing.noMatch},
                                                                          {severalNames, 2, listing.noMatch},
                                                                          {severalNames, -9, -9},
                                                                          {severalNames, 11, -11},
                                                                          {severalNames, 0, -1}};
        for (const auto& [found, end, result] : endings) {
            api.Finds(found, end);
            Expect({}, result, asked, get);
            EXPECT_EQ(list, nullptr);
        }
        Expect({}, 0, ended, get);
        EXPECT_EQ(list, nullptr);
        api.Finds(severalNames);
        Expect({{"dsmEndQuery", {{5}}}}, -5, ended, get);
        EXPECT_EQ(list, nullptr);
    }
}

namespace {

int posixError = 0;  // what the functions below answer
std::deque<int> waits;

}  // namespace

// Answer in place of the C library's, so that they can be made to fail.
extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t*) noexcept {
    *mutex = PTHREAD_MUTEX_INITIALIZER;
    return posixError;
}
extern "C" int pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*) noexcept {
    return posixError;
}
extern "C" int pthread_cond_signal(pthread_cond_t*) noexcept {
    return posixError;
}
extern "C" int pthread_cond_destroy(pthread_cond_t*) noexcept {
    return posixError;
}
extern "C" int pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*) {
    const int result = waits.front();
    waits.pop_front();
    return result;
}

TEST(Threads, WrappersReportTheErrorNumber) {
    static pthread_mutex_t mutex, checked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;  // reports a second lock or unlock
    static pthread_cond_t condition;
    EXPECT_EQ(dpsMutexLock(&checked), 0);
    const struct {
        int error;
        int (*call)();
        const char* outcome;
    } cases[] = {
        {0, [] { return dpsMutexInit(&mutex); }, "0 "},
        {0, [] { return dpsMutexLock(&mutex); }, "0 "},
        {0, [] { return dpsMutexDestroy(&mutex); }, "16 Mutex destroy failed: 16.\n"},
        {0, [] { return dpsMutexUnlock(&mutex); }, "0 "},
        {0, [] { return dpsMutexDestroy(&mutex); }, "0 "},
        {0, [] { return dpsMutexLock(&checked); }, "35 Mutex lock failed: 35.\n"},
        {0, [] { return dpsMutexUnlock(&checked); }, "0 "},
        {0, [] { return dpsMutexUnlock(&checked); }, "1 Mutex unlock failed: 1.\n"},
        {0, [] { return dpsCreateCondition(&condition); }, "0 "},
        {0, [] { return dpsSignalCondition(&condition); }, "0 "},
        {0, [] { return dpsDestroyCondition(&condition); }, "0 "},
        {11, [] { return dpsMutexInit(&mutex); }, "11 Mutex init failed: 11.\n"},
        {12, [] { return dpsCreateCondition(&condition); }, "12 Condition init failed: 12.\n"},
        {12, [] { return dpsSignalCondition(&condition); }, "12 Condition signal failed: 12.\n"},
        {12, [] { return dpsDestroyCondition(&condition); }, "12 Condition Destroy failed: 12.\n"},
        // An interrupted wait goes on, silently.
        {0, [] { return dpsWaitCondition(&condition, &mutex); }, "0 "},
        {0, [] { return dpsWaitCondition(&condition, &mutex); }, "22 Condition wait failed: error 22\n"},
    };
    waits = {4, 4, 0, 4, 22};
    for (const auto& c : cases) {
        posixError = c.error;
        testing::internal::CaptureStdout();
        const int result = c.call();
        EXPECT_EQ(std::to_string(result) + " " + testing::internal::GetCapturedStdout(), c.outcome);
    }
    posixError = 11;
    EXPECT_EXIT(TsmInitApi(nullptr, nullptr, nullptr, nullptr), testing::ExitedWithCode(0), "");
    posixError = 0;

    static std::atomic<void*> seen{nullptr};
    EXPECT_EQ(dpsThreadCreate([](void* argument) -> void* { return seen = argument, nullptr; }, &mutex), 0);
    while (seen != &mutex) std::this_thread::yield();
}
