#include "errors.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <system_error>

namespace {
std::atomic<int> pendingSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs it");

// The second signal does not wait: the server may be hanging.
void OnSignal(int number) {
    if (pendingSignal.exchange(number) != 0) _exit(128 + number);
}

const std::map<long long, const char*>& CodeNames() {
    static const std::map<long long, const char*> names = {
        {1, "DSM_RC_ABORT_SYSTEM_ERROR"},
        {2, "DSM_RC_ABORT_NO_MATCH"},
        {3, "DSM_RC_ABORT_BY_CLIENT"},
        {11, "DSM_RC_ABORT_NO_REPOSIT_SPACE"},
        {32, "DSM_RC_ABORT_DUPLICATE_OBJECT"},
        {102, "DSM_RC_NO_MEMORY"},
        {106, "DSM_RC_ACCESS_DENIED"},
        {109, "DSM_RC_INVALID_PARM"},
        {121, "DSM_RC_FINISHED"},
        {137, "DSM_RC_AUTH_FAILURE"},
        {157, "DSM_RC_WILL_ABORT"},
        {2000, "DSM_RC_NULL_OBJNAME"},
        {2001, "DSM_RC_NULL_DATABLKPTR"},
        {2008, "DSM_RC_ZERO_BUFLEN"},
        {2009, "DSM_RC_NULL_BUFPTR"},
        {2011, "DSM_RC_INVALID_VOTE"},
        {2014, "DSM_RC_INVALID_DS_HANDLE"},
        {2025, "DSM_RC_INVALID_MCNAME"},
        {2041, "DSM_RC_BAD_CALL_SEQUENCE"},
        {2061, "DSM_RC_FS_NOT_REGISTERED"},
        {2062, "DSM_RC_FS_ALREADY_REGED"},
        {2107, "DSM_RC_WRONG_SIZE_ESTIMATE"},
        {2120, "DSM_RC_STRING_TOO_LONG"},
        {2200, "DSM_RC_MORE_DATA"},
        {2302, "DSM_RC_CHECK_REASON_CODE"},
    };
    return names;
}
}  // namespace

std::string CodeText(const std::string& what, long long result) {
    const auto found = CodeNames().find(std::llabs(result));
    return fmt::format("{}: {} ({})", what, found == CodeNames().end() ? "return code" : found->second, result);
}

void FailLocal(const std::string& what, int error) {
    throw Failure(fmt::format("{}: {}", what, std::generic_category().message(error)));
}

// Calls are restarted, so that no signal breaks into the client API; what may wait for long polls (local.cpp).
// What the caller ignores, as nohup does, stays ignored.
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
