#pragma once

#include <pthread.h>

#include <map>
#include <type_traits>

#include "api/tsmconnector.h"
#include "util/DsmApi.h"

class TsmSession;

// The registry behind the exported functions: sets the API up for the process, owns every open session and finds the
// session of each handle. Its mutex guards the table of sessions; OpenSession, CloseSession and ReleaseTsmApi hold it
// across their calls of the API, all other operations for the look-up only. InitTsmApi and ReleaseTsmApi must not
// overlap with anything. No member lets an exception out. Parameters and results are those of tsmconnector.h.
//
// Every member function is exported: names and parameter types stay as they are, as do those of the fields.
class __attribute__((visibility("default"))) TsmApi {
public:
    TsmApi();
    // Releases the table alone: ReleaseTsmApi comes first.
    ~TsmApi();
    TsmApi(const TsmApi&) = delete;
    TsmApi& operator=(const TsmApi&) = delete;

    int InitTsmApi(char* configFile, char* logDir, char* apiDir, char* appType);
    int ReleaseTsmApi();
    int OpenSession(char* nodeName, char* ownerName, char* password, char* options, char* extraString,
                    char* userPassword, char* dirDelimiter);
    int CloseSession(int handle);

    int ConnectToFileSpace(int handle, char* name);
    int GetFileSpaces(int handle, char**& list);
    int EndGetFileSpaces(int handle);
    int DeleteFileSpace(int handle, char* name);
    int SetAccess(int handle, char* node, char* fileSpace, char* unused);

    int GetMgmtClasses(int handle, char**& list);
    int EndGetMgmtClasses(int handle);

    int BeginBackup(int handle, char* path, char* name, long long size, char* objInfo, char* mgmtClass);
    int SendData(int handle, unsigned char* buffer, int length);
    int EndBackup(int handle);

    int GetBackupInfo(int handle, char* path, char* name, bool activeOnly, int objectType, TsmObject*& objects);
    int GetBackupInfo(int handle, char* path, char* name, char* pointInTime, int objectType, TsmObject*& objects);
    int EndGetBackupInfo(int handle);

    long long BeginRestore(int handle, char* path, char* name, char* pointInTime);
    int GetData(int handle, unsigned char*& buffer, int size);
    int EndRestore(int handle);

    int Delete(int handle, char* path, char* name, bool allVersions, char* pointInTime);
    int RenameBackup(int handle, const char* oldPath, const char* oldName, const char* newPath, const char* newName);

private:
    // Calls operation(session) with the session of handle, outside the lock. Returns its result, or -2014 where no
    // session has the handle.
    template <class Operation>
    std::invoke_result_t<Operation, TsmSession&> WithSession(int handle, Operation operation);

    friend int ::TsmInitApi(char* configFile, char* logDir, char* apiDir, char* applicationType);

    pthread_mutex_t mutex;                // from InitTsmApi to ReleaseTsmApi
    std::map<int, TsmSession*> sessions;  // owned, by handle
    dsmApiVersionEx apiVersion = {};      // handed to every sign-on
    char* applicationType = nullptr;      // owned; null: the sessions' default
    bool initialised = false;             // InitTsmApi went through
};
