// How things go wrong: what is thrown, the names of the API's codes, and the wish of a signal to stop.
#pragma once

#include <stdexcept>
#include <string>

namespace tsmctl {

// One object, or the whole command, could not be done or was declined: exit status 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The command line does not make sense, or a question has no terminal to be asked on (--yes was not given): exit status
// 2, no object was changed.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A signal asked to stop. Not a std::exception, so that no handler takes it for the failure of one object.
struct Interrupted {};

// "what: DSM_RC_NAME (-code), meaning" for a result of the connector.
std::string CodeText(const std::string& what, long long result);
[[noreturn]] void FailLocal(const std::string& what, int error);

void CatchSignals();
int PendingSignal();
void CheckInterrupt();

}  // namespace tsmctl
