// What is stored of the runs of backup over a tree, so that any host can ask for it; docs/tsmctl-format.md describes
// it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Inventory.h"

namespace tsmctl {

// Self is the record of a tree, Tree also those of trees below.
enum class Scope { Self, Tree };

struct RunRecord {
    Parts tree;           // plain object path
    long long begun = 0;  // the last run, in seconds since 1970; the same for the others
    long long ended = 0;
    std::optional<long long> failures;  // none before it has ended
    std::optional<long long> complete;  // the end of the last run without failures
};

// Of a tree, or also of those below; with all versions, also those that were removed. Throws Failure.
std::vector<RunRecord> FindRuns(Session& session, const Parts& tree, Scope scope, bool allVersions = false);
// Replaces the record of the same tree. Throws Failure.
void StoreRun(Session& session, const RunRecord& run, const std::string& mgmtClass);
// Of a tree and those below. Throws Failure.
void RemoveRuns(Session& session, const Parts& tree, bool allVersions);

}  // namespace tsmctl
