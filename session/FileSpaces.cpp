// The session's filespace, and the node's filespaces.
#include <cstring>
#include <memory>
#include <string>

#include "session/NameQuery.h"
#include "session/ObjectName.h"
#include "session/TsmSession.h"

static_assert(sizeof(qryRespFSData) == 1672, "the API's headers are not those of the answers expected");

int TsmSession::ConnectToFileSpace(char* name) {
    if (name == nullptr) return -DSM_RC_NULL_OBJNAME;
    return NoThrow([&] {
        const std::string full = Rewritten(Under(name, dirDelimiter), dirDelimiter).Text();
        if (full.size() > DSM_MAX_FSNAME_LENGTH) return -DSM_RC_STRING_TOO_LONG;
        char* copy = CopyText(full.data(), full.size());
        delete[] fileSpaceName;
        fileSpaceName = copy;
        char type[] = "NTFS";
        char info[] = "FS-INFO";
        return _RegisterFileSpace(fileSpaceName, type, info, 'C');
    });
}

int TsmSession::_RegisterFileSpace(char* fsName, char* fsType, char* fsInfo, char /*c*/) {
    const std::size_t infoLength = std::strlen(fsInfo) + 1;
    if (infoLength > DSM_MAX_FSINFO_LENGTH) return -DSM_RC_STRING_TOO_LONG;
    return NoThrow([&] {
        const std::unique_ptr<char[]> name(CopyText(fsName, std::strlen(fsName)));
        const std::unique_ptr<char[]> type(CopyText(fsType, std::strlen(fsType)));
        regFSData data = {};
        data.stVersion = regFSDataVersion;
        data.fsName = name.get();
        data.fsType = type.get();
        data.fsAttr.unixFSAttr.fsInfoLength = static_cast<dsUint16_t>(infoLength);
        std::memcpy(data.fsAttr.unixFSAttr.fsInfo, fsInfo, infoLength);
        const dsInt16_t rc = dsmRegisterFS(handle, &data);
        return rc == DSM_RC_FS_ALREADY_REGED ? 0 : Negated(rc);
    });
}

int TsmSession::GetFileSpaces(char**& list) {
    EndGetFileSpaces();
    return NoThrow([&] {
        char all[] = "*";
        qryFSData query = {};
        query.stVersion = qryFSDataVersion;
        query.fsName = all;
        qryRespFSData response = {};
        response.stVersion = 4;
        // A name without even its delimiter is not a filespace that anyone could connect to.
        const auto take = [](const qryRespFSData& found, std::vector<std::string>& names) {
            const std::size_t length = strnlen(found.fsName, sizeof found.fsName);
            if (length > 0) names.emplace_back(found.fsName + 1, length - 1);
        };
        return QueryNames(handle, qtFilespace, &query, response, -DSM_RC_ABORT_NO_MATCH, take, fileSpaceList,
                          fileSpaceCount, list);
    });
}

int TsmSession::EndGetFileSpaces() {
    ReleaseNames(fileSpaceList, fileSpaceCount);
    return 0;
}

int TsmSession::DeleteFileSpace(char* name) {
    if (name == nullptr) return -DSM_RC_NULL_OBJNAME;
    return NoThrow([&] {
        std::string full = Under(name, dirDelimiter).Text();
        if (full.size() > DSM_MAX_FSNAME_LENGTH) return -DSM_RC_STRING_TOO_LONG;
        return Negated(dsmDeleteFS(handle, full.data(), DSM_REPOS_ALL));
    });
}

int TsmSession::SetAccess(char* node, char* fileSpace, char* /*unused*/) {
    if (node == nullptr || fileSpace == nullptr) return -DSM_RC_NULL_OBJNAME;
    return NoThrow([&] {
        dsmObjName name;
        if (const int refused = FillObjectName(name, fileSpace, "\\", "*", DSM_OBJ_FILE)) return refused;
        return Negated(dsmSetAccess(handle, atBackup, &name, node, nullptr));
    });
}
