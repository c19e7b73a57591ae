// Compares the connector with the same work done directly on the API. The API here does only what it must.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DutyApi.h"
#include "Table.h"
#include "dsmapifp.h"
#include "dsmrc.h"
#include "session/TsmSession.h"
#include "tsmconnector.h"

using namespace bench;

namespace {

constexpr long million = 1000000;

char* C(const char* text) {
    return const_cast<char*>(text);
}

int Open() {
    const int session = TsmOpenSession(C("N"), nullptr, nullptr, nullptr, nullptr, nullptr, C("/"));
    TsmConnectToFileSpace(session, C("vm01"));
    return session;
}

// ------------------------------------------------------------- data

std::vector<unsigned char> Data(benchmark::State& state) {
    return std::vector<unsigned char>(static_cast<std::size_t>(state.range(0)), 'd');
}

void SendConnector(benchmark::State& state) {
    std::vector<unsigned char> data = Data(state);
    const int session = Open();
    for (auto _ : state) {
        if (TsmSendData(session, data.data(), static_cast<int>(data.size())) != 0) state.SkipWithError("send");
    }
    TsmCloseSession(session);
}

void SendDirect(benchmark::State& state) {
    const std::vector<unsigned char> data = Data(state);
    for (auto _ : state) {
        const std::unique_ptr<char[]> copy(new char[data.size()]);
        std::memcpy(copy.get(), data.data(), data.size());
        DataBlk block = {};
        block.stVersion = 3;
        block.bufferLen = static_cast<dsUint32_t>(data.size());
        block.bufferPtr = copy.get();
        if (dsmSendData(1, &block) != 0 || block.numBytes != data.size()) state.SkipWithError("send");
    }
}

void GetConnector(benchmark::State& state) {
    std::vector<unsigned char> data = Data(state);
    unsigned char* buffer = data.data();
    const int session = Open();
    for (auto _ : state) {
        if (TsmGetData(session, &buffer, static_cast<int>(data.size())) <= 0) state.SkipWithError("get");
    }
    TsmCloseSession(session);
}

void GetDirect(benchmark::State& state) {
    std::vector<unsigned char> data = Data(state);
    for (auto _ : state) {
        const std::unique_ptr<char[]> chunk(new char[data.size()]);
        DataBlk block = {};
        block.stVersion = 3;
        block.bufferLen = static_cast<dsUint32_t>(data.size());
        block.bufferPtr = chunk.get();
        if (dsmGetData(1, &block) != DSM_RC_MORE_DATA) state.SkipWithError("get");
        std::memcpy(data.data(), chunk.get(), block.numBytes);
    }
}

// -------------------------------------------------------- inventory

void InventoryConnector(benchmark::State& state) {
    const int session = Open();
    SetFound(million);
    for (auto _ : state) {
        TsmObject* objects = nullptr;
        if (TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &objects) != million) state.SkipWithError("inventory");
        TsmEndGetBackupInfo(session);
    }
    SetFound(0);
    TsmCloseSession(session);
}

void BuildRecord(TsmObject& record, const qryRespBackupData& found) {
    std::memset(&record, 0, sizeof record);
    std::memcpy(record.highLevelName, found.objName.hl, std::strlen(found.objName.hl));
    std::memcpy(record.lowLevelName, found.objName.ll, std::strlen(found.objName.ll));
    std::memcpy(record.objectInfo, found.objInfo, std::min<std::size_t>(std::strlen(found.objInfo), 254));
    record.size = (static_cast<long long>(found.sizeEstimate.hi) << 32) + found.sizeEstimate.lo;
    record.isFile = found.objName.objType != DSM_OBJ_DIRECTORY;
    std::memcpy(record.fileSpace, found.objName.fs + 1, std::strlen(found.objName.fs + 1));
    const dsmDate& date = found.insDate;
    char text[32];
    const int length = std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d", date.year, date.month, date.day, date.hour,
                                     date.minute, date.second);
    std::memcpy(record.backupDate, text, std::min<std::size_t>(static_cast<std::size_t>(length), 19));
}

void InventoryDirect(benchmark::State& state) {
    SetFound(million);
    for (auto _ : state) {
        const std::unique_ptr<TsmObject, void (*)(void*)> records(
            static_cast<TsmObject*>(std::malloc(million * sizeof(TsmObject))), std::free);
        qryRespBackupData response;
        std::memset(&response, 0, sizeof response);
        DataBlk block = {};
        block.stVersion = 3;
        block.bufferLen = sizeof response;
        block.bufferPtr = reinterpret_cast<char*>(&response);
        dsmBeginQuery(1, qtBackup, nullptr);
        long count = 0;
        while (dsmGetNextQObj(1, &block) == DSM_RC_MORE_DATA) BuildRecord(records.get()[count++], response);
        if (dsmEndQuery(1) != 0 || count != million) state.SkipWithError("inventory");
        benchmark::DoNotOptimize(records.get());
    }
    SetFound(0);
}

// The peak of a process that lists a million objects, less what it had before, in arrays of their size.
void InventoryMemory(benchmark::State& state) {
    for (auto _ : state) {
        int ends[2];
        if (pipe(ends) != 0) std::abort();
        const pid_t child = fork();
        if (child == 0) {
            const auto peak = [] {
                rusage usage;
                getrusage(RUSAGE_SELF, &usage);
                return static_cast<double>(usage.ru_maxrss) * 1024;
            };
            const int session = Open();
            const double before = peak();
            SetFound(million);
            TsmObject* objects = nullptr;
            double arrays = 99;
            if (TsmGetBackupInfo(session, C("*"), nullptr, 0, 0, &objects) == million) {
                arrays = (peak() - before) / (static_cast<double>(million) * sizeof(TsmObject));
            }
            if (write(ends[1], &arrays, sizeof arrays) != sizeof arrays) _exit(1);
            _exit(0);
        }
        double arrays = 99;
        if (read(ends[0], &arrays, sizeof arrays) != sizeof arrays) state.SkipWithError("no figure");
        waitpid(child, nullptr, 0);
        close(ends[0]);
        close(ends[1]);
        state.counters["value"] = arrays;
    }
}

// ------------------------------------------------------------ calls

void CallDirect(benchmark::State& state) {
    TsmSession session;
    dsmApiVersionEx version = {};
    session.OpenSession(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, version);
    for (auto _ : state) benchmark::DoNotOptimize(session.EndGetBackupInfo());
}

void CallThroughHandle(benchmark::State& state) {
    std::vector<int> sessions;
    for (long i = 0; i < state.range(0); ++i) sessions.push_back(Open());
    const int session = sessions[sessions.size() / 3];
    for (auto _ : state) benchmark::DoNotOptimize(TsmEndGetBackupInfo(session));
    for (const int opened : sessions) TsmCloseSession(opened);
}

// As many threads as the argument says, each sending pieces of 32 KiB on a handle of its own. The time is that of
// one call, all threads counted.
void Threads(benchmark::State& state) {
    constexpr int calls = 200000;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (long t = 0; t < state.range(0); ++t) {
            threads.emplace_back([] {
                std::vector<unsigned char> data(32768, 'd');
                const int session = Open();
                for (int i = 0; i < calls; ++i) TsmSendData(session, data.data(), static_cast<int>(data.size()));
                TsmCloseSession(session);
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
}

// ----------------------------------------------------------- backup

std::string DeepPath(long depth) {
    std::string path;
    for (long i = 0; i < depth; ++i) path += "/level-" + std::to_string(i);
    return path;
}

void BackupConnector(benchmark::State& state) {
    const std::string path = DeepPath(state.range(0));
    const int session = Open();
    SetFound(1);
    for (auto _ : state) {
        if (TsmBeginBackup(session, C(path.c_str()), C("disk.img"), 1) != 0 || TsmEndBackup(session) != 0) {
            state.SkipWithError("backup");
        }
    }
    SetFound(0);
    TsmCloseSession(session);
}

void FillName(dsmObjName& name, std::string_view hl, std::string_view ll, dsUint8_t type) {
    std::memset(&name, 0, sizeof name);
    std::strcpy(name.fs, "/vm01");
    std::memcpy(name.hl, hl.data(), hl.size());
    std::memcpy(name.ll, ll.data(), ll.size());
    name.objType = type;
}

// The same calls as the connector's, by a caller who need not check the path.
void BackupDirect(benchmark::State& state) {
    const std::string path = DeepPath(state.range(0));
    SetFound(1);
    for (auto _ : state) {
        dsmObjName name;
        for (std::size_t at = 0; at < path.size();) {
            const std::size_t next = std::min(path.find('/', at + 1), path.size());
            FillName(name, std::string_view(path).substr(0, at), std::string_view(path).substr(at, next - at),
                     DSM_OBJ_DIRECTORY);
            qryBackupData query = {};
            query.stVersion = 2;
            query.objName = &name;
            query.objState = DSM_ACTIVE;
            qryRespBackupData response;
            std::memset(&response, 0, sizeof response);
            response.stVersion = 8;
            DataBlk block = {};
            block.stVersion = 3;
            block.bufferLen = sizeof response;
            block.bufferPtr = reinterpret_cast<char*>(&response);
            dsmBeginQuery(1, qtBackup, &query);
            long count = 0;
            while (dsmGetNextQObj(1, &block) == DSM_RC_MORE_DATA) ++count;
            if (dsmEndQuery(1) != 0 || count != 1) state.SkipWithError("query");
            at = next;
        }
        FillName(name, path, "/disk.img", DSM_OBJ_FILE);
        mcBindKey key = {};
        key.stVersion = 1;
        const std::unique_ptr<char[]> info(new char[2]());
        ObjAttr attr = {};
        attr.stVersion = 4;
        attr.sizeEstimate.lo = 1;
        attr.objInfo = info.get();
        attr.objInfoLength = 1;
        dsUint16_t reason = 0;
        if (dsmBindMC(1, &name, stBackup, &key) != 0 || dsmBeginTxn(1) != 0 ||
            dsmSendObj(1, stBackup, nullptr, &name, &attr, nullptr) != 0 || dsmEndSendObj(1) != 0 ||
            dsmEndTxn(1, DSM_VOTE_COMMIT, &reason) != 0) {
            state.SkipWithError("backup");
        }
    }
    SetFound(0);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Row> rows;
    const auto pair = [&rows](const std::string& work, const std::string& name, auto connector, auto direct,
                              long argument, double target) {
        const std::string suffix = ":" + std::to_string(argument);
        benchmark::RegisterBenchmark((name + "-connector" + suffix).c_str(), connector)->Arg(argument)->UseRealTime();
        benchmark::RegisterBenchmark((name + "-direct" + suffix).c_str(), direct)->Arg(argument)->UseRealTime();
        rows.push_back({work, Row::Speed, name + "-connector" + suffix, name + "-direct" + suffix, target});
    };
    const std::pair<long, const char*> sizes[] = {
        {32 << 10, "32 KiB"}, {64 << 10, "64 KiB"}, {1 << 20, "1 MiB"}, {8 << 20, "8 MiB"}};
    for (const auto& [size, text] : sizes) {
        pair("TsmSendData, pieces of " + std::string(text), "send", SendConnector, SendDirect, size, 0.95);
    }
    for (const auto& [size, text] : sizes) {
        pair("TsmGetData, chunks of " + std::string(text), "get", GetConnector, GetDirect, size, 0.95);
    }
    pair("inventory of 1,000,000 objects", "inventory", InventoryConnector, InventoryDirect, million, 0.9);
    benchmark::RegisterBenchmark("inventory-memory", InventoryMemory)->Iterations(1);
    rows.push_back({"its peak memory, in arrays of its size", Row::Number, "inventory-memory", "", 1.1});

    benchmark::RegisterBenchmark("call-member", CallDirect)->UseRealTime();
    benchmark::RegisterBenchmark("call-handle:1", CallThroughHandle)->Arg(1)->UseRealTime();
    benchmark::RegisterBenchmark("call-handle:10000", CallThroughHandle)->Arg(10000)->UseRealTime();
    rows.push_back({"a call through a handle, against the member", Row::Extra, "call-handle:1", "call-member", 80});
    rows.push_back({"the same, 10,000 sessions against 1", Row::Factor, "call-handle:10000", "call-handle:1", 2});

    benchmark::RegisterBenchmark("threads:1", Threads)->Arg(1)->UseRealTime()->Iterations(1);
    benchmark::RegisterBenchmark("threads:2", Threads)->Arg(2)->UseRealTime()->Iterations(1);
    // Twice the calls in at most 2 / 1.8 of the time.
    rows.push_back(
        {"twice the calls on two threads, against one thread", Row::Factor, "threads:2", "threads:1", 2 / 1.8});
    // At depth 1 the connector's own calls count: some 90 ns beside an API that does nothing, too little to feel.
    for (const auto& [depth, target] : {std::pair(1L, 0.65), {8L, 0.8}, {64L, 0.8}}) {
        pair("backup of one object at depth " + std::to_string(depth), "backup", BackupConnector, BackupDirect, depth,
             target);
    }
    if (TsmInitApi(nullptr, nullptr, nullptr, nullptr) != 0) return 2;
    return RunAndPrint(argc, argv, rows);
}
