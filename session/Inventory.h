// The inventory query where another operation only has to know what exists.
#pragma once

#include "util/DsmApi.h"

class TsmSession;

namespace connector {

struct Existing {
    int count;         // of stored versions; negative: the query failed
    bool firstIsFile;  // false only when the first of them is a directory object
};

// Looks up what is stored under pattern, as a listing that the session ends at once: the records that a host still
// holds are released.
Existing LookUpAndEndListing(TsmSession& session, dsUint32_t handle, dsmObjName& pattern, bool activeOnly);

}  // namespace connector
