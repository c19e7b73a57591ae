// Work on many objects, in as many sessions and threads as were asked for.
#pragma once

#include <functional>
#include <string>

#include "Commands.h"
#include "LocalTree.h"

namespace tsmctl {

// Runs work; its failure is reported under the subject and forgotten. Interrupted and UsageError pass.
bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work);

struct Job {
    std::function<std::string(size_t)> subject;
    std::function<void(Session&, Buffer&, size_t)> work;
};
// Does the jobs from first to count - 1, each once. The calling thread takes part with its own session.
void RunParallel(Context& context, Session& own, size_t first, size_t count, const Job& job);

}  // namespace tsmctl
