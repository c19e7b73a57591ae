// The query loop, the backup query and its moment: what all listings, look-ups and deletions share.
#ifndef SESSION_QUERY_H
#define SESSION_QUERY_H

#include "util/DsmApi.h"

// Hands every response of the query that is under way to each(response), and returns the code that ended the
// loop. Ending the query is the caller's, by that code; only when each throws it is ended here.
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

// A backup query for name, which must live as long as the query; a null pointInTime leaves the moment out.
// The text is read as far as it goes; parts that are not reached are 0.
qryBackupData BackupQuery(dsmObjName& name, dsUint8_t objState, const char* pointInTime);

// An empty response buffer for a backup query.
void Prepare(qryRespBackupData& response);

#endif
