#ifndef API_TSMAPI_H
#define API_TSMAPI_H

#include <pthread.h>

#include <map>

#include "api/tsmconnector.h"
#include "util/DsmApi.h"

class TsmSession;

// The registry behind the exported functions: sets the API up for the process, owns every open session and takes
// each handle to its session. Its mutex guards the table of sessions; OpenSession, CloseSession and ReleaseTsmApi
// hold it across their calls of the API, all other operations for the look-up only. InitTsmApi and ReleaseTsmApi
// must not overlap with anything. Parameters and results are those of tsmconnector.h.
class __attribute__((visibility("default"))) TsmApi {
public:
    TsmApi();
    // Releases the table alone: ReleaseTsmApi comes first.
    ~TsmApi();
    TsmApi(const TsmApi&) = delete;
    TsmApi& operator=(const TsmApi&) = delete;

    int InitTsmApi(char* configFile, char* logDir, char* apiDir, char* applicationType);
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
    // Calls operation on the session of handle, outside the lock.
    template <class... Parameters, class Result, class... Arguments>
    Result Forward(int handle, Result (TsmSession::*operation)(Parameters...), Arguments&&... arguments);

    friend int ::TsmInitApi(char* configFile, char* logDir, char* apiDir, char* applicationType);

    pthread_mutex_t mutex;                // from InitTsmApi to ReleaseTsmApi
    std::map<int, TsmSession*> sessions;  // owned, by handle
    dsmApiVersionEx apiVersion = {};      // handed to every sign-on
    char* applicationType = nullptr;      // owned; null: the sessions' default
    bool initialised = false;             // InitTsmApi went through
    TsmSession* recent = nullptr;         // what was looked up last, with its handle; null: look it up
    int recentHandle = 0;
};

#endif
