#include "Errors.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace tsmctl {
namespace {

std::atomic<int> pendingSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs it");

// The second signal does not wait, since the server may hang.
void OnSignal(int number) {
    if (pendingSignal.exchange(number) != 0) _exit(128 + number);
}

// The name of a code, which may be empty, and its meaning.
std::pair<const char*, const char*> NameAndMeaning(long long code) {
#define CODE(value, name, meaning) \
    case value:                    \
        return {name, meaning};
    switch (code) {
#include "../tables/codes.def"
    }
#undef CODE
    return {"", "the client API's manual explains it"};
}

}  // namespace

std::string CodeText(const std::string& what, long long result) {
    const auto [name, meaning] = NameAndMeaning(std::llabs(result));
    return fmt::format("{}: {} ({}), {}", what, *name ? name : "return code", result, meaning);
}

// docs/results.md lists them.
void FailWith(const std::string& what, long long result) {
    for (const int code : {1, 12, 14, 15, 16, 17, 18, 51, 102, 121, 157, 2041, 2200, 2302}) {
        if (result == -code) throw PassingFailure(CodeText(what, result));
    }
    throw Failure(CodeText(what, result));
}

Failure NotFound(const std::string& place) {
    return Failure(CodeText(place.empty() ? "not found" : "not found " + place, -2));
}

void FailLocal(const std::string& what, int error) {
    throw Failure(fmt::format("{}: {}", what, std::generic_category().message(error)));
}

// Calls are restarted, so that no signal breaks into the client API; what may wait for long polls (Files.cpp).
// Signals that the caller ignores, as nohup does, stay ignored.
void CatchSignals() {
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction inherited = {};
        sigaction(number, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

int PendingSignal() {
    return pendingSignal.load();
}

void CheckInterrupt() {
    if (PendingSignal() != 0) throw Interrupted{};
}

}  // namespace tsmctl
