#include "Parallel.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "Errors.h"

namespace tsmctl {
namespace {

constexpr const char* noMemory = "not done: not enough memory";

}  // namespace

bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work) try {
    CheckInterrupt();
    work();
    return true;
} catch (const UsageError&) {
    throw;
} catch (const std::bad_alloc&) {
    report.Failed(subject, noMemory);
    return false;
} catch (const std::exception& failure) {
    report.Failed(subject, failure.what());
    return false;
}

void RunParallel(Context& context, Session& own, size_t first, size_t count, const Job& job) {
    std::atomic<size_t> next{first};
    const auto worker = [&](Session& session) {
        size_t i = count;
        try {
            Buffer buffer(pieceSize);
            for (i = next++; i < count; i = next++) {
                Attempt(context.report, job.subject(i), [&] { job.work(session, buffer, i); });
            }
        } catch (const Interrupted&) {
            // The calling thread sees the signal too.
        } catch (const std::bad_alloc&) {
            // The others go on; without the buffer there is room to say what this one had begun.
            if (i < count) context.report.Failed(job.subject(i), noMemory);
        } catch (const std::exception& failure) {
            context.report.Failed("worker", failure.what());
        }
    };
    const size_t wanted = std::min(static_cast<size_t>(context.options.jobs), count - std::min(first, count));
    std::vector<std::thread> threads;
    try {
        while (threads.size() + 1 < wanted) {
            threads.emplace_back([&] {
                Session session(context.connection);
                worker(session);
            });
        }
    } catch (const std::system_error&) {
        // The threads that did start do the work.
    }
    worker(own);
    for (std::thread& thread : threads) thread.join();
    CheckInterrupt();
    for (size_t i = next++; i < count; i = next++) context.report.Failed(job.subject(i), noMemory);
}

}  // namespace tsmctl
