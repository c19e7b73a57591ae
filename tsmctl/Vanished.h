// Makes stored objects inactive that the local tree does not have any more, and keeps directories that are to stay.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Inventory.h"
#include "LocalTree.h"
#include "Report.h"

namespace tsmctl {

// Directory objects that the library removes in passing, when a directory is empty for a moment, and creates again
// without their info.
class KeptDirectories {
public:
    KeptDirectories(Session& session, Report& report, std::string mgmtClass)
        : session_(session), report_(report), mgmtClass_(std::move(mgmtClass)) {}

    // Takes the infos of the directories above the object (plain parts) down. Throws Failure.
    void Remember(StoredObject directory) { directories_.push_back(std::move(directory)); }
    void RememberAbove(const Parts& object);
    // Stores what has gone or lost its info again, also after a signal; what fails is reported. Without evenEmpty, a
    // directory that holds nothing any more is left as it is.
    void Restore(bool evenEmpty);

private:
    Session& session_;
    Report& report_;
    const std::string mgmtClass_;
    std::vector<StoredObject> directories_;
};

// Stored by backup from a local tree: not a stream, nor the object of another program.
bool IsFromTree(const StoredObject& object);

void WarnOfOtherKind(Report& report, const LocalItem& item);

class Vanished {
public:
    // keep says what stays (plain parts, whether it is a directory).
    Vanished(Session& session, Report& report, std::function<bool(const Parts&, bool)> keep, std::string mgmtClass)
        : session_(session), report_(report), keep_(std::move(keep)), mgmtClass_(std::move(mgmtClass)) {}

    // What has to go from one directory; of the replaced items the objects of the other kind do. The new is stored
    // already, and no other session is at work: when a directory becomes empty, the library removes it by its name,
    // with everything of that name, and so on towards the top. What should stay is stored again at once. othersStay
    // says that the directory does not become empty. Files with the names of directories above, of which there are up
    // to depth, are not put at risk: that fails before anything is done. Returns the number of objects that have gone.
    long long Remove(const Parts& folder, const StoredFolder& gone, const std::vector<LocalItem>& replaced,
                     bool othersStay, size_t depth);

private:
    bool RemoveEntries(const Parts& folder, const StoredFolder& entries);
    void RemoveEntry(const Parts& object, const StoredPair& stored);
    void RemoveOtherKind(const Parts& object, bool isDirectory);
    void CountOtherKind(const Parts& object, bool isDirectory);
    void CheckReplaced(const Parts& object, const LocalItem& item);

    Session& session_;
    Report& report_;
    const std::function<bool(const Parts&, bool)> keep_;
    const std::string mgmtClass_;
    std::set<Parts> tried_;
    long long gone_ = 0;
};

}  // namespace tsmctl
