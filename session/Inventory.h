// The inventory query where another operation only has to know what exists.
#pragma once

#include "util/DsmApi.h"

class TsmSession;

namespace connector {

struct Existing {
    int count;         // of stored versions; negative: the query failed
    bool firstIsFile;  // false only when the first of them is a directory object
};

// Counts what is stored under pattern. Like a listing that is ended at once, it releases the records that the session
// still holds for the host.
Existing LookUpAndEndListing(TsmSession& session, dsUint32_t handle, dsmObjName& pattern, bool activeOnly);

}  // namespace connector
