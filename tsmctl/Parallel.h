// Work on many objects at the same time.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Connection.h"
#include "Files.h"

namespace tsmctl {

// Small objects wait for the disk most of the time, and sessions share what they wait for. Reading back is not faster
// with more than half of them, which would only take memory.
constexpr int usualSessions = 8;
constexpr int usualReaders = 4;

// Sessions that do what they are given, each in a thread of its own. The calling thread, with its session, is one of
// them: it works while it would have to wait. Failures are reported under the subject.
class Workers {
public:
    using Work = std::function<void(Session&, Buffer&)>;

    Workers(Context& context, Session& own, int sessions);
    // What has not begun is left out.
    ~Workers();

    // Takes the work, or does it at once. Few are kept waiting, so that memory does not grow with their number.
    void Do(std::string subject, Work work);
    // Returns when everything is done. Throws Interrupted at a signal.
    void Finish();

private:
    void StartThread();
    void WorkInThread();
    // Does what has waited longest, without the lock meanwhile.
    void DoNext(std::unique_lock<std::mutex>& lock, Session& session, Buffer& buffer);

    Context& context_;
    Session& own_;
    Buffer ownBuffer_;
    size_t sessions_;  // with the one of the calling thread
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Work> tasks_;
    size_t running_ = 0;
    size_t living_ = 0;  // threads that take work
    bool ended_ = false;
};

}  // namespace tsmctl
