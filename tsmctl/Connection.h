// The connector's library and its sessions.
#pragma once

#include <string>

#include "Options.h"

namespace tsmctl {

// The API takes text that it does not change as char*.
inline char* Text(const std::string& text) {
    return const_cast<char*>(text.c_str());
}
inline char* TextOrNull(const std::string& text) {
    return text.empty() ? nullptr : Text(text);
}

// The initialised library, the node's credentials and the chosen filespace. Outlives every session.
class Connection {
public:
    explicit Connection(const Options& options);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

private:
    friend class Session;
    const Options& options_;
    std::string password_;
};

// One session for one thread, signed on when it is first needed. After a failure it is closed, which discards what was
// not committed, and the next use signs on again.
class Session {
public:
    explicit Session(const Connection& owner, bool withFilespace = true);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    int Handle();
    void Drop();
    // Passes a good result on; drops the session and throws Failure for a negative one.
    long long Check(const char* what, long long result);

private:
    const Connection& connection_;
    const bool filespace_;
    int handle_ = 0;
};

}  // namespace tsmctl
