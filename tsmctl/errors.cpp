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

struct Code {
    const char* name;
    const char* meaning;
};

const std::map<long long, Code>& Codes() {
    static const std::map<long long, Code> codes = {
        {1, {"DSM_RC_ABORT_SYSTEM_ERROR", "the server failed, as with storage that is full, damaged or out of reach"}},
        {2, {"DSM_RC_ABORT_NO_MATCH", "nothing that is stored matches"}},
        {3, {"DSM_RC_ABORT_BY_CLIENT", "the client's vote gave the transaction up"}},
        {32, {"DSM_RC_ABORT_DUPLICATE_OBJECT", "the new name has stored versions"}},
        {102, {"DSM_RC_NO_MEMORY", "no memory"}},
        {106, {"DSM_RC_ACCESS_DENIED", "the node has no permission for this"}},
        {109, {"DSM_RC_INVALID_PARM", "a value, or a line of the options file, is not valid"}},
        {121, {"DSM_RC_FINISHED", "an end where none was due"}},
        {137, {"DSM_RC_AUTH_FAILURE", "wrong password, or a node that the server does not know"}},
        {157, {"DSM_RC_WILL_ABORT", "the server is giving the transaction up"}},
        {2000, {"DSM_RC_NULL_OBJNAME", "a name is missing"}},
        {2001, {"DSM_RC_NULL_DATABLKPTR", "a data block is missing"}},
        {2008, {"DSM_RC_ZERO_BUFLEN", "a data block without room"}},
        {2009, {"DSM_RC_NULL_BUFPTR", "a buffer is missing"}},
        {2011, {"DSM_RC_INVALID_VOTE", "a vote that is none"}},
        {2014, {"DSM_RC_INVALID_DS_HANDLE", "no such session, or the client API is not set up"}},
        {2025, {"DSM_RC_INVALID_MCNAME", "no such management class; tsmctl classes lists them"}},
        {2041, {"DSM_RC_BAD_CALL_SEQUENCE", "called in the wrong order"}},
        {2061, {"DSM_RC_FS_NOT_REGISTERED", "no such filespace"}},
        {2062, {"DSM_RC_FS_ALREADY_REGED", "the filespace exists already"}},
        {2107, {"DSM_RC_WRONG_SIZE_ESTIMATE", "data for an object that was announced as empty"}},
        {2120, {"DSM_RC_STRING_TOO_LONG", "a name or another text is too long"}},
        {2200, {"DSM_RC_MORE_DATA", "more data than was due"}},
        {2302, {"DSM_RC_CHECK_REASON_CODE", "the server refused; for a deletion, its permission may be missing"}},
    };
    return codes;
}
}  // namespace

std::string CodeText(const std::string& what, long long result) {
    const auto found = Codes().find(std::llabs(result));
    const Code code =
        found == Codes().end() ? Code{"return code", "the client API's manual explains it"} : found->second;
    return fmt::format("{}: {} ({}), {}", what, code.name, result, code.meaning);
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
