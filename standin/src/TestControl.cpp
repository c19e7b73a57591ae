#include "TestControl.h"

#include <atomic>
#include <cstring>
#include <ctime>

#include "Faults.h"
#include "Moments.h"
#include "standin/testcontrol.h"

namespace standin {
namespace {

std::atomic<std::int64_t> theClock{0};                           // a test's; 0 while it runs
std::atomic<std::int64_t> serverStoppedAt{0}, serverAheadBy{0};  // as the options file has it

bool IsAny(const char* function) {
    return std::strcmp(function, "*") == 0;
}

}  // namespace

namespace control {

std::int64_t Now() {
    if (const std::int64_t set = theClock) return set;
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
        theClock = 0;
        return 0;
    }
    const std::optional<std::int64_t> set = MomentIn(moment);
    if (set) theClock = *set;
    return set ? 0 : -1;
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
