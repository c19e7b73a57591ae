// The fields of the API's records that a recording holds, for the visitors of tables/calls.def. Fields that later
// versions of a record added are left out: the caller may have been compiled with a shorter one.
#pragma once

#include <type_traits>

#pragma GCC visibility push(default)
// clang-format off
#include "dsmapitd.h"
#include "dsmapifp.h"
#include "dsmrc.h"
// clang-format on
#pragma GCC visibility pop

namespace trace {

// An argument without the const that some headers have and others have not.
template <class T>
T Plain(T value) {
    return value;
}
template <class T>
T* Plain(const T* pointer) {
    return const_cast<T*>(pointer);
}

// FIELDS(record, field, ...): r is the record, v the visitor.
#define FIELDS(record, ...)        \
    template <class V>             \
    void Fields(V& v, record& r) { \
        __VA_ARGS__;               \
    }

FIELDS(dsmApiVersionEx, v("version", r.version), v("release", r.release), v("level", r.level),
       v("subLevel", r.subLevel))

FIELDS(envSetUp, v("v", r.stVersion), v("dir", r.dsmiDir), v("config", r.dsmiConfig), v("log", r.dsmiLog),
       v("logName", r.logName))

// An options string may hold a password.
FIELDS(dsmInitExIn_t, v("v", r.stVersion), v("node", r.clientNodeNameP), v("owner", r.clientOwnerNameP),
       v.Secret("password", r.clientPasswordP), v("user", r.userNameP), v.Secret("userPassword", r.userPasswordP),
       v("application", r.applicationTypeP), v("configFile", r.configfile), v.Secret("options", r.options),
       v("delimiter", r.dirDelimiter))

FIELDS(dsmInitExOut_t, v("infoRC", r.infoRC), v("server", r.adsmServerName), v("version", r.serverVer),
       v("release", r.serverRel), v("level", r.serverLev), v("subLevel", r.serverSubLev))

FIELDS(dsmObjName, v("fs", r.fs), v("hl", r.hl), v("ll", r.ll), v("kind", r.objType))

FIELDS(regFSData, v("v", r.stVersion), v("fs", r.fsName), v("fsType", r.fsType), v("occupancy", r.occupancy),
       v("capacity", r.capacity), v("info", r.fsAttr.unixFSAttr.fsInfoLength))

FIELDS(qryFSData, v("v", r.stVersion), v("fs", r.fsName))

FIELDS(qryRespFSData, v("fs", r.fsName), v("fsType", r.fsType), v("occupancy", r.occupancy), v("capacity", r.capacity),
       v("begun", r.backStartDate), v("completed", r.backCompleteDate))

FIELDS(qryMCData, v("v", r.stVersion), v("class", r.mcName), v("detail", r.mcDetail))

FIELDS(qryRespMCData, v("class", r.mcName), v("text", r.mcDesc))

FIELDS(qryBackupData, v("v", r.stVersion), v("name", r.objName), v("owner", r.owner), v("state", r.objState),
       r.stVersion >= 2 ? v("moment", r.pitDate) : void())

// The information is the host's own text: its length alone.
FIELDS(qryRespBackupData, v("name", r.objName), v("group", r.copyGroup), v("class", r.mcName), v("owner", r.owner),
       v("id", r.objId), v("media", r.mediaClass), v("state", r.objState), v("stored", r.insDate),
       v("ended", r.expDate), v("info", r.objInfolen), v("size", r.sizeEstimate))

FIELDS(mcBindKey, v("class", r.mcName), v("backup", r.backup_cg_exists), v("destination", r.backup_copy_dest))

FIELDS(ObjAttr, v("v", r.stVersion), v("owner", r.owner), v("size", r.sizeEstimate), v("compressed", r.objCompressed),
       v.Blank("info", r.objInfo, r.objInfoLength), v("class", r.mcNameP))

FIELDS(DataBlk, v("v", r.stVersion), v.Blank("offered", r.bufferPtr, r.bufferLen))

// Callers of the version for whole objects need not set the ranges.
FIELDS(dsmGetList, v("v", r.stVersion), v.Ids("ids", r.objId, r.numObjId),
       r.stVersion > 2 ? v.Parts("parts", r.partialObjData, r.numObjId) : void())

FIELDS(delBack, v("v", r.stVersion), v("name", r.objNameP), v("group", r.copyGroup))

FIELDS(delBackID, v("v", r.stVersion), v("id", r.objId))

FIELDS(dsmRenameIn_t, v("v", r.stVersion), v.Handle(r.dsmHandle), v("repository", r.repository), v("name", r.objNameP),
       v("hl", r.newHl), v("ll", r.newLl), v("merge", r.merge), v("id", r.objId))

template <class V>
void Fields(V&, dsmRenameOut_t&) {}

#undef FIELDS

// Gives the question of a query its type. Questions of other types are not looked into.
template <class V, class Buffer>
void DescribeQuery(V& v, dsmQueryType type, Buffer*& query) {
    const auto as = [&](auto* question) {
        question = static_cast<decltype(question)>(query);
        v.In("query", question);
        query = question;
    };
    if (type == qtBackup) as(static_cast<qryBackupData*>(nullptr));
    if (type == qtFilespace) as(static_cast<qryFSData*>(nullptr));
    if (type == qtMC) as(static_cast<qryMCData*>(nullptr));
}

template <class V>
void DescribeDeletion(V& v, dsmDelType type, dsmDelInfo& info) {
    if (type == dtBackup) v.In("what", info.backInfo);
    if (type == dtBackupID) v.In("what", info.backIDInfo);
}

}  // namespace trace
