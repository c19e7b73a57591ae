// The session's filespace, and the node's filespaces.
#include <cstring>
#include <memory>
#include <string>

#include "session/NameQuery.h"
#include "session/ObjectName.h"
#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/Text.h"

using namespace connector;

static_assert(sizeof(qryRespFSData) == 1672, "the API's headers have another layout than its answers");

int TsmSession::ConnectToFileSpace(char* name) try {
    if (!name) return -DSM_RC_NULL_OBJNAME;
    const std::string full = WithSlashesRewritten(NameAsGiven(name, dirDelimiter), dirDelimiter);
    if (full.size() > DSM_MAX_FSNAME_LENGTH) return -DSM_RC_STRING_TOO_LONG;
    char* const copy = NewCopy(full.c_str());
    if (!copy) return -DSM_RC_NO_MEMORY;
    delete[] fileSpaceName;
    fileSpaceName = copy;
    char type[] = "NTFS";
    char info[] = "FS-INFO";
    return _RegisterFileSpace(fileSpaceName, type, info, 'C');
} catch (...) {
    return CaughtResult();
}

int TsmSession::_RegisterFileSpace(char* fsName, char* fsType, char* fsInfo, char /*c*/) {
    regFSData data = {};
    data.stVersion = regFSDataVersion;
    if (!CopyIfItFits(data.fsAttr.unixFSAttr.fsInfo, fsInfo)) return -DSM_RC_STRING_TOO_LONG;
    data.fsAttr.unixFSAttr.fsInfoLength = static_cast<dsUint16_t>(std::strlen(fsInfo) + 1);
    const std::unique_ptr<char[]> name(NewCopy(fsName));
    const std::unique_ptr<char[]> type(NewCopy(fsType));
    if (!name || !type) return -DSM_RC_NO_MEMORY;
    data.fsName = name.get();
    data.fsType = type.get();
    const dsInt16_t rc = dsmRegisterFS(handle, &data);
    return rc == DSM_RC_FS_ALREADY_REGED ? 0 : Negated(rc);
}

int TsmSession::GetFileSpaces(char**& list) {
    EndGetFileSpaces();
    char all[] = "*";
    qryFSData query = {};
    query.stVersion = qryFSDataVersion;
    query.fsName = all;
    qryRespFSData response = {};
    response.stVersion = 4;
    const auto take = [](const qryRespFSData& found, std::vector<std::string>& names) {
        // Every name begins with a delimiter. No host can connect to an empty one.
        const std::size_t length = strnlen(found.fsName, sizeof found.fsName);
        if (length > 0) names.emplace_back(found.fsName + 1, length - 1);
    };
    return ListNames(handle, {qtFilespace, &query, -DSM_RC_ABORT_NO_MATCH}, response, take,
                     {fileSpaceList, fileSpaceCount}, list);
}

int TsmSession::EndGetFileSpaces() {
    ReleaseNames({fileSpaceList, fileSpaceCount});
    return 0;
}

int TsmSession::DeleteFileSpace(char* name) try {
    if (!name) return -DSM_RC_NULL_OBJNAME;
    std::string full = NameAsGiven(name, dirDelimiter);
    if (full.size() > DSM_MAX_FSNAME_LENGTH) return -DSM_RC_STRING_TOO_LONG;
    return Negated(dsmDeleteFS(handle, full.data(), DSM_REPOS_ALL));
} catch (...) {
    return CaughtResult();
}

int TsmSession::SetAccess(char* node, char* fileSpace, char* /*unused*/) {
    if (!node || !fileSpace) return -DSM_RC_NULL_OBJNAME;
    dsmObjName name;
    if (const int refused = FillObjectName(name, fileSpace, "\\", "*", DSM_OBJ_FILE)) return refused;
    return Negated(dsmSetAccess(handle, atBackup, &name, node, nullptr));
}
