// Directory objects that the library removes in passing, when a directory is empty for a moment, and creates again
// without their info.
#pragma once

#include <string>
#include <vector>

#include "Inventory.h"
#include "Report.h"

namespace tsmctl {

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

}  // namespace tsmctl
