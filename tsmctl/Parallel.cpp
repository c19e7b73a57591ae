#include "Parallel.h"

#include <exception>
#include <utility>

#include "Errors.h"

namespace tsmctl {

Workers::Workers(Context& context, Session& own, int sessions)
    : context_(context), own_(own), ownBuffer_(pieceSize), sessions_(static_cast<size_t>(sessions)) {}

Workers::~Workers() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        tasks_.clear();
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void Workers::Do(std::string subject, Work work) {
    CheckInterrupt();
    Work task = [this, subject = std::move(subject), work = std::move(work)](Session& session, Buffer& buffer) {
        Attempt(context_.report, subject, [&] { work(session, buffer); });
    };
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const bool more = living_ + 1 < sessions_ && running_ + tasks_.size() >= living_;
        if (more) StartThread();
        if (living_ > 0 && tasks_.size() < 8 * sessions_) {
            tasks_.push_back(std::move(task));
            changed_.notify_all();
            return;
        }
    }
    task(own_, ownBuffer_);
}

// Without another thread, those that have started do the work.
void Workers::StartThread() try {
    threads_.emplace_back([this] { WorkInThread(); });
    ++living_;
} catch (const std::exception&) {
    return;
}

void Workers::DoNext(std::unique_lock<std::mutex>& lock, Session& session, Buffer& buffer) {
    const Work task = std::move(tasks_.front());
    tasks_.pop_front();
    ++running_;
    lock.unlock();
    std::exception_ptr ended;
    try {
        task(session, buffer);
    } catch (...) {
        ended = std::current_exception();
    }
    lock.lock();
    --running_;
    changed_.notify_all();
    if (ended) std::rethrow_exception(ended);
}

void Workers::WorkInThread() {
    std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
    try {
        Session session(context_.connection);
        Buffer buffer(pieceSize);
        session.Handle();
        lock.lock();
        while (true) {
            changed_.wait(lock, [this] { return ended_ || !tasks_.empty(); });
            if (tasks_.empty()) break;
            DoNext(lock, session, buffer);
        }
    } catch (const Interrupted&) {
        // The calling thread sees the signal too.
    } catch (const std::exception&) {
        // There was no memory, or the server accepts no more sessions. What waits is done by the others.
    }
    if (!lock.owns_lock()) lock.lock();
    sessions_ = living_--;
}

void Workers::Finish() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!tasks_.empty()) {
        try {
            DoNext(lock, own_, ownBuffer_);
        } catch (const Interrupted&) {
            // What the others have begun ends first; then the signal is seen again.
        }
    }
    changed_.wait(lock, [this] { return running_ == 0; });
    lock.unlock();
    CheckInterrupt();
}

}  // namespace tsmctl
