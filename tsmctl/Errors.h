// What is thrown, the names of the API's return codes, and signals that ask to stop.
#pragma once

#include <stdexcept>
#include <string>

namespace tsmctl {

// One object or the whole command failed, or a question was declined: exit status 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The client API or the server failed in a way that may pass: another try, in a new session, makes sense.
class PassingFailure : public Failure {
public:
    using Failure::Failure;
};

// The command line makes no sense, or there is no terminal to ask on: exit status 2. No object was changed.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A signal asked to stop. It is no std::exception, so that no handler takes it for the failure of one object.
struct Interrupted {};

// "what: DSM_RC_NAME (-code), meaning" for a result of the connector.
std::string CodeText(const std::string& what, long long result);
// Throws PassingFailure or Failure with that text.
[[noreturn]] void FailWith(const std::string& what, long long result);
// No object matches. place may say where it was sought.
Failure NotFound(const std::string& place = "");
// Throws Failure with the text of an errno.
[[noreturn]] void FailLocal(const std::string& what, int error);

// From now on SIGINT, SIGTERM and SIGHUP are remembered; a second one ends the process.
void CatchSignals();
// The signal that asked to stop, or 0.
int PendingSignal();
// Throws Interrupted once a signal has asked to stop.
void CheckInterrupt();

}  // namespace tsmctl
