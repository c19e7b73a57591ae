// The stand-in's own costs: streams against a plain file, and how look-ups, stores and listings grow.
#include <fcntl.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Table.h"
#include "dsmapifp.h"
#include "dsmrc.h"

using namespace bench;

namespace fs = std::filesystem;

namespace {

constexpr std::size_t pieceSize = 1 << 20;
constexpr int pieces = 1024;
fs::path work;

// What a flush of a file is: the disk's, nothing, or one that takes a millisecond.
enum class Flush { Real, Free, Millisecond };
std::atomic<Flush> flush{Flush::Real};
std::atomic<long> flushes{0};

[[noreturn]] void Fail(const char* what, int rc) {
    std::fprintf(stderr, "%s: %d\n", what, rc);
    std::exit(2);
}

void Must(const char* what, dsInt16_t rc, dsInt16_t wanted = 0) {
    if (rc != wanted) Fail(what, rc);
}

dsmObjName Name(const std::string& hl, const std::string& ll, dsUint8_t type = DSM_OBJ_FILE) {
    dsmObjName name = {};
    std::strcpy(name.fs, "/bench");
    std::strcpy(name.hl, hl.c_str());
    std::strcpy(name.ll, ll.c_str());
    name.objType = type;
    return name;
}

// One session on one store.
class Store {
public:
    explicit Store(const std::string& name) : folder(work / name) {
        std::ofstream(work / "dsm.opt") << "STOREDIR " << folder.string() << "\n";
        envSetUp setUp = {};
        setUp.stVersion = 4;
        std::strcpy(setUp.dsmiConfig, (work / "dsm.opt").c_str());
        Must("dsmSetUp", dsmSetUp(bTrue, &setUp));
        SignOn();
    }
    // Another session on it.
    explicit Store(const Store& first) : folder(first.folder), isFirst(false) { SignOn(); }
    ~Store() {
        dsmTerminate(handle);
        if (isFirst) dsmCleanUp(bTrue);
        if (folder.filename().string().rfind("stream", 0) == 0) fs::remove_all(folder);
    }

    void SignOn() {
        char node[] = "BENCH";
        dsmInitExIn_t in = {};
        in.stVersion = 5;
        in.clientNodeNameP = node;
        dsmInitExOut_t out = {};
        Must("dsmInitEx", dsmInitEx(&handle, &in, &out));
        char filespace[] = "/bench", type[] = "BENCH";
        regFSData data = {};
        data.stVersion = 1;
        data.fsName = filespace;
        data.fsType = type;
        const dsInt16_t rc = dsmRegisterFS(handle, &data);
        if (rc != DSM_RC_FS_ALREADY_REGED) Must("dsmRegisterFS", rc);
    }

    void Begin() { Must("dsmBeginTxn", dsmBeginTxn(handle)); }
    void Commit() {
        dsUint16_t reason = 0;
        Must("dsmEndTxn", dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason));
    }
    // Within a transaction: length bytes of data for each of count pieces.
    void Send(dsmObjName name, const char* data, std::size_t length, int count) {
        mcBindKey key = {};
        key.stVersion = 1;
        Must("dsmBindMC", dsmBindMC(handle, &name, stBackup, &key));
        char info[] = "information";
        ObjAttr attr = {};
        attr.stVersion = 4;
        attr.objInfo = info;
        attr.objInfoLength = sizeof info;
        attr.sizeEstimate.lo = 1;
        Must("dsmSendObj", dsmSendObj(handle, stBackup, nullptr, &name, &attr, nullptr));
        for (int i = 0; i < count; ++i) {
            DataBlk block = {};
            block.stVersion = 3;
            block.bufferLen = static_cast<dsUint32_t>(length);
            block.bufferPtr = const_cast<char*>(data);
            Must("dsmSendData", dsmSendData(handle, &block));
        }
        Must("dsmEndSendObj", dsmEndSendObj(handle));
    }
    // Objects without bytes, a thousand a transaction, a thousand a directory.
    void Populate(long from, long until) {
        for (long i = from; i < until; ++i) {
            if (i % 1000 == 0) Begin();
            Send(Object(i), nullptr, 0, 0);
            if (i % 1000 == 999) Commit();
        }
    }
    static dsmObjName Object(long i) { return Name("/d" + std::to_string(i / 1000), "/f" + std::to_string(i % 1000)); }
    long List(dsmObjName pattern, ObjID* last = nullptr) {
        qryBackupData query = {};
        query.stVersion = 2;
        query.objName = &pattern;
        query.objState = DSM_ACTIVE;
        qryRespBackupData response = {};
        response.stVersion = 8;
        DataBlk block = {};
        block.stVersion = 3;
        block.bufferLen = sizeof response;
        block.bufferPtr = reinterpret_cast<char*>(&response);
        Must("dsmBeginQuery", dsmBeginQuery(handle, qtBackup, &query));
        long count = 0;
        while (dsmGetNextQObj(handle, &block) == DSM_RC_MORE_DATA) ++count;
        if (last) *last = response.objId;
        Must("dsmEndQuery", dsmEndQuery(handle));
        return count;
    }
    void Read(ObjID id, std::vector<char>& piece) {
        dsmGetList list = {};
        list.stVersion = 2;
        list.numObjId = 1;
        list.objId = &id;
        Must("dsmBeginGetData", dsmBeginGetData(handle, bTrue, gtBackup, &list));
        Must("dsmGetObj", dsmGetObj(handle, &id, nullptr), DSM_RC_MORE_DATA);
        DataBlk block = {};
        block.stVersion = 3;
        block.bufferLen = static_cast<dsUint32_t>(piece.size());
        block.bufferPtr = piece.data();
        dsInt16_t rc;
        std::size_t total = 0;
        do {
            rc = dsmGetData(handle, &block);
            total += block.numBytes;
        } while (rc == DSM_RC_MORE_DATA);
        Must("dsmGetData", rc, DSM_RC_FINISHED);
        if (total != pieceSize * pieces) Fail("bytes", static_cast<int>(total));
        Must("dsmEndGetObj", dsmEndGetObj(handle));
        Must("dsmEndGetData", dsmEndGetData(handle));
    }

    const fs::path folder;
    const bool isFirst = true;
    dsUint32_t handle = 0;
};

std::vector<char> Piece() {
    std::vector<char> piece(pieceSize);
    for (std::size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<char>(i * 2654435761u >> 7);
    return piece;
}

// Streams: one GiB in pieces of 1 MiB, to the disk and back, and the same for a plain file.
void StreamStandin(benchmark::State& state) {
    const bool in = state.range(0) == 0;
    std::vector<char> piece = Piece();
    static int round = 0;
    Store store("stream-" + std::to_string(++round));  // nothing is overwritten, which would be quicker
    const dsmObjName name = Name("", "/stream");
    const auto send = [&] {
        store.Begin();
        store.Send(name, piece.data(), piece.size(), pieces);
        store.Commit();
    };
    ObjID id = {};
    if (!in) {
        send();
        store.List(name, &id);
    }
    for (auto _ : state) {
        if (in) {
            send();
        } else {
            store.Read(id, piece);
        }
    }
}

void StreamFile(benchmark::State& state) {
    const bool in = state.range(0) == 0;
    std::vector<char> piece = Piece();
    // In a new folder, as the stand-in's file is: file systems place the files of a new folder elsewhere on the disk.
    static int round = 0;
    const fs::path folder = work / ("plain-" + std::to_string(++round));
    const fs::path path = folder / "data" / "0" / "1";
    fs::create_directories(path.parent_path());
    const auto send = [&] {
        const int file = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        for (int i = 0; i < pieces; ++i) {
            if (write(file, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) Fail("write", errno);
        }
        if (fdatasync(file) != 0 || close(file) != 0) Fail("flush", errno);
    };
    if (!in) send();
    for (auto _ : state) {
        if (in) {
            send();
        } else {
            const int file = open(path.c_str(), O_RDONLY);
            while (read(file, piece.data(), piece.size()) > 0) continue;
            close(file);
        }
    }
    fs::remove_all(folder);
}

// ------------------------------------------------------------ commits

constexpr std::size_t smallSize = 4096;
constexpr int smallObjects = 4096;

using Clock = std::chrono::steady_clock;
double Since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

fs::path NewFolder() {
    static int round = 0;
    return "commits-" + std::to_string(++round);
}

void StoreOne(Store& store, int session, int i) {
    static const std::vector<char> data = Piece();
    store.Begin();
    store.Send(Name("/s" + std::to_string(session), "/f" + std::to_string(i)), data.data(), smallSize, 1);
    store.Commit();
}

// Objects of 4 KiB, a transaction each, stored by sessions on threads of their own, each of which takes the next name:
// the same names in the same order, however many sessions there are. Counts flushes an object.
void CommitSmall(benchmark::State& state) {
    const auto sessions = static_cast<int>(state.range(0));
    Store store(NewFolder());
    std::vector<std::unique_ptr<Store>> others;
    for (int i = 0; i < sessions; ++i) {
        others.push_back(std::make_unique<Store>(store));
        StoreOne(*others.back(), 1, i);  // so that no session's first commit is measured
    }
    flush = static_cast<Flush>(state.range(1));
    for (auto _ : state) {
        std::vector<std::thread> threads;
        std::atomic<int> next{0};
        std::mutex gate;
        std::unique_lock<std::mutex> closed(gate);  // until the threads are made, which is not measured
        for (const auto& session : others) {
            threads.emplace_back([&] {
                { const std::lock_guard<std::mutex> open(gate); }
                for (int i; (i = next++) < smallObjects;) StoreOne(*session, 0, i);
            });
        }
        flushes = 0;
        const auto begin = Clock::now();
        closed.unlock();
        for (std::thread& thread : threads) thread.join();
        state.SetIterationTime(Since(begin));
        state.counters["value"] = static_cast<double>(flushes) / smallObjects;
    }
    flush = Flush::Real;
    others.clear();
    fs::remove_all(store.folder);
}

// One session and SQLite alone, with the same bytes and one insert a commit, in turns; the speed of the first as a
// part of that of the second.
void CommitAgainstSqlite(benchmark::State& state) {
    constexpr int turns = 16, each = 32;
    Store store(NewFolder());
    const fs::path path = work / "bare.db";
    sqlite3* database = nullptr;
    if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) Fail("open", 0);
    sqlite3_exec(database, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; CREATE TABLE o (n TEXT, b BLOB)",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(database, "INSERT INTO o VALUES (?1, ?2)", -1, &insert, nullptr);
    const std::vector<char> data = Piece();
    for (auto _ : state) {
        double mine = 0, bare = 0;
        for (int turn = 0; turn < turns; ++turn) {
            auto begin = Clock::now();
            for (int i = 0; i < each; ++i) StoreOne(store, turn, i);
            mine += Since(begin);
            begin = Clock::now();
            for (int i = 0; i < each; ++i) {
                const std::string name = "/s" + std::to_string(turn) + "/f" + std::to_string(i);
                sqlite3_bind_text(insert, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
                sqlite3_bind_blob(insert, 2, data.data(), smallSize, SQLITE_STATIC);
                if (sqlite3_step(insert) != SQLITE_DONE) Fail("insert", 0);
                sqlite3_reset(insert);
            }
            bare += Since(begin);
        }
        state.counters["value"] = bare / mine;
    }
    sqlite3_finalize(insert);
    sqlite3_close(database);
    for (const char* end : {"", "-wal", "-shm"}) fs::remove(path.string() + end);
    fs::remove_all(store.folder);
}

// ------------------------------------------------------------ growth

// The name of a store with that many objects, which is made when it is first asked for.
std::string Populated(const char* kind, long objects) {
    const std::string name = kind + std::to_string(objects);
    if (!fs::exists(work / name)) Store(name).Populate(0, objects);
    return name;
}

void LookUp(benchmark::State& state) {
    const long objects = state.range(0);
    Store store(Populated("objects-", objects));
    long i = 0;
    for (auto _ : state) {
        if (store.List(Store::Object(i)) != 1) state.SkipWithError("look-up");
        i = (i + 7919) % objects;
    }
}

// Small objects, each in a transaction, stored behind as many as the argument says.
void StoreSmall(benchmark::State& state) {
    constexpr int batch = 200;
    static int round = 0;
    Store store(Populated("small-", state.range(0)));
    const std::string data(100, 's');
    for (auto _ : state) {
        ++round;
        for (int i = 0; i < batch; ++i) {
            store.Begin();
            store.Send(Name("/new" + std::to_string(round), "/f" + std::to_string(i)), data.data(), data.size(), 1);
            store.Commit();
        }
    }
}

void ListStandin(benchmark::State& state) {
    Store store(Populated("objects-", state.range(0)));
    for (auto _ : state) {
        if (store.List(Name("*", "/*", DSM_OBJ_ANY_TYPE)) != state.range(0)) state.SkipWithError("listing");
    }
}

void ListSqlite(benchmark::State& state) {
    sqlite3* database = nullptr;
    const std::string path = (work / Populated("objects-", state.range(0)) / "catalogue.db").string();
    if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) Fail("open", 0);
    for (auto _ : state) {
        sqlite3_stmt* rows = nullptr;
        sqlite3_prepare_v2(database, "SELECT * FROM object_version WHERE ended IS NULL ORDER BY fs, hl, ll, type, id",
                           -1, &rows, nullptr);
        long count = 0;
        std::size_t bytes = 0;
        while (sqlite3_step(rows) == SQLITE_ROW) {
            for (int column = 0; column < sqlite3_column_count(rows); ++column) {
                if (sqlite3_column_type(rows, column) == SQLITE_INTEGER) {
                    bytes += static_cast<std::size_t>(sqlite3_column_int64(rows, column)) & 1;
                } else {
                    benchmark::DoNotOptimize(sqlite3_column_blob(rows, column));
                    bytes += static_cast<std::size_t>(sqlite3_column_bytes(rows, column));
                }
            }
            ++count;
        }
        sqlite3_finalize(rows);
        benchmark::DoNotOptimize(bytes);
        if (count != state.range(0)) state.SkipWithError("rows");
    }
    sqlite3_close(database);
}

int Flushed(long call, int file) {
    ++flushes;
    if (flush == Flush::Millisecond) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return flush == Flush::Real ? static_cast<int>(syscall(call, file)) : 0;
}

}  // namespace

// Replaces the C library's function, for the stand-in and SQLite too.
extern "C" int fsync(int file) {
    return Flushed(SYS_fsync, file);
}
extern "C" int fdatasync(int file) {
    return Flushed(SYS_fdatasync, file);
}

int main(int argc, char** argv) {
    std::string name = (fs::current_path() / "tsm-bench-XXXXXX").string();
    if (!mkdtemp(name.data())) Fail("work folder", errno);
    work = name;
    std::vector<Row> rows;
    const auto add = [](const char* bench, auto function, long argument) {
        return benchmark::RegisterBenchmark(bench, function)->Arg(argument)->UseRealTime();
    };
    const auto commits = [](const std::string& bench, long sessions, Flush how) {
        benchmark::RegisterBenchmark(bench.c_str(), CommitSmall)
            ->Args({sessions, static_cast<long>(how)})
            ->UseManualTime()
            ->Iterations(1);
    };
    for (const auto& [how, text, target] :
         {std::tuple(Flush::Real, "", 0.0), std::tuple(Flush::Free, ", flushes free", 2.0),
          std::tuple(Flush::Millisecond, ", flushes of 1 ms", 20.0)}) {
        const std::string one = std::string("commit-1") + text, many = std::string("commit-64") + text;
        commits(one, 1, how);
        commits(many, 64, how);
        if (how == Flush::Real) {
            rows.push_back({"stand-in: flushes for each object of 4 KiB, 1 session", Row::Number, one, "", 1.1});
            rows.push_back({"stand-in: the same, 64 sessions", Row::Number, many, "", 0.1});
        } else {
            rows.push_back({std::string("stand-in: 64 sessions against 1") + text, Row::Speed, many, one, target});
        }
    }
    benchmark::RegisterBenchmark("commit-bare", CommitAgainstSqlite)->UseRealTime()->Iterations(1);
    rows.push_back({"stand-in: 1 session, against SQLite's bare inserts", Row::Ratio, "commit-bare", "", 0.7});
    for (const long out : {0L, 1L}) {
        const std::string of = out == 0 ? "stream-in" : "stream-out", against = out == 0 ? "file-in" : "file-out";
        add(of.c_str(), StreamStandin, out)->Iterations(1);
        add(against.c_str(), StreamFile, out)->Iterations(1);
        rows.push_back(
            {std::string("stand-in: one stream of 1 GiB ") + (out == 0 ? "in" : "out"), Row::Speed, of, against, 0.6});
    }
    for (const long objects : {1000L, 1000000L}) {
        add(("lookup:" + std::to_string(objects)).c_str(), LookUp, objects);
    }
    rows.push_back(
        {"stand-in: look-up among 1,000,000, against 1,000", Row::Factor, "lookup:1000000", "lookup:1000", 1.5});
    for (const long objects : {1000L, 100000L}) {
        add(("store:" + std::to_string(objects)).c_str(), StoreSmall, objects)->Iterations(1);
    }
    rows.push_back(
        {"stand-in: storing the 100,000th, against the 1,000th", Row::Factor, "store:100000", "store:1000", 1.5});
    add("list", ListStandin, 1000000);
    add("rows", ListSqlite, 1000000);
    rows.push_back({"stand-in: listing 1,000,000, against SQLite's rows", Row::Speed, "list", "rows", 0.5});
    const int status = RunAndPrint(argc, argv, rows);
    fs::remove_all(work);
    return status;
}
