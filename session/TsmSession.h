#pragma once

#include "api/tsmconnector.h"
#include "util/DsmApi.h"

// One signed-on connection to the server; every storage operation is a member. The registry creates, signs on,
// signs off and destroys the objects. There is no lock: one object is used by one thread at a time, different
// objects may be used by different threads. No member lets an exception out. Results are those of tsmconnector.h.
//
// Every member function is exported, the private ones too, and so is part of what hosts can bind to: names, parameter
// types and parameters without a use stay as they are, and so do the names, types and order of the fields.
class __attribute__((visibility("default"))) TsmSession {
public:
    TsmSession();
    // Frees what the session owns. Does not sign off.
    ~TsmSession();
    TsmSession(const TsmSession&) = delete;
    TsmSession& operator=(const TsmSession&) = delete;

    // The first operation on a new object. Returns the handle that the sign-on gave, or a negative result.
    int OpenSession(char* node, char* owner, char* secret, char* optionText, char* extraText, char* userSecret,
                    char* delimiter, char* applicationType, dsmApiVersionEx apiVersion);
    // Returns 0 or the sign-off's return code, not negated; the handle is gone either way.
    int CloseSession();

    int ConnectToFileSpace(char* name);
    int GetFileSpaces(char**& list);
    int EndGetFileSpaces();
    int DeleteFileSpace(char* name);
    int SetAccess(char* node, char* fileSpace, char* unused);

    int GetMgmtClasses(char**& list);
    int EndGetMgmtClasses();

    int BeginBackup(char* path, char* name, long long size, char* objInfo, char* mgmtClass);
    int SendData(unsigned char* buffer, int length);
    int EndBackup();

    int GetBackupInfo(char* path, char* name, bool activeOnly, int objectType, TsmObject*& objects);
    int GetBackupInfo(char* path, char* name, char* pointInTime, int objectType, TsmObject*& objects);
    int EndGetBackupInfo();

    long long BeginRestore(char* path, char* name, char* pointInTime);
    int GetData(unsigned char*& buffer, int size);
    int EndRestore();

    int Delete(char* path, char* name, bool allVersions, char* pointInTime);
    int RenameBackup(const char* oldPath, const char* oldName, const char* newPath, const char* newName);

    // The API's text for a return code, at most 1024 characters; null without memory. The caller frees it with free.
    char* _RcApiOut(unsigned int handle, short rc);
    // The hook for the error messages of backups and of the sign-off: format takes the one integer. It drops them; its
    // calls and their texts stay, so that whoever puts a log here finds them.
    void _Log(char* format, int code);

private:
    // Copies the arguments of the sign-on. It has no result: without memory it leaves all fields null, dirDelimiter
    // too, which otherwise is never null afterwards.
    void _Init(char* node, char* owner, char* secret, char* optionText, char* extraText, char* userSecret,
               char* delimiter);
    void _CleanUp();
    // Registers a filespace that may exist already. c is not used.
    int _RegisterFileSpace(char* fsName, char* fsType, char* fsInfo, char c);
    // Announces one object under its complete name, in a transaction of its own that stays open on success.
    int _BeginBackup(const char* hl, const char* ll, long long size, char* objInfo, char* mgmtClass);
    // Creates the directory objects that path, a complete high-level name, still lacks.
    int _BackupDirectories(char* path, char* mgmtClass);
    int _GetBackupInfo(char* path, char* name, bool activeOnly, char* pointInTime, int objectType, TsmObject*& objects);
    // Removes the directory object of path, a complete high-level name, when nothing active is left in it, and so on
    // upwards; any failure ends the climb.
    void _DeleteOrphanDirectories(char* path, bool allVersions);

    // Owned texts, null where the sign-on had none.
    char* nodeName = nullptr;
    char* ownerName = nullptr;
    char* password = nullptr;
    char* options = nullptr;
    char* extraString = nullptr;
    char* userPassword = nullptr;
    char* fileSpaceName = nullptr;  // with its leading delimiter; null until a filespace is connected
    char* dirDelimiter = nullptr;   // at least one character once signed on

    // What was handed out to the host, owned; null when nothing is.
    char** fileSpaceList = nullptr;
    char** mgmtClassList = nullptr;
    int fileSpaceCount = 0;
    int mgmtClassCount = 0;
    bool restoreDone = false;             // the restore stream has given its last byte
    TsmObject* backupInfoList = nullptr;  // from malloc

    dsUint32_t handle = 0;  // the API's; 0 when signed off
};
