// What recording costs: calls through libtsmtrace.so against the same calls straight on the stand-in.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Table.h"
#include "dsmapifp.h"
#include "dsmrc.h"

using namespace bench;

namespace {

// The functions of the stand-in, or those of the recorder in front of it.
struct Api {
    decltype(&dsmSendData) sendData;
    decltype(&dsmBindMC) bindMC;
};
const Api direct = {dsmSendData, dsmBindMC};
Api recorded;
dsUint32_t handle = 0;
constexpr std::size_t piece = 64 << 10;
constexpr int pieces = 16, slices = 128;  // of each kind

void Must(const char* what, int rc, int wanted = 0) {
    if (rc == wanted) return;
    std::fprintf(stderr, "%s: %d\n", what, rc);
    std::exit(2);
}

dsmObjName Name(const char* ll) {
    dsmObjName name = {};
    std::strcpy(name.fs, "/bench");
    std::strcpy(name.ll, ll);
    name.objType = DSM_OBJ_FILE;
    return name;
}

DataBlk Block(std::vector<char>& data) {
    DataBlk block = {};
    block.stVersion = DataBlkVersion;
    block.bufferLen = static_cast<dsUint32_t>(data.size());
    block.bufferPtr = data.data();
    return block;
}

// Seconds for some pieces of a stream.
double Slice(const Api& api, std::vector<char>& data) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < pieces; ++i) {
        DataBlk block = Block(data);
        Must("dsmSendData", api.sendData(handle, &block));
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Short slices of one stream in turns, as the disk's speed changes within a second: what the recorded ones cost more,
// as a part of what the sends alone take, or of what the whole stream takes with its begin and its commit.
void Send(benchmark::State& state, bool whole) {
    std::vector<char> data(piece, 'd');
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        dsmObjName name = Name("/stream");
        mcBindKey key = {};
        ObjAttr attr = {};
        attr.sizeEstimate.lo = 1;
        Must("dsmBindMC", dsmBindMC(handle, &name, stBackup, &key));
        Must("dsmBeginTxn", dsmBeginTxn(handle));
        Must("dsmSendObj", dsmSendObj(handle, stBackup, nullptr, &name, &attr, nullptr));
        std::vector<double> differences;
        double sends = 0;
        for (int slice = 0; slice < slices; ++slice) {
            double times[2];
            for (const int now : {slice % 2, 1 - slice % 2}) times[now] = Slice(now == 1 ? recorded : direct, data);
            differences.push_back(times[1] - times[0]);
            sends += times[0];
        }
        std::sort(differences.begin(), differences.end());
        const double more = differences[differences.size() / 2] * slices;
        dsUint16_t reason = 0;
        Must("dsmEndSendObj", dsmEndSendObj(handle));
        Must("dsmEndTxn", dsmEndTxn(handle, DSM_VOTE_COMMIT, &reason));
        // Half of the pieces were recorded.
        const double all = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() - more;
        state.counters["value"] = 1 + (whole ? 2 * more / all : more / sends);
    }
}

// One with a name, that comes back at once. Not so often that the disk becomes what is measured.
void Call(benchmark::State& state, const Api& api) {
    dsmObjName name = Name("/disk-0001.img");
    std::strcpy(name.hl, "/data/projects/backup/2021");
    mcBindKey key = {};
    for (auto _ : state) Must("dsmBindMC", api.bindMC(handle, &name, stBackup, &key));
}

}  // namespace

int main(int argc, char** argv) {
    std::string pattern = (std::filesystem::temp_directory_path() / "trace-bench-XXXXXX").string();
    const std::filesystem::path folder = mkdtemp(pattern.data());
    std::ofstream(folder / "dsm.opt") << "STOREDIR store\n";
    setenv("TSMTRACE_FILE", (folder / "recording").c_str(), 1);
    setenv("TSMTRACE_SIZE", "256", 1);
    void* const library = dlopen(TSMTRACE_LIBRARY, RTLD_NOW);
    if (!library) Must(dlerror(), 1);
    recorded = {reinterpret_cast<decltype(&dsmSendData)>(dlsym(library, "dsmSendData")),
                reinterpret_cast<decltype(&dsmBindMC)>(dlsym(library, "dsmBindMC"))};

    envSetUp setUp = {};
    setUp.stVersion = envSetUpVersion;
    std::strcpy(setUp.dsmiConfig, (folder / "dsm.opt").c_str());
    Must("dsmSetUp", dsmSetUp(bTrue, &setUp));
    char node[] = "BENCH", filespace[] = "/bench", type[] = "BENCH";
    dsmInitExIn_t in = {};
    in.clientNodeNameP = node;
    dsmInitExOut_t out = {};
    Must("dsmInitEx", dsmInitEx(&handle, &in, &out));
    regFSData data = {};
    data.fsName = filespace;
    data.fsType = type;
    Must("dsmRegisterFS", dsmRegisterFS(handle, &data));

    for (const bool whole : {false, true}) {
        benchmark::RegisterBenchmark(whole ? "trace-stream" : "trace-send", [=](auto& state) { Send(state, whole); })
            ->UseRealTime()
            ->Iterations(1);
    }
    const auto call = [](const char* name, const Api& api) {
        benchmark::RegisterBenchmark(name, [&api](auto& state) { Call(state, api); })->UseRealTime()->Iterations(20000);
    };
    call("trace-call-direct", direct);
    call("trace-call-recorded", recorded);
    const int missed = RunAndPrint(
        argc, argv,
        {{"recorded: a stream in pieces of 64 KiB, against not", Row::Number, "trace-stream", "", 1.02},
         {"recorded: its sends alone, to the page cache", Row::Number, "trace-send", "", 1.02},
         {"recorded: a call, against the same not", Row::Extra, "trace-call-recorded", "trace-call-direct", 1500}});
    dsmCleanUp(bTrue);
    std::filesystem::remove_all(folder);
    return missed;
}
