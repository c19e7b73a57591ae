#include "TestControl.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <mutex>
#include <numeric>
#include <vector>

#include "Moments.h"
#include "standin/testcontrol.h"

namespace standin {
namespace {

constexpr const char* callNames[] = {
#define STANDIN_CALL(name) "dsm" #name,
    STANDIN_CALLS(STANDIN_CALL)
#undef STANDIN_CALL
};
constexpr std::size_t callCount = std::size(callNames);

struct Waiting {
    std::optional<Call> call;  // none: whichever comes
    unsigned callsToGo;
    Fault fault;
};

std::atomic<std::int64_t> serverStoppedAt{0}, serverAheadBy{0};  // as the options file has it

struct Control {
    std::array<std::atomic<unsigned long>, callCount> calls{};
    std::atomic<std::int64_t> clock{0};
    std::atomic<dsUint32_t> limit{0};
    std::atomic<bool> armed{false};  // spares every call the lock while no failure waits
    std::mutex mutex;
    std::vector<Waiting> waiting;
};

Control& TheControl() {
    static Control instance;
    return instance;
}

std::optional<Call> Named(const char* function) {
    for (std::size_t i = 0; i < callCount; ++i) {
        if (std::strcmp(callNames[i], function) == 0) return static_cast<Call>(i);
    }
    return std::nullopt;
}

bool IsAny(const char* function) {
    return std::strcmp(function, "*") == 0;
}

}  // namespace

namespace control {

std::optional<Fault> Enter(Call call) {
    Control& all = TheControl();
    all.calls[static_cast<std::size_t>(call)].fetch_add(1, std::memory_order_relaxed);
    if (!all.armed.load(std::memory_order_acquire)) return std::nullopt;

    std::optional<Fault> due;
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto hit = [&](Waiting& w) {
        if ((w.call && *w.call != call) || --w.callsToGo > 0) return false;
        if (!due) due = w.fault;
        return true;
    };
    auto& waiting = all.waiting;
    waiting.erase(std::remove_if(waiting.begin(), waiting.end(), hit), waiting.end());
    all.armed.store(!waiting.empty(), std::memory_order_release);
    return due;
}

dsUint32_t TakeAtMost(dsUint32_t offered) {
    const dsUint32_t limit = TheControl().limit;
    return limit == 0 ? offered : std::min(offered, limit);
}

std::int64_t Now() {
    if (const std::int64_t set = TheControl().clock) return set;
    if (const std::int64_t stopped = serverStoppedAt) return stopped;
    return static_cast<std::int64_t>(std::time(nullptr)) + serverAheadBy;
}

void SetServerClock(std::int64_t stoppedAt, std::int64_t aheadBy) {
    serverStoppedAt = stoppedAt;
    serverAheadBy = aheadBy;
}

}  // namespace control
}  // namespace standin

using namespace standin;

int standinSetClock(const char* moment) {
    if (!moment) {
        TheControl().clock = 0;
        return 0;
    }
    const std::optional<std::int64_t> set = MomentIn(moment);
    if (set) TheControl().clock = *set;
    return set ? 0 : -1;
}

int standinFail(const char* function, unsigned nth, dsInt16_t rc, dsUint16_t reason) {
    const std::optional<Call> call = Named(function);
    if (nth == 0 || call == Call::QueryApiVersionEx || (!call && !IsAny(function))) return -1;
    Control& all = TheControl();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.waiting.push_back({call, nth, {rc, reason}});
    all.armed.store(true, std::memory_order_release);
    return 0;
}

void standinTakeAtMost(dsUint32_t bytes) {
    TheControl().limit = bytes;
}

unsigned long standinCalls(const char* function) {
    const auto& calls = TheControl().calls;
    if (IsAny(function)) return std::accumulate(calls.begin(), calls.end() - 1, 0UL);
    const std::optional<Call> call = Named(function);
    return call ? calls[static_cast<std::size_t>(*call)].load() : 0;
}

void standinReset() {
    Control& all = TheControl();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.waiting.clear();
    all.armed = false;
    all.clock = 0;
    all.limit = 0;
    for (auto& count : all.calls) count = 0;
}
