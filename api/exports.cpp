// The exported storage functions: each hands its call to the registry.
#include <new>

#include "api/TsmApi.h"
#include "api/tsmconnector.h"

TsmApi* tsmApi = nullptr;

// The header's constants are the API's.
#define SAME_RESULT(name) static_assert(TSM_RESULT_##name == -DSM_RC_##name)
SAME_RESULT(ABORT_SYSTEM_ERROR);
SAME_RESULT(ABORT_NO_MATCH);
SAME_RESULT(NO_MEMORY);
SAME_RESULT(INVALID_PARM);
SAME_RESULT(NULL_OBJNAME);
SAME_RESULT(NULL_BUFPTR);
SAME_RESULT(INVALID_DS_HANDLE);
SAME_RESULT(BAD_CALL_SEQUENCE);
SAME_RESULT(FS_NOT_REGISTERED);
SAME_RESULT(STRING_TOO_LONG);
static_assert(TSM_LIMIT_PATH == DSM_MAX_HL_LENGTH && TSM_LIMIT_NAME == DSM_MAX_LL_LENGTH);
static_assert(TSM_LIMIT_FILESPACE == DSM_MAX_FSNAME_LENGTH);
static_assert(TSM_LIMIT_INIT_PATH < sizeof(envSetUp::dsmiConfig));

namespace {

constexpr int noSession = -DSM_RC_INVALID_DS_HANDLE;
constexpr int nowhereToWrite = -DSM_RC_NULL_BUFPTR;

// Only 1 means true.
bool Flag(int value) {
    return value == 1;
}

// Calls operation on the instance, where there is one.
template <class Operation>
auto WithApi(Operation operation) -> decltype(operation(*tsmApi)) {
    if (!tsmApi) return noSession;
    return operation(*tsmApi);
}

}  // namespace

int TsmInitApi(char* configFile, char* logDir, char* apiDir, char* applicationType) {
    if (tsmApi) {
        if (tsmApi->initialised) return -DSM_RC_BAD_CALL_SEQUENCE;
        TsmReleaseApi();
    }
    tsmApi = new (std::nothrow) TsmApi;
    if (!tsmApi) return -DSM_RC_NO_MEMORY;
    return tsmApi->InitTsmApi(configFile, logDir, apiDir, applicationType);
}

int TsmReleaseApi(void) {
    return WithApi([](TsmApi& api) {
        const int result = api.ReleaseTsmApi();
        delete tsmApi;
        tsmApi = nullptr;
        return result;
    });
}

int TsmOpenSession(char* nodeName, char* ownerName, char* password, char* options, char* extraString,
                   char* userPassword, char* dirDelimiter) {
    return WithApi([&](TsmApi& api) {
        return api.OpenSession(nodeName, ownerName, password, options, extraString, userPassword, dirDelimiter);
    });
}

int TsmCloseSession(int handle) {
    return WithApi([&](TsmApi& api) { return api.CloseSession(handle); });
}

int TsmConnectToFileSpace(int handle, char* name) {
    return WithApi([&](TsmApi& api) { return api.ConnectToFileSpace(handle, name); });
}

int TsmGetFileSpaces(int handle, char*** list) {
    if (!list) return nowhereToWrite;
    return WithApi([&](TsmApi& api) { return api.GetFileSpaces(handle, *list); });
}

int TsmEndGetFileSpaces(int handle) {
    return WithApi([&](TsmApi& api) { return api.EndGetFileSpaces(handle); });
}

int TsmDeleteFileSpace(int handle, char* name) {
    return WithApi([&](TsmApi& api) { return api.DeleteFileSpace(handle, name); });
}

int TsmGetMgmtClasses(int handle, char*** list) {
    if (!list) return nowhereToWrite;
    return WithApi([&](TsmApi& api) { return api.GetMgmtClasses(handle, *list); });
}

int TsmEndGetMgmtClasses(int handle) {
    return WithApi([&](TsmApi& api) { return api.EndGetMgmtClasses(handle); });
}

int TsmBeginBackup(int handle, char* path, char* name, long long size) {
    return TsmBeginBackupEx(handle, path, name, size, nullptr, nullptr);
}

int TsmBeginBackupEx(int handle, char* path, char* name, long long size, char* objInfo, char* mgmtClass) {
    return WithApi([&](TsmApi& api) { return api.BeginBackup(handle, path, name, size, objInfo, mgmtClass); });
}

int TsmSendData(int handle, unsigned char* buffer, int length) {
    return WithApi([&](TsmApi& api) { return api.SendData(handle, buffer, length); });
}

int TsmEndBackup(int handle) {
    return WithApi([&](TsmApi& api) { return api.EndBackup(handle); });
}

int TsmGetBackupInfo(int handle, char* path, char* name, int activeOnly, int objectType, TsmObject** objects) {
    if (!objects) return nowhereToWrite;
    return WithApi(
        [&](TsmApi& api) { return api.GetBackupInfo(handle, path, name, Flag(activeOnly), objectType, *objects); });
}

int TsmEndGetBackupInfo(int handle) {
    return WithApi([&](TsmApi& api) { return api.EndGetBackupInfo(handle); });
}

int TsmGetBackupInfoPointInTime(int handle, char* path, char* name, char* pointInTime, int objectType,
                                TsmObject** objects) {
    if (!objects) return nowhereToWrite;
    return WithApi(
        [&](TsmApi& api) { return api.GetBackupInfo(handle, path, name, pointInTime, objectType, *objects); });
}

int TsmEndGetBackupInfoPointInTime(int handle) {
    return TsmEndGetBackupInfo(handle);
}

long long TsmBeginRestore(int handle, char* path, char* name, char* pointInTime) {
    return WithApi([&](TsmApi& api) { return api.BeginRestore(handle, path, name, pointInTime); });
}

int TsmGetData(int handle, unsigned char** buffer, int size) {
    if (!buffer) return nowhereToWrite;
    return WithApi([&](TsmApi& api) { return api.GetData(handle, *buffer, size); });
}

int TsmEndRestore(int handle) {
    return WithApi([&](TsmApi& api) { return api.EndRestore(handle); });
}

int TsmDelete(int handle, char* path, char* name, int allVersions, char* pointInTime) {
    return WithApi([&](TsmApi& api) { return api.Delete(handle, path, name, Flag(allVersions), pointInTime); });
}

int TsmRenameBackup(int handle, const char* oldPath, const char* oldName, const char* newPath, const char* newName) {
    return WithApi([&](TsmApi& api) { return api.RenameBackup(handle, oldPath, oldName, newPath, newName); });
}

int TsmSetAccess(int handle, char* node, char* fileSpace, char* unused) {
    return WithApi([&](TsmApi& api) { return api.SetAccess(handle, node, fileSpace, unused); });
}
