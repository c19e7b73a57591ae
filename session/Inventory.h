// The inventory query, for listings that keep what they find and for tests that only count it.
#ifndef SESSION_INVENTORY_H
#define SESSION_INVENTORY_H

#include "api/tsmconnector.h"
#include "session/ObjectName.h"
#include "session/Query.h"
#include "session/Result.h"

// Where a session looks: its handle and its filespace (null: none connected).
struct Place {
    dsUint32_t handle;
    const char* fs;
};

// Runs the query and hands every response to each(response); begun() is called once it has begun. Returns 0 when it
// went through and was ended, otherwise a negative result.
template <class Begun, class Each>
int RunInventory(const Place& place, const NamePart& hl, const NamePart& ll, bool activeOnly, const char* pointInTime,
                 int objectType, Begun begun, Each each) {
    const dsUint8_t objType = objectType == TSM_OBJECTS_ANY           ? DSM_OBJ_ANY_TYPE
                              : objectType == TSM_OBJECTS_DIRECTORIES ? DSM_OBJ_DIRECTORY
                                                                      : DSM_OBJ_FILE;
    dsmObjName pattern;
    if (const int refused = FillObjectName(pattern, place.fs, hl, ll, objType)) return refused;
    const bool current = activeOnly && pointInTime == nullptr;
    qryBackupData query = BackupQuery(pattern, current ? DSM_ACTIVE : DSM_ANY_MATCH, pointInTime);
    qryRespBackupData response;
    Prepare(response);
    if (const dsInt16_t rc = dsmBeginQuery(place.handle, qtBackup, &query)) return Negated(rc);
    begun();
    const dsInt16_t end = ForEachResponse(place.handle, response, each);
    if (end != DSM_RC_FINISHED && end != DSM_RC_ABORT_NO_MATCH) return NegatedUnexpected(end);
    return Negated(dsmEndQuery(place.handle));
}

// How many objects the query finds, none of which is kept; firstIsFile tells the kind of the first, and stays as it
// is when there is none. Negative when the query fails.
int CountObjects(const Place& place, const NamePart& hl, const NamePart& ll, bool activeOnly, int objectType,
                 bool* firstIsFile = nullptr);

#endif
