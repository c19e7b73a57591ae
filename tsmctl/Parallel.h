// Work on many objects at the same time.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "Context.h"
#include "Files.h"

namespace tsmctl {

struct Job {
    std::function<std::string(size_t)> subject;
    std::function<void(Session&, Buffer&, size_t)> work;
};
// Does the job for each number below count, once, with as many sessions, each in a thread of its own. The calling
// thread takes part with its session. Failures are reported under the subject.
void RunParallel(Context& context, Session& own, int sessions, size_t count, const Job& job);

}  // namespace tsmctl
