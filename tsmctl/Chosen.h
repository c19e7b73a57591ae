// The objects that a command works on, as its command line chooses them.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "Inventory.h"
#include "Parallel.h"

namespace tsmctl {

struct Chosen {
    std::vector<std::string> paths;  // none for everything
    bool literal = false;
    bool required = false;  // whether it is a failure that a pattern finds nothing
    Exclusions exclusions;  // their paths begin with that of a restore
    Selection selection;

    // Throws UsageError.
    std::vector<NamePattern> Patterns() const;
};

// PATH..., --exclude, --literal and --at, which is returned.
CLI::Option* AddChosen(CLI::App& command, Chosen& chosen, const char* description);

// Walks through what is chosen, each object once, though several paths choose it. above is the number of parts in front
// of a path that a restore leaves out. What fails is reported under the path.
using VisitChosen = std::function<bool(std::vector<StoredObject>& versions, const Parts& plain, size_t above)>;
void Walk(Context& context, Session& session, const Chosen& chosen, const VisitChosen& visit);

struct ChosenObject {
    StoredObject object;
    Parts local;  // the path that a restore gives it
};

// Works on many objects, so many at a time, in the order in which they were stored, which is that on the server's
// tapes.
class Batch {
public:
    using Work = std::function<void(Session&, Buffer&, const ChosenObject&)>;

    // Of less than 100 percent, each run chooses its objects at random.
    Batch(Context& context, Session& session, int jobs, Work work, long long percent = 100)
        : report_(context.report), work_(std::move(work)), percent_(percent), workers_(context, session, jobs) {}

    void Add(ChosenObject object) { objects_.push_back(std::move(object)); }
    bool IsFull() const { return objects_.size() >= most; }
    void Run(bool last);

    static constexpr size_t most = 10000;

private:
    Report& report_;
    const Work work_;
    const long long percent_;
    std::vector<ChosenObject> objects_;
    bool first_ = true;
    Workers workers_;  // ends before what it works on
};

}  // namespace tsmctl
