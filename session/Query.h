// The query loop, and the query for stored versions: what listings, look-ups and deletions share.
#pragma once

#include "util/DsmApi.h"

namespace connector {

// Hands every response of the query that is under way to each(response), and returns the code that ended the loop.
// The caller ends the query, or does not, by that code; it is ended here only when each throws.
template <class Response, class Each>
dsInt16_t ForEachResponse(dsUint32_t handle, Response& response, Each each) {
    DataBlk block = {};
    block.stVersion = DataBlkVersion;
    block.bufferLen = sizeof response;
    block.bufferPtr = reinterpret_cast<char*>(&response);
    dsInt16_t rc;
    while ((rc = dsmGetNextQObj(handle, &block)) == DSM_RC_MORE_DATA) {
        try {
            each(response);
        } catch (...) {
            dsmEndQuery(handle);
            throw;
        }
    }
    return rc;
}

// A query for the versions of a name, which must live as long as the query does. A null pointInTime means no moment;
// of any other text as much is read as is a moment, and the rest of the moment is 0.
qryBackupData BackupQuery(dsmObjName& name, dsUint8_t objState, const char* pointInTime);

// What a backup query's responses are written into.
qryRespBackupData EmptyBackupResponse();

}  // namespace connector
