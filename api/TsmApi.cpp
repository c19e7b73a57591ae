#include "api/TsmApi.h"

#include <cstdlib>
#include <memory>

#include "session/Result.h"
#include "session/TsmSession.h"
#include "util/Text.h"

using namespace connector;

namespace {

// Holds the registry's mutex. A lock or unlock that fails prints its message and is otherwise ignored.
class Lock {
public:
    explicit Lock(pthread_mutex_t& mutex) : mutex_(mutex) { dpsMutexLock(&mutex_); }
    ~Lock() { dpsMutexUnlock(&mutex_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    pthread_mutex_t& mutex_;
};

}  // namespace

TsmApi::TsmApi() = default;
TsmApi::~TsmApi() = default;

template <class Operation>
std::invoke_result_t<Operation, TsmSession&> TsmApi::WithSession(int handle, Operation operation) {
    TsmSession* session;
    {
        const Lock lock(mutex);
        const auto found = sessions.find(handle);
        if (found == sessions.end()) return -DSM_RC_INVALID_DS_HANDLE;
        session = found->second;
    }
    return operation(*session);
}

int TsmApi::InitTsmApi(char* configFile, char* logDir, char* apiDir, char* appType) {
    if (dpsMutexInit(&mutex) != 0) std::exit(0);
    envSetUp setUp = {};
    setUp.stVersion = 4;
    if (!CopyIfItFits(setUp.dsmiConfig, configFile) || !CopyIfItFits(setUp.dsmiDir, apiDir) ||
        !CopyIfItFits(setUp.dsmiLog, logDir) || !CopyIfItFits(setUp.logName, logDir ? "dsierror.log" : nullptr)) {
        return -DSM_RC_STRING_TOO_LONG;
    }
    // Copied before the set-up, so that want of memory leaves nothing to undo.
    std::unique_ptr<char[]> type(NewCopy(appType));
    if (appType && !type) return -DSM_RC_NO_MEMORY;
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
}

int TsmApi::OpenSession(char* nodeName, char* ownerName, char* password, char* options, char* extraString,
                        char* userPassword, char* dirDelimiter) try {
    if (!initialised) return -DSM_RC_BAD_CALL_SEQUENCE;
    const Lock lock(mutex);
    // The table's entry is allocated before the sign-on, so that no session is signed on and then not kept.
    auto session = std::make_unique<TsmSession>();
    std::map<int, TsmSession*> staging{{0, session.get()}};
    auto entry = staging.extract(staging.begin());
    const int handle = session->OpenSession(nodeName, ownerName, password, options, extraString, userPassword,
                                            dirDelimiter, applicationType, apiVersion);
    if (handle <= 0) return handle;
    // The API gave the handle out anew: a session that is still in the table under it is none any more.
    const auto stale = sessions.find(handle);
    if (stale != sessions.end()) {
        delete stale->second;
        sessions.erase(stale);
    }
    entry.key() = handle;
    sessions.insert(std::move(entry));
    session.release();
    return handle;
} catch (...) {
    return CaughtResult();
}

int TsmApi::CloseSession(int handle) {
    const Lock lock(mutex);
    const auto found = sessions.find(handle);
    if (found == sessions.end()) return 0;
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
    }
    dpsMutexDestroy(&mutex);
    delete[] applicationType;
    applicationType = nullptr;
    initialised = false;
    return dsmCleanUp(DSM_MULTITHREAD);
}

int TsmApi::ConnectToFileSpace(int handle, char* name) {
    return WithSession(handle, [&](TsmSession& session) { return session.ConnectToFileSpace(name); });
}

int TsmApi::GetFileSpaces(int handle, char**& list) {
    return WithSession(handle, [&](TsmSession& session) { return session.GetFileSpaces(list); });
}

int TsmApi::EndGetFileSpaces(int handle) {
    return WithSession(handle, [&](TsmSession& session) { return session.EndGetFileSpaces(); });
}

int TsmApi::DeleteFileSpace(int handle, char* name) {
    return WithSession(handle, [&](TsmSession& session) { return session.DeleteFileSpace(name); });
}

int TsmApi::SetAccess(int handle, char* node, char* fileSpace, char* unused) {
    return WithSession(handle, [&](TsmSession& session) { return session.SetAccess(node, fileSpace, unused); });
}

int TsmApi::GetMgmtClasses(int handle, char**& list) {
    return WithSession(handle, [&](TsmSession& session) { return session.GetMgmtClasses(list); });
}

int TsmApi::EndGetMgmtClasses(int handle) {
    return WithSession(handle, [&](TsmSession& session) { return session.EndGetMgmtClasses(); });
}

int TsmApi::BeginBackup(int handle, char* path, char* name, long long size, char* objInfo, char* mgmtClass) {
    return WithSession(handle,
                       [&](TsmSession& session) { return session.BeginBackup(path, name, size, objInfo, mgmtClass); });
}

int TsmApi::SendData(int handle, unsigned char* buffer, int length) {
    return WithSession(handle, [&](TsmSession& session) { return session.SendData(buffer, length); });
}

int TsmApi::EndBackup(int handle) {
    return WithSession(handle, [&](TsmSession& session) { return session.EndBackup(); });
}

int TsmApi::GetBackupInfo(int handle, char* path, char* name, bool activeOnly, int objectType, TsmObject*& objects) {
    return WithSession(handle, [&](TsmSession& session) {
        return session.GetBackupInfo(path, name, activeOnly, objectType, objects);
    });
}

int TsmApi::GetBackupInfo(int handle, char* path, char* name, char* pointInTime, int objectType, TsmObject*& objects) {
    return WithSession(handle, [&](TsmSession& session) {
        return session.GetBackupInfo(path, name, pointInTime, objectType, objects);
    });
}

int TsmApi::EndGetBackupInfo(int handle) {
    return WithSession(handle, [&](TsmSession& session) { return session.EndGetBackupInfo(); });
}

long long TsmApi::BeginRestore(int handle, char* path, char* name, char* pointInTime) {
    return WithSession(handle, [&](TsmSession& session) { return session.BeginRestore(path, name, pointInTime); });
}

int TsmApi::GetData(int handle, unsigned char*& buffer, int size) {
    return WithSession(handle, [&](TsmSession& session) { return session.GetData(buffer, size); });
}

int TsmApi::EndRestore(int handle) {
    return WithSession(handle, [&](TsmSession& session) { return session.EndRestore(); });
}

int TsmApi::Delete(int handle, char* path, char* name, bool allVersions, char* pointInTime) {
    return WithSession(handle,
                       [&](TsmSession& session) { return session.Delete(path, name, allVersions, pointInTime); });
}

int TsmApi::RenameBackup(int handle, const char* oldPath, const char* oldName, const char* newPath,
                         const char* newName) {
    return WithSession(handle,
                       [&](TsmSession& session) { return session.RenameBackup(oldPath, oldName, newPath, newName); });
}
