/*
 * dsmapifp.h - function prototypes of the TSM client API.
 *
 * Every function that returns dsInt16_t answers with a code of dsmrc.h.
 */
#ifndef DSMAPIFP_H
#define DSMAPIFP_H

#include "dsmapitd.h"

#ifdef __cplusplus
extern "C" {
#endif

void dsmQueryApiVersionEx(dsmApiVersionEx* version);
dsInt16_t dsmSetUp(dsBool_t mtFlag, envSetUp* setUp);
dsInt16_t dsmCleanUp(dsBool_t mtFlag);

dsInt16_t dsmInitEx(dsUint32_t* handle, dsmInitExIn_t* in, dsmInitExOut_t* out);
dsInt16_t dsmTerminate(dsUint32_t handle);
dsInt16_t dsmRCMsg(dsUint32_t handle, dsInt16_t rc, char* msg);

dsInt16_t dsmRegisterFS(dsUint32_t handle, regFSData* data);
dsInt16_t dsmDeleteFS(dsUint32_t handle, char* fsName, dsUint8_t repository);
dsInt16_t dsmSetAccess(dsUint32_t handle, dsmAccessType type, dsmObjName* name, char* node, char* owner);

dsInt16_t dsmBeginQuery(dsUint32_t handle, dsmQueryType type, dsmQueryBuff* what);
dsInt16_t dsmGetNextQObj(dsUint32_t handle, DataBlk* block);
dsInt16_t dsmEndQuery(dsUint32_t handle);

dsInt16_t dsmBindMC(dsUint32_t handle, dsmObjName* name, dsmSendType type, mcBindKey* key);
dsInt16_t dsmBeginTxn(dsUint32_t handle);
dsInt16_t dsmEndTxn(dsUint32_t handle, dsUint8_t vote, dsUint16_t* reason);

dsInt16_t dsmSendObj(dsUint32_t handle, dsmSendType type, void* sendBuff, dsmObjName* name, ObjAttr* attr,
                     DataBlk* block);
dsInt16_t dsmSendData(dsUint32_t handle, DataBlk* block);
dsInt16_t dsmEndSendObj(dsUint32_t handle);

dsInt16_t dsmBeginGetData(dsUint32_t handle, dsBool_t mountWait, dsmGetType type, dsmGetList* list);
dsInt16_t dsmGetObj(dsUint32_t handle, ObjID* objId, DataBlk* block);
dsInt16_t dsmGetData(dsUint32_t handle, DataBlk* block);
dsInt16_t dsmEndGetObj(dsUint32_t handle);
dsInt16_t dsmEndGetData(dsUint32_t handle);

dsInt16_t dsmDeleteObj(dsUint32_t handle, dsmDelType type, dsmDelInfo info);
dsInt16_t dsmRenameObj(dsmRenameIn_t* in, dsmRenameOut_t* out);

#ifdef __cplusplus
}
#endif

#endif
