#include "parallel.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

#include "errors.h"

bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work) try {
    CheckInterrupt();
    work();
    return true;
} catch (const UsageError&) {
    throw;
} catch (const std::exception& failure) {
    report.Failed(subject, failure.what());
    return false;
}

void RunParallel(Context& context, Session& own, size_t first, size_t count, const Job& job) {
    std::atomic<size_t> next{first};
    const auto worker = [&](Session& session) {
        try {
            Buffer buffer(pieceSize);
            for (size_t i = next++; i < count; i = next++) {
                Attempt(context.report, job.subject(i), [&] { job.work(session, buffer, i); });
            }
        } catch (const Interrupted&) {
            // The calling thread sees the signal too.
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
}
