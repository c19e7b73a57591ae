#include "api/TsmApi.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "session/NameList.h"
#include "session/Result.h"
#include "session/TsmSession.h"

namespace {

// Holds the registry's mutex. A lock or unlock that fails has printed its message and is otherwise passed over.
class Lock {
public:
    explicit Lock(pthread_mutex_t& held) : mutex(held) { dpsMutexLock(&mutex); }
    ~Lock() { dpsMutexUnlock(&mutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    pthread_mutex_t& mutex;
};

// Copies text into a zeroed field. False when it does not fit.
template <std::size_t FieldSize>
bool CopyField(char (&field)[FieldSize], const char* text) {
    if (text == nullptr) return true;
    const std::size_t length = strnlen(text, FieldSize);
    if (length == FieldSize) return false;
    std::memcpy(field, text, length);
    return true;
}

}  // namespace

TsmApi::TsmApi() = default;
TsmApi::~TsmApi() = default;

template <class... Parameters, class Result, class... Arguments>
Result TsmApi::Forward(int handle, Result (TsmSession::*operation)(Parameters...), Arguments&&... arguments) {
    TsmSession* session;
    {
        const Lock lock(mutex);
        if (recent == nullptr || recentHandle != handle) {
            const auto found = sessions.find(handle);
            if (found == sessions.end()) return -DSM_RC_INVALID_DS_HANDLE;
            recent = found->second;
            recentHandle = handle;
        }
        session = recent;
    }
    return (session->*operation)(arguments...);
}

int TsmApi::InitTsmApi(char* configFile, char* logDir, char* apiDir, char* applicationTypeArg) {
    if (dpsMutexInit(&mutex) != 0) std::exit(0);
    return NoThrow([&] {
        envSetUp setUp = {};
        setUp.stVersion = 4;
        if (!CopyField(setUp.dsmiConfig, configFile) || !CopyField(setUp.dsmiDir, apiDir) ||
            !CopyField(setUp.dsmiLog, logDir) ||
            !CopyField(setUp.logName, logDir == nullptr ? nullptr : "dsierror.log")) {
            return -DSM_RC_STRING_TOO_LONG;
        }
        // Copied before the set-up, so that want of memory leaves nothing to undo.
        std::unique_ptr<char[]> type(
            applicationTypeArg == nullptr ? nullptr : CopyText(applicationTypeArg, std::strlen(applicationTypeArg)));
        if (const dsInt16_t rc = dsmSetUp(DSM_MULTITHREAD, &setUp)) {
            dsmCleanUp(DSM_MULTITHREAD);
            return -static_cast<int>(rc);
        }
        apiVersion.stVersion = 0;
        apiVersion.version = 0;
        apiVersion.release = 0;
        dsmQueryApiVersionEx(&apiVersion);
        applicationType = type.release();
        initialised = true;
        return 0;
    });
}

int TsmApi::OpenSession(char* nodeName, char* ownerName, char* password, char* options, char* extraString,
                        char* userPassword, char* dirDelimiter) {
    if (!initialised) return -DSM_RC_BAD_CALL_SEQUENCE;
    const Lock lock(mutex);
    return NoThrow([&] {
        // The table's entry is allocated before the sign-on, so that no session is signed on and then not kept.
        auto session = std::make_unique<TsmSession>();
        std::map<int, TsmSession*> staging{{0, session.get()}};
        auto entry = staging.extract(staging.begin());
        const int handle = session->OpenSession(nodeName, ownerName, password, options, extraString, userPassword,
                                                dirDelimiter, applicationType, apiVersion);
        if (handle <= 0) return handle;
        // The API gave the handle out anew: whatever stands under it is no session any more.
        const auto stale = sessions.find(handle);
        if (stale != sessions.end()) {
            recent = nullptr;
            delete stale->second;
            sessions.erase(stale);
        }
        entry.key() = handle;
        sessions.insert(std::move(entry));
        session.release();
        return handle;
    });
}

int TsmApi::CloseSession(int handle) {
    const Lock lock(mutex);
    const auto found = sessions.find(handle);
    if (found == sessions.end()) return 0;
    recent = nullptr;
    const int result = found->second->CloseSession();
    delete found->second;
    sessions.erase(found);
    return result;
}

int TsmApi::ReleaseTsmApi() {
    {
        const Lock lock(mutex);
        for (const auto& entry : sessions) {
            entry.second->CloseSession();
            delete entry.second;
        }
        sessions.clear();
        recent = nullptr;
    }
    dpsMutexDestroy(&mutex);
    delete[] applicationType;
    applicationType = nullptr;
    initialised = false;
    return dsmCleanUp(DSM_MULTITHREAD);
}

int TsmApi::ConnectToFileSpace(int handle, char* name) {
    return Forward(handle, &TsmSession::ConnectToFileSpace, name);
}

int TsmApi::GetFileSpaces(int handle, char**& list) {
    return Forward(handle, &TsmSession::GetFileSpaces, list);
}

int TsmApi::EndGetFileSpaces(int handle) {
    return Forward(handle, &TsmSession::EndGetFileSpaces);
}

int TsmApi::DeleteFileSpace(int handle, char* name) {
    return Forward(handle, &TsmSession::DeleteFileSpace, name);
}

int TsmApi::SetAccess(int handle, char* node, char* fileSpace, char* unused) {
    return Forward(handle, &TsmSession::SetAccess, node, fileSpace, unused);
}

int TsmApi::GetMgmtClasses(int handle, char**& list) {
    return Forward(handle, &TsmSession::GetMgmtClasses, list);
}

int TsmApi::EndGetMgmtClasses(int handle) {
    return Forward(handle, &TsmSession::EndGetMgmtClasses);
}

int TsmApi::BeginBackup(int handle, char* path, char* name, long long size, char* objInfo, char* mgmtClass) {
    return Forward(handle, &TsmSession::BeginBackup, path, name, size, objInfo, mgmtClass);
}

int TsmApi::SendData(int handle, unsigned char* buffer, int length) {
    return Forward(handle, &TsmSession::SendData, buffer, length);
}

int TsmApi::EndBackup(int handle) {
    return Forward(handle, &TsmSession::EndBackup);
}

int TsmApi::GetBackupInfo(int handle, char* path, char* name, bool activeOnly, int objectType, TsmObject*& objects) {
    return Forward<char*, char*, bool, int, TsmObject*&>(handle, &TsmSession::GetBackupInfo, path, name, activeOnly,
                                                         objectType, objects);
}

int TsmApi::GetBackupInfo(int handle, char* path, char* name, char* pointInTime, int objectType, TsmObject*& objects) {
    return Forward<char*, char*, char*, int, TsmObject*&>(handle, &TsmSession::GetBackupInfo, path, name, pointInTime,
                                                          objectType, objects);
}

int TsmApi::EndGetBackupInfo(int handle) {
    return Forward(handle, &TsmSession::EndGetBackupInfo);
}

long long TsmApi::BeginRestore(int handle, char* path, char* name, char* pointInTime) {
    return Forward(handle, &TsmSession::BeginRestore, path, name, pointInTime);
}

int TsmApi::GetData(int handle, unsigned char*& buffer, int size) {
    return Forward(handle, &TsmSession::GetData, buffer, size);
}

int TsmApi::EndRestore(int handle) {
    return Forward(handle, &TsmSession::EndRestore);
}

int TsmApi::Delete(int handle, char* path, char* name, bool allVersions, char* pointInTime) {
    return Forward(handle, &TsmSession::Delete, path, name, allVersions, pointInTime);
}

int TsmApi::RenameBackup(int handle, const char* oldPath, const char* oldName, const char* newPath,
                         const char* newName) {
    return Forward(handle, &TsmSession::RenameBackup, oldPath, oldName, newPath, newName);
}
