// Reads files, links, directories and standard input, and stores each as an object.
#pragma once

#include <optional>
#include <string>

#include "Connection.h"
#include "Files.h"
#include "Inventory.h"
#include "LocalTree.h"

namespace tsmctl {

// Stores the item as it is when it is opened. A file that changes while it is read is read again, and fails after some
// tries. Puts the information text into text before anything is committed under it. Throws Failure.
void StoreItem(Session& session, Buffer& buffer, const LocalItem& item, const std::string& mgmtClass, std::string& text,
               Report& report);

// In bytes, as the user knows it.
struct StreamSize {
    std::optional<long long> exact;
    std::optional<long long> estimate;
};
// Stores standard input. Without an exact size, what fits into a buffer is announced exactly, and anything longer by
// the estimate, or by what is known of the last version. Throws Failure.
void StoreStream(Session& session, const Parts& object, const StreamSize& size, const std::string& mgmtClass,
                 const std::optional<StoredObject>& last, Report& report);

}  // namespace tsmctl
