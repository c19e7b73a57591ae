// What recording costs: calls through libtsmtrace.so against the same calls straight on the stand-in.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Table.h"
#include "dsmapifp.h"
#include "dsmrc.h"

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
constexpr int pieces = 4096;

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

// The calls of a stream alone are counted: neither its begin nor its commit is.
void Send(benchmark::State& state, const Api& api) {
    std::vector<char> data(piece, 'd');
    for (auto _ : state) {
        state.PauseTiming();
        dsmObjName name = Name("/stream");
        mcBindKey key = {};
        ObjAttr attr = {};
        attr.sizeEstimate.lo = 1;
        Must("dsmBindMC", dsmBindMC(handle, &name, stBackup, &key));
        Must("dsmBeginTxn", dsmBeginTxn(handle));
        Must("dsmSendObj", dsmSendObj(handle, stBackup, nullptr, &name, &attr, nullptr));
        state.ResumeTiming();
        for (int i = 0; i < pieces; ++i) {
            DataBlk block = Block(data);
            Must("dsmSendData", api.sendData(handle, &block));
        }
        state.PauseTiming();
        dsUint16_t reason = 0;
        dsmEndTxn(handle, DSM_VOTE_ABORT, &reason);
        state.ResumeTiming();
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
    if (library == nullptr) Must(dlerror(), 1);
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

    const auto pair = [](const std::string& name, auto work, int iterations) {
        const auto add = [&](const char* suffix, const Api& api) {
            auto* const added =
                benchmark::RegisterBenchmark((name + suffix).c_str(), [=, &api](auto& state) { work(state, api); });
            added->UseRealTime();
            added->Iterations(iterations);
        };
        add("-direct", direct);
        add("-recorded", recorded);
    };
    pair("trace-send", Send, 1);
    pair("trace-call", Call, 20000);
    const int missed = RunAndPrint(
        argc, argv,
        {{"recorded: sending pieces of 64 KiB, against not", Row::Factor, "trace-send-recorded", "trace-send-direct",
          1.02},
         {"recorded: a call, against the same not", Row::Extra, "trace-call-recorded", "trace-call-direct", 1500}});
    dsmCleanUp(bTrue);
    std::filesystem::remove_all(folder);
    return missed;
}
