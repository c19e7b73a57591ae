#include "KeptDirectories.h"

#include <algorithm>

#include "Errors.h"
#include "Transfer.h"

namespace tsmctl {

void KeptDirectories::RememberAbove(const Parts& object) {
    for (const Parts& directory : DirectoriesAbove(object)) {
        for (StoredObject& stored : List(session_, NamePattern(directory, false), {})) {
            if (stored.directory && stored.info) directories_.push_back(std::move(stored));
        }
    }
}

void KeptDirectories::Restore(bool evenEmpty) {
    for (const StoredObject& directory : directories_) {
        const auto restore = [&] {
            const NamePattern pattern(directory.PlainParts(), false);
            const auto now = List(session_, pattern, {});
            const bool kept = std::any_of(now.begin(), now.end(),
                                          [](const auto& object) { return object.directory && bool(object.info); });
            if (kept) return;
            const bool inUse = evenEmpty || !now.empty() || !ListIn(session_, directory.StoredPath(), {}).empty();
            // Versions that are left below are found through the directory, even if it is not active.
            if (!inUse && ListIn(session_, directory.StoredPath(), {true, "", TSM_OBJECTS_ANY}).empty()) return;
            Upload(session_, {directory.path, directory.name}, 0, *directory.info, "", mgmtClass_).Commit();
            RequireStored(session_, directory.PlainParts(), true, directory.text);
            if (!inUse) DeleteObject(session_, directory, false, "");
        };
        try {
            session_.Retry(restore);
        } catch (const Failure& failure) {
            report_.Failed(directory.ObjectPath(), failure.what());
        }
    }
}

}  // namespace tsmctl
