#include "TestControl.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Faults.h"
#include "Moments.h"
#include "standin/testcontrol.h"

namespace standin {
namespace {

std::atomic<std::int64_t> theClock{0};  // 0 while it runs

bool IsAny(const char* function) {
    return std::strcmp(function, "*") == 0;
}

std::int64_t Packed(const std::tm& t) {
    return ((((t.tm_year * INT64_C(100) + t.tm_mon) * 100 + t.tm_mday) * 100 + t.tm_hour) * 100 + t.tm_min) * 100 +
           t.tm_sec;
}

}  // namespace

namespace control {

std::int64_t Now() {
    const std::int64_t set = theClock;
    return set != 0 ? set : static_cast<std::int64_t>(std::time(nullptr));
}

}  // namespace control
}  // namespace standin

using namespace standin;

int standinSetClock(const char* moment) {
    if (!moment) {
        theClock = 0;
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
    theClock = MomentsOf(Packed(t)).later;
    return 0;
}

int standinFail(const char* function, unsigned nth, dsInt16_t rc, dsUint16_t reason) {
    Rule rule{faults::Named(function), nth};
    if (nth == 0 || rule.call == Call::dsmQueryApiVersionEx || (!rule.call && !IsAny(function))) return -1;
    rule.fault = Fault{rc, reason};
    faults::Add(rule);
    return 0;
}

void standinTakeAtMost(dsUint32_t bytes) {
    faults::TakeAtMost(bytes);
}

unsigned long standinCalls(const char* function) {
    const std::optional<Call> call = faults::Named(function);
    return call || IsAny(function) ? faults::Count(call) : 0;
}

void standinReset() {
    faults::Reset();
    theClock = 0;
}
