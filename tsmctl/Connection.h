// The connector's library and its sessions.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "Report.h"

namespace tsmctl {

// The API takes text that it does not change as char*.
inline char* Text(const std::string& text) {
    return const_cast<char*>(text.c_str());
}
inline char* TextOrNull(const std::string& text) {
    return text.empty() ? nullptr : Text(text);
}

// Where the client API is, and which node and filespace to work in. What is empty is left to the client API.
struct ConnectionOptions {
    std::string config;
    std::string logDir;  // empty for a folder of tsmctl's own
    std::string apiDir;
    std::string node;
    std::string owner;
    std::string filespace = "tsmctl";
    std::string passwordFile;  // empty for TSMCTL_PASSWORD, or the terminal
    long long retries = 3;
};

// The library with the node's password. The first session sets it up, so that commands which need no server, and
// command lines that make no sense, do not ask for a password. Outlives every session.
class Connection {
public:
    explicit Connection(const ConnectionOptions& options);
    ~Connection();

    const std::string& Node() const { return options_.node; }
    const std::string& Filespace() const { return options_.filespace; }
    // The path of the client API's error log when something was logged since the library was set up; else empty.
    std::string GrownLog() const;

private:
    friend class Session;
    // Is done once. Throws UsageError where no password can be had, Failure where the library refuses.
    void SetUp();

    ConnectionOptions options_;
    std::once_flag once_;
    std::string password_;
    std::string log_;  // the client API's error log, which has the reasons for many failures
    off_t logSize_ = 0;
    // Whether trying again did not help last time: listings, and all else.
    std::atomic<bool> listingFails_{false};
    std::atomic<bool> failing_{false};
};

// One session for one thread. It signs on when it is first needed. After a failure it is closed, which discards what
// was not committed, and the next use signs on again.
class Session {
public:
    // Works in the filespace of the connection, or in none. Throws what setting the library up throws.
    explicit Session(Connection& connection, bool withFilespace = true);
    ~Session();
    Session(const Session&) = delete;

    // Throws Failure where the sign-on fails.
    int Handle();
    // Does the work, and again in a new session when it fails in a way that may pass: as often as the user allows,
    // after pauses that grow. Inside other work that is tried again, it is done once. After trying again was in vain,
    // nothing is tried again until some work succeeds; listings, which say little about the rest, are on their own in
    // that.
    void Retry(const std::function<void()>& work, bool listing = false);
    void Drop();
    // Returns a good result; drops the session and throws Failure for a negative one.
    long long Check(const char* what, long long result);

private:
    void SignOn();

    Connection& connection_;
    const bool withFilespace_;
    int handle_ = 0;
    bool trying_ = false;
};

// What a command works with when it runs.
struct Context {
    Connection& connection;
    Report& report;
    int status = 0;  // of the program, when nothing failed
};

}  // namespace tsmctl
