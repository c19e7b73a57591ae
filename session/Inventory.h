// The inventory query, for listings that keep what they find and for tests that only count it.
#ifndef SESSION_INVENTORY_H
#define SESSION_INVENTORY_H

#include "session/Query.h"
#include "session/Result.h"

// Runs the query for pattern and hands every response to each(response); begun() is called once it has begun.
// Returns 0 when it went through and was ended, otherwise a negative result.
template <class Begun, class Each>
int RunInventory(dsUint32_t handle, dsmObjName& pattern, bool activeOnly, const char* pointInTime, Begun begun,
                 Each each) {
    const bool current = activeOnly && pointInTime == nullptr;
    qryBackupData query = BackupQuery(pattern, current ? DSM_ACTIVE : DSM_ANY_MATCH, pointInTime);
    qryRespBackupData response;
    Prepare(response);
    if (const dsInt16_t rc = dsmBeginQuery(handle, qtBackup, &query)) return Negated(rc);
    begun();
    const dsInt16_t end = ForEachResponse(handle, response, each);
    if (end != DSM_RC_FINISHED && end != DSM_RC_ABORT_NO_MATCH) return NegatedUnexpected(end);
    return Negated(dsmEndQuery(handle));
}

// How many objects the query finds, none of which is kept; firstIsFile tells the kind of the first, and stays as it
// is when there is none. Negative when the query fails.
int CountObjects(dsUint32_t handle, dsmObjName& pattern, bool activeOnly, bool* firstIsFile = nullptr);

#endif
