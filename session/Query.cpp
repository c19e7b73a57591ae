#include "session/Query.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

static_assert(sizeof(qryRespBackupData) == 4600 && offsetof(qryRespBackupData, objInfo) == 3064,
              "the API's headers have another layout than its answers");

namespace connector {

qryBackupData BackupQuery(dsmObjName& name, dsUint8_t objState, const char* pointInTime) {
    qryBackupData query = {};
    query.stVersion = 2;
    query.objName = &name;
    query.objState = objState;
    if (pointInTime) {
        int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
        std::sscanf(pointInTime, "%4d-%2d-%2d %2d:%2d:%2d", &year, &month, &day, &hour, &minute, &second);
        query.pitDate.year = static_cast<dsUint16_t>(year);
        query.pitDate.month = static_cast<dsUint8_t>(month);
        query.pitDate.day = static_cast<dsUint8_t>(day);
        query.pitDate.hour = static_cast<dsUint8_t>(hour);
        query.pitDate.minute = static_cast<dsUint8_t>(minute);
        query.pitDate.second = static_cast<dsUint8_t>(second);
    }
    return query;
}

qryRespBackupData EmptyBackupResponse() {
    qryRespBackupData response;
    std::memset(&response, 0, sizeof response);
    response.stVersion = 8;
    return response;
}

}  // namespace connector
