#include "Parallel.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "Errors.h"

namespace tsmctl {

void RunParallel(Context& context, Session& own, int sessions, size_t count, const Job& job) {
    std::atomic<size_t> next{0};
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
            // The other threads go on. Without the buffer there is memory to report what this one had begun.
            if (i < count) context.report.Failed(job.subject(i), noMemory);
        } catch (const std::exception& failure) {
            context.report.Failed("worker", failure.what());
        }
    };
    const size_t wanted = std::min(static_cast<size_t>(sessions), count);
    std::vector<std::thread> threads;
    try {
        while (threads.size() + 1 < wanted) {
            threads.emplace_back([&] {
                Session session(context.connection);
                worker(session);
            });
        }
    } catch (const std::system_error&) {
        // The threads that have started do the work.
    }
    worker(own);
    for (std::thread& thread : threads) thread.join();
    CheckInterrupt();
    for (size_t i = next++; i < count; i = next++) context.report.Failed(job.subject(i), noMemory);
}

}  // namespace tsmctl
