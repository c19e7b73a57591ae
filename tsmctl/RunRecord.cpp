#include "RunRecord.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "Errors.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

std::vector<StoredObject> ListRecords(Session& session, const Parts& tree, Scope scope, bool allVersions) {
    Selection records;
    records.allVersions = allVersions;
    records.runs = true;
    const NamePattern pattern(Append({runsFolder}, tree), false);
    if (scope == Scope::Self) return List(session, pattern, records);
    std::vector<StoredObject> found;
    Walk(session, pattern, records, [&](std::vector<StoredObject>& versions, const Parts&) {
        std::move(versions.begin(), versions.end(), std::back_inserter(found));
        return true;
    });
    return found;
}

}  // namespace

std::vector<RunRecord> FindRuns(Session& session, const Parts& tree, Scope scope, bool allVersions) {
    std::vector<RunRecord> runs;
    for (const StoredObject& object : ListRecords(session, tree, scope, allVersions)) {
        if (!object.info) continue;  // a directory above
        const Parts parts = object.PlainParts();
        const Info& info = *object.info;
        runs.push_back({Parts(parts.begin() + 1, parts.end()), info.ctime.tv_sec, info.mtime.tv_sec,
                        ParseNumber(FieldOf(info.fields, "failures")), ParseNumber(FieldOf(info.fields, "complete"))});
    }
    return runs;
}

void StoreRun(Session& session, const RunRecord& run, const std::string& mgmtClass) {
    Parts stored = {runsFolder};
    for (const std::string& part : run.tree) stored.push_back(Escape(part));
    Info info;
    info.kind = Kind::Directory;
    info.mode = 0700;
    info.size = 0;
    info.uid = geteuid();
    info.gid = getegid();
    info.ctime.tv_sec = run.begun;
    info.mtime.tv_sec = run.ended;
    if (run.failures) AddField(info.fields, "failures", std::to_string(*run.failures));
    if (run.complete) AddField(info.fields, "complete", std::to_string(*run.complete));
    session.Retry([&] {
        Upload upload(session, ToStoredRaw(stored), 0, info, "", mgmtClass);
        upload.Commit();
        const auto now = ListRecords(session, run.tree, Scope::Self, false);
        const bool isThere =
            std::any_of(now.begin(), now.end(), [&](const auto& object) { return object.text == upload.InfoText(); });
        if (!isThere) throw PassingFailure(notStored);
    });
}

void RemoveRuns(Session& session, const Parts& tree, bool allVersions) {
    // The library removes the directories that become empty, and these may be records, too.
    std::vector<RunRecord> above;
    for (Parts parts = tree; !parts.empty();) {
        parts.pop_back();
        for (RunRecord& record : FindRuns(session, parts, Scope::Self)) above.push_back(std::move(record));
    }
    std::vector<StoredObject> records = ListRecords(session, tree, Scope::Tree, allVersions);
    std::reverse(records.begin(), records.end());  // what a directory holds comes first
    std::set<std::string> removed;
    for (const StoredObject& record : records) {
        if (record.info && removed.insert(record.StoredPath()).second) DeleteObject(session, record, allVersions, "");
    }
    for (const RunRecord& record : above) {
        if (FindRuns(session, record.tree, Scope::Self).empty()) StoreRun(session, record, "");
    }
}

}  // namespace tsmctl
