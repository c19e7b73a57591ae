#include "TestControl.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
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

std::int64_t Packed(const std::tm& t) {
    return ((((t.tm_year * INT64_C(100) + t.tm_mon) * 100 + t.tm_mday) * 100 + t.tm_hour) * 100 + t.tm_min) * 100 +
           t.tm_sec;
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
    const std::int64_t set = TheControl().clock;
    return set != 0 ? set : static_cast<std::int64_t>(std::time(nullptr));
}

}  // namespace control
}  // namespace standin

using namespace standin;

int standinSetClock(const char* moment) {
    if (!moment) {
        TheControl().clock = 0;
        return 0;
    }
    std::tm t{};
    if (std::sscanf(moment, "%4d-%2d-%2d %2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
                    &t.tm_sec) != 6) {
        return -1;
    }
    const auto within = [](int value, int low, int high) { return low <= value && value <= high; };
    if (!within(t.tm_year, 1, 9999) || !within(t.tm_mon, 1, 12) || !within(t.tm_mday, 1, 31) ||
        !within(t.tm_hour, 0, 23) || !within(t.tm_min, 0, 59) || !within(t.tm_sec, 0, 60)) {
        return -1;
    }
    TheControl().clock = MomentsOf(Packed(t)).later;
    return 0;
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
