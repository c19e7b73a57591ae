/**
 * @file tsmconnector.h
 * @brief The public interface of libtsmconnector.
 *
 * The library stores byte streams as backup objects on a TSM server through
 * the TSM client API, lists them, reads them back, deletes and renames them. A
 * program that loads the library is called a host. Everything is declared here,
 * as C11 and as C++17; what has C++ linkage is declared for C++ only.
 *
 * Life of a host: TsmInitApi(), TsmOpenSession(), TsmConnectToFileSpace(), any
 * number of object operations, TsmCloseSession(), TsmReleaseApi().
 *
 * @par Results
 * 0 or a positive value (a handle, a count, a number of bytes) is success, a
 * negative value is failure: minus the TSM client API's return code (a code that
 * is itself negative stays as it is), or minus the reason for which the server
 * gave a transaction up. What the library refuses by itself is a code of the
 * same list: the values named TSM_RESULT_... can come from every function below
 * and are not repeated at each. No exception leaves these functions.
 *
 * @par Texts
 * Arguments are NUL-terminated byte strings that stay the caller's. The library
 * copies what it keeps, and keeps no pointer of the caller's after a call. What
 * it hands out (lists, records) stays the library's: read it, never free it.
 *
 * @par Names
 * An object is named by a path and a name. The session's delimiter divides the
 * path into directories. When it is exactly a slash (or exactly a backslash),
 * the other one in a path is read as the delimiter. One delimiter at the end
 * of a path is dropped and one at its start is added where it is missing, so
 * "a/b", "/a/b" and "a/b/" are the same path; "" and "/" are the top of the
 * filespace. With the delimiter in front, a path takes up to #TSM_LIMIT_PATH
 * bytes, and a name up to #TSM_LIMIT_NAME, that is 255 bytes of the host's own.
 * The limit of a name is also that of each directory of a path to back up or
 * rename to.
 *
 * @par
 * Names are treated in two ways. A backup and a restore take the name as it is
 * and put the delimiter in front: "/x" becomes "//x", and a backslash stays a
 * backslash. Listings, deletions and renames treat the name like a path, so they
 * find neither of these two. Keep the delimiter out of names, and where it is a
 * slash or a backslash, keep the other one out as well.
 *
 * @par Points in time
 * A moment is a text "year-month-day hour:minute:second" in the server's local
 * time. Leading zeros are optional; parts left off at the end are 0.
 * TsmObject::backupDate has this form without leading zeros, so it does not sort
 * by time. A text that is not a moment is not refused: a part that cannot be
 * read is 0, and a moment of zeros means none. Listings and restores then take
 * every version, and deletions what they take without a moment. Check what
 * users typed.
 *
 * @par Flags
 * An int that is a flag means yes when it is 1, and no otherwise.
 *
 * @par Threads
 * Different threads may use different handles at the same time. Only one thread
 * at a time may use a handle, and no thread may close it while a call with it is
 * running: the host has to make sure of both. No other call may run during
 * TsmInitApi() and TsmReleaseApi(). While one thread signs on or off, calls on
 * other handles may wait for it. A thread inside a call must not be cancelled
 * (pthread_cancel).
 */
#ifndef TSMCONNECTOR_H
#define TSMCONNECTOR_H

#if defined(__GNUC__)
#define TSM_API __attribute__((visibility("default")))
#else
#define TSM_API
#endif

/**
 * @defgroup tsm_constants Version, results, limits
 * @brief Constants of the interface. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @name Version
 * The version of this header. A host runs with every library of the same major version that is as new or newer.
 * @{
 */
/** Grows when hosts have to be built again. */
#define TSMCONNECTOR_VERSION_MAJOR 1
/** Grows when something is added. */
#define TSMCONNECTOR_VERSION_MINOR 0
/** Grows when something is only mended. */
#define TSMCONNECTOR_VERSION_PATCH 0
/** @} */

/**
 * @name Results of the library
 * The library gives them before it calls the API, except where the comment says otherwise. The API gives them too.
 * @{
 */
/** The API contradicted itself, in the middle of an operation. */
#define TSM_RESULT_ABORT_SYSTEM_ERROR (-1)
/** Nothing matches. Given after the search. */
#define TSM_RESULT_ABORT_NO_MATCH (-2)
/** No memory, or more objects than a result can count; also in the middle of an operation. */
#define TSM_RESULT_NO_MEMORY (-102)
/** A value out of range. */
#define TSM_RESULT_INVALID_PARM (-109)
/** A null path, name, filespace, or node to give access to. */
#define TSM_RESULT_NULL_OBJNAME (-2000)
/** A null pointer where data or results are to be read or written. */
#define TSM_RESULT_NULL_BUFPTR (-2009)
/** No such session: the handle is unknown, or the library is not initialised. */
#define TSM_RESULT_INVALID_DS_HANDLE (-2014)
/** Called in the wrong order. */
#define TSM_RESULT_BAD_CALL_SEQUENCE (-2041)
/** The session has no filespace yet: call TsmConnectToFileSpace(). */
#define TSM_RESULT_FS_NOT_REGISTERED (-2061)
/** A text too long for its field (a rename to a taken name is refused after its first queries). */
#define TSM_RESULT_STRING_TOO_LONG (-2120)
/** @} */

/**
 * @name Limits
 * In bytes, without the terminator.
 * @{
 */
/** A path of an object, with the delimiter in front. */
#define TSM_LIMIT_PATH 1024
/** A name, or one directory of a path, with the delimiter in front. */
#define TSM_LIMIT_NAME 256
/** A filespace, with the delimiter that is put in front. */
#define TSM_LIMIT_FILESPACE 1024
/** The text stored with an object. */
#define TSM_LIMIT_OBJECT_INFO 65534
/** A path for TsmInitApi(). */
#define TSM_LIMIT_INIT_PATH 1279
/** The least memory that TsmGetData() needs, however few bytes it is asked for. */
#define TSM_LEAST_READ 32768
/** @} */
/** @} */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup tsm_lifecycle Life cycle
 * @brief Initialising the library, signing on and off. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Initialises the library and the TSM client API for this process.
 *
 * If no mutex can be created, the process ends with exit status 0.
 *
 * @param configFile the API's options file, or null
 * @param logDir folder for the API's error log "dsierror.log", or null. The
 *        folder has to exist.
 * @param apiDir the API's installation folder, or null
 * @param applicationType the name under which sessions sign on, or null for
 *        the default
 *
 * Paths take up to #TSM_LIMIT_INIT_PATH bytes.
 * @return 0. On failure, the set-up's return code with its sign reversed: as a
 * rule negative, but a code that is itself negative becomes positive, so anything
 * but 0 is failure. #TSM_RESULT_BAD_CALL_SEQUENCE when the library is initialised
 * already; it goes on working. After any other failure, call TsmReleaseApi(), or
 * TsmInitApi() again.
 */
TSM_API int TsmInitApi(char* configFile, char* logDir, char* apiDir, char* applicationType);

/**
 * @brief Ends what TsmInitApi() began.
 *
 * Closes every session that is still open, in ascending order of their
 * handles, and cleans the API up. All handles, lists and records are invalid
 * afterwards. Call it after a failed TsmInitApi() too.
 *
 * @return 0, or the return code of the API's clean-up unchanged (as a rule
 * positive); #TSM_RESULT_INVALID_DS_HANDLE when there is nothing to release.
 */
TSM_API int TsmReleaseApi(void);

/**
 * @brief Signs on to the server.
 *
 * The library's copies of all these texts, not only the passwords, are wiped
 * when the session ends.
 *
 * @param nodeName the node's name, or null where the API knows it by itself
 * @param ownerName the owner's name, or null
 * @param password the node's password, or null
 * @param options an options string for the API, or null
 * @param extraString kept but not used; may be null
 * @param userPassword the user's password (the user name is nodeName), or null
 * @param dirDelimiter the text that divides paths, normally one character (only
 *        the first one is sent to the server); null or empty: a backslash
 * @return the session's handle, greater than 0, valid until TsmCloseSession()
 * or TsmReleaseApi(); a negative value or 0 on failure.
 * #TSM_RESULT_BAD_CALL_SEQUENCE after a failed TsmInitApi().
 */
TSM_API int TsmOpenSession(char* nodeName, char* ownerName, char* password, char* options, char* extraString,
                           char* userPassword, char* dirDelimiter);

/**
 * @brief Signs off and releases everything that the session handed out.
 *
 * The server discards what is not yet committed. The handle is invalid afterwards,
 * whatever the result.
 *
 * @param handle the session
 * @return 0, also for a handle that is not open; otherwise the sign-off's
 * return code unchanged (as a rule positive); #TSM_RESULT_INVALID_DS_HANDLE when
 * the library is not initialised.
 */
TSM_API int TsmCloseSession(int handle);

/** @} */

/**
 * @defgroup tsm_filespaces Filespaces
 * @brief Choosing, listing and deleting filespaces. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Chooses the filespace for all further operations on objects and
 * registers it on the server if it is new.
 *
 * May be called again to choose another one.
 *
 * @param handle the session
 * @param name the filespace. The other slash in it is rewritten as in paths;
 *        unlike in a path, a delimiter at its start or end counts: "vm01" and
 *        "/vm01" are two filespaces. With the delimiter that is put in front of
 *        it, it takes up to #TSM_LIMIT_FILESPACE bytes.
 * @return 0 or a negative code. If the server refuses the registration, the new
 * filespace is chosen all the same. If the library itself refuses the name, the
 * session keeps the filespace it had.
 */
TSM_API int TsmConnectToFileSpace(int handle, char* name);

/**
 * @brief Lists the node's filespaces, without their leading delimiters, in the
 * server's order.
 *
 * A listing that cannot begin leaves `*list` as it was, but what an earlier
 * listing gave is released all the same.
 *
 * @param handle the session
 * @param list receives an array of texts that stays the session's and is valid
 *        until TsmEndGetFileSpaces(), the next TsmGetFileSpaces() or the end
 *        of the session; null when there are none
 * @return the number of names, 0 or #TSM_RESULT_ABORT_NO_MATCH when there are
 * none, or a negative code.
 */
TSM_API int TsmGetFileSpaces(int handle, char*** list);

/**
 * @brief Releases the list of filespaces, if one is held.
 * @param handle the session
 * @return 0
 */
TSM_API int TsmEndGetFileSpaces(int handle);

/**
 * @brief Deletes a filespace with every object and version in it, for good.
 *
 * A session that had chosen this filespace must call TsmConnectToFileSpace()
 * again before it goes on.
 *
 * @param handle the session
 * @param name the filespace; the delimiter is put in front of it, slashes are
 *        not rewritten
 * @return 0 or a negative code.
 */
TSM_API int TsmDeleteFileSpace(int handle, char* name);

/** @} */

/**
 * @defgroup tsm_classes Management classes
 * @brief Listing the management classes. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Lists the management classes offered to the node, in the server's
 * order.
 * @param handle the session
 * @param list as for TsmGetFileSpaces(), released by TsmEndGetMgmtClasses()
 * @return the number of names, 0 when there are none, or a negative code.
 */
TSM_API int TsmGetMgmtClasses(int handle, char*** list);

/**
 * @brief Releases the list of management classes, if one is held.
 * @param handle the session
 * @return 0
 */
TSM_API int TsmEndGetMgmtClasses(int handle);

/** @} */

/**
 * @defgroup tsm_backup Backup
 * @brief Storing an object. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Opens an object for writing, in a transaction of its own.
 *
 * First creates the missing directory objects of the path; each is committed at
 * once. After 0, call TsmSendData() as often as needed and then TsmEndBackup();
 * the object is not stored before that. Storing under a taken name keeps the
 * older version as an inactive one. Releases the session's inventory
 * (TsmGetBackupInfo()).
 *
 * After a failure the transaction may still be open. Before anything else, close
 * the session, or call TsmEndBackup() (its result does not matter, nothing is
 * stored). After #TSM_RESULT_BAD_CALL_SEQUENCE only close it: an object that was
 * opened earlier is still open, and TsmEndBackup() would commit it as it is.
 *
 * @param handle the session
 * @param path the directory
 * @param name the object's name, without a delimiter
 * @param size expected bytes, rather too many than too few: a server may stop a
 *        send that goes beyond them. 0 stores a directory object, which takes no
 *        data: to store an empty file, announce another size and send nothing.
 *        A negative size comes back as the negative result of
 *        TsmBeginRestore().
 * @return 0 or a negative code. If the server gives the transaction up without a
 * reason, the result is 0 although nothing is open; the TsmSendData() or
 * TsmEndBackup() that follows then fails.
 */
TSM_API int TsmBeginBackup(int handle, char* path, char* name, long long size);

/**
 * @brief Does the same as TsmBeginBackup(), with a text and a management class.
 * @param handle the session
 * @param path the directory
 * @param name the object's name, without a delimiter
 * @param size as for TsmBeginBackup()
 * @param objInfo a text stored with the object, up to #TSM_LIMIT_OBJECT_INFO bytes
 *        (listings give the first 254), or null
 * @param mgmtClass the management class for the object and for directory
 *        objects created on the way, or null for the server's choice
 * @return as for TsmBeginBackup().
 */
TSM_API int TsmBeginBackupEx(int handle, char* path, char* name, long long size, char* objInfo, char* mgmtClass);

/**
 * @brief Sends the next part of the open object.
 *
 * After a failure, close the session: TsmEndBackup() could commit what was sent
 * so far as if it were the whole object.
 *
 * @param handle the session
 * @param buffer only read, and the caller's again on return. The library makes one
 *        copy, so a call takes length bytes of memory
 * @param length the number of bytes, 0 or more
 * @return 0 when the API took all of it, or when the server gave the transaction
 * up without a reason (TsmEndBackup() then fails); or a negative code.
 */
TSM_API int TsmSendData(int handle, unsigned char* buffer, int length);

/**
 * @brief Ends the open object and commits it.
 * @param handle the session
 * @return 0: it is stored for good and visible to all; a negative code: it is
 * not stored. The result is that of the commit. If the API failed to end the
 * object but committed all the same, it is 0, and only a listing shows what is
 * stored.
 */
TSM_API int TsmEndBackup(int handle);

/** @} */

/**
 * @defgroup tsm_inventory Inventory
 * @brief Listing what is stored. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief One stored version of one object, as the inventory lists it.
 *
 * 2600 bytes, aligned to 8; the layout never changes. Texts are NUL-terminated,
 * and every byte that belongs to no value is 0.
 */
typedef struct TsmObject {
    char highLevelName[1027]; /**< the path with its leading delimiter; empty at the top of the filespace */
    char lowLevelName[257];   /**< the name with its leading delimiter: TsmBeginRestore() takes it without */
    long long size;           /**< bytes, as announced when the object was backed up */
    char backupDate[20];      /**< when this version was stored; usable as a point in time */
    char objectInfo[255];     /**< the host's own text, cut to 254 bytes */
    char fileSpace[1025];     /**< the filespace without its leading delimiter */
    int isFile;               /**< 0: a directory object; 1: anything else */
} TsmObject;

/** Asks a listing for objects of both kinds (objectType). */
#define TSM_OBJECTS_ANY 0
/** Asks a listing for directory objects. */
#define TSM_OBJECTS_DIRECTORIES 1
/** Asks a listing for everything but directory objects. */
#define TSM_OBJECTS_FILES 2

/**
 * @brief Lists stored objects.
 *
 * A listing that cannot begin leaves `*objects` as it was.
 *
 * @param handle the session
 * @param path the directory; "*" for every directory. May hold the wildcards
 *        `*` (any run of characters, delimiters too) and `?`
 * @param name the name, may hold wildcards. Null means every name in the path if
 *        the delimiter is a slash or a backslash; with another delimiter pass "*"
 * @param activeOnly flag: only active versions; otherwise inactive ones as
 *        well, one record for each version
 * @param objectType #TSM_OBJECTS_ANY, #TSM_OBJECTS_DIRECTORIES or
 *        #TSM_OBJECTS_FILES; any value but 0 and 1 means files
 * @param objects receives an array of as many records as the result says, in
 *        the server's order; null when there are none. It stays the session's
 *        and is valid until TsmEndGetBackupInfo(), the end of the session, the
 *        next listing that finds something, or the next TsmBeginBackup(),
 *        TsmDelete() or TsmRenameBackup() with the handle, whichever comes
 *        first.
 * @return the number of records, 0 when nothing matches, or a negative code.
 */
TSM_API int TsmGetBackupInfo(int handle, char* path, char* name, int activeOnly, int objectType, TsmObject** objects);

/**
 * @brief Releases the records of the last listing, if any are held.
 * @param handle the session
 * @return 0
 */
TSM_API int TsmEndGetBackupInfo(int handle);

/**
 * @brief Lists the versions that were current at a point in time.
 * @param handle the session
 * @param path as for TsmGetBackupInfo()
 * @param name as for TsmGetBackupInfo()
 * @param pointInTime the moment; null: lists the active versions
 * @param objectType as for TsmGetBackupInfo()
 * @param objects as for TsmGetBackupInfo()
 * @return as for TsmGetBackupInfo().
 */
TSM_API int TsmGetBackupInfoPointInTime(int handle, char* path, char* name, char* pointInTime, int objectType,
                                        TsmObject** objects);

/**
 * @brief The same as TsmEndGetBackupInfo().
 * @param handle the session
 * @return 0
 */
TSM_API int TsmEndGetBackupInfoPointInTime(int handle);

/** @} */

/**
 * @defgroup tsm_restore Restore
 * @brief Reading an object back. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Opens an object for reading: the active version, or the one that was
 * current at a point in time.
 *
 * Directory objects are not found. Wildcards match; of several matches, the one
 * that the server gives last is read. After 0 or more, call TsmGetData() until it
 * fails or returns 0 twice in a row, then TsmEndRestore(). After a failure call
 * TsmEndRestore() too; its result does not matter.
 *
 * @param handle the session
 * @param path the directory
 * @param name the object's name, taken as it is: one that begins with the
 *        delimiter gets a second one
 * @param pointInTime the moment, or null
 * @return the size announced when the object was backed up, in bytes (0 or
 * more), #TSM_RESULT_ABORT_NO_MATCH when nothing matches, or another negative
 * code.
 */
TSM_API long long TsmBeginRestore(int handle, char* path, char* name, char* pointInTime);

/**
 * @brief Reads the next piece of the open object.
 * @param handle the session
 * @param buffer points to a pointer to the memory to be filled; that pointer is
 *        not changed
 * @param size the most bytes wanted. Anything below #TSM_LEAST_READ counts as
 *        #TSM_LEAST_READ, so the memory needs room for at least that many bytes
 * @return the number of bytes placed, or a negative code. 0 is the result for a
 * piece that came without bytes, after which more may follow, and for every call
 * after the last piece until the next TsmBeginRestore(): only a 0 that repeats is
 * the end.
 */
TSM_API int TsmGetData(int handle, unsigned char** buffer, int size);

/**
 * @brief Ends the reading, wherever it has got to.
 * @param handle the session
 * @return 0 or a negative code.
 */
TSM_API int TsmEndRestore(int handle);

/** @} */

/**
 * @defgroup tsm_removal Deletion and renaming
 * @brief Deleting objects and giving them new names. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Deletes objects, one transaction each, and then the directory objects
 * of the path that hold nothing active any more, climbing towards the top.
 *
 * A name means both kinds, a file and a directory object. Objects below a
 * deleted directory object stay where they are: to delete the tree "a", list
 * the paths "a" and "a/" with a wildcard behind it, and delete the files one by
 * one.
 *
 * The climb runs even when nothing matched, and it removes by name: if a file has
 * the name of a directory of the path, and that directory holds nothing active or
 * does not exist, the file goes. Wildcards in the path match in the climb: with
 * the path "disk*" and nothing active left in such directories, everything beside
 * them that matches goes, a file "disk.img" too.
 *
 * Releases the session's inventory. A transaction may be left open after a
 * failure and, if the climb failed, also after 0: close the session when the next
 * call returns #TSM_RESULT_BAD_CALL_SEQUENCE.
 *
 * @param handle the session
 * @param path the directory; "*" for every directory
 * @param name the name, may hold wildcards; null: every name in the path,
 *        directory objects among them (as for TsmGetBackupInfo())
 * @param allVersions flag: every version, for good (the node needs permission
 *        for that); otherwise the active version becomes inactive
 * @param pointInTime null, or a moment: of those versions, only what was current
 *        then is deleted. A text that is not a moment deletes as null does.
 * @return 0, also when nothing matched or when the search broke off before
 * anything was deleted: list to be sure. A negative code at the first failure
 * (-2302 for a transaction that the server refused, whatever the reason); what was
 * deleted before it stays deleted.
 */
TSM_API int TsmDelete(int handle, char* path, char* name, int allVersions, char* pointInTime);

/**
 * @brief Renames an object with all its versions, inside the filespace.
 *
 * First, every version under the new name is deleted. If the server refuses that,
 * they are moved aside, to the new path and name with the time appended to both.
 * (At the top of the filespace, their path is then the time without a delimiter:
 * only a listing of "*" finds it, and no restore does.) Then the object is renamed.
 * Last, whatever remains under the old name is deleted, empty directory objects of
 * the old path go, and those of the new path are created.
 *
 * Renaming an object to its own name, or to the name of a directory above it,
 * therefore deletes it. If a name holds both a file and a directory object, the
 * kind that the server lists first is renamed, and the other one remains and is
 * deleted. Objects below a renamed directory object stay where they are.
 *
 * The renaming takes wildcards as they are, but the deletions before and after it
 * match them, and some of these steps read a path with two delimiters in a row
 * differently: keep both out.
 *
 * Releases the session's inventory. A transaction may be left open as by
 * TsmDelete().
 *
 * @param handle the session
 * @param oldPath the directory of the object
 * @param oldName the name of the object
 * @param newPath the directory it moves to. If the new name is taken, path and
 *        name each take 25 bytes less (#TSM_RESULT_STRING_TOO_LONG otherwise,
 *        before anything is deleted)
 * @param newName the name it gets
 * @return 0, #TSM_RESULT_ABORT_NO_MATCH when nothing is stored under the old name,
 * or a negative code. The result is also 0 when the server gave the transaction up
 * without a reason: the object is renamed when no object of its kind is listed
 * under the old name any more, and one is under the new name. Deleting what
 * remains may have failed unnoticed, for example where the node may not delete for
 * good. An API may also end the transaction with 0 and give a reason for which it
 * did not rename. The object, still under its old name, is then deleted with what
 * remains there, and the result is 0. No host can guard against that.
 */
TSM_API int TsmRenameBackup(int handle, const char* oldPath, const char* oldName, const char* newPath,
                            const char* newName);

/** @} */

#ifdef __cplusplus
} /* extern "C" */

#include <pthread.h>

/**
 * @defgroup tsm_cpp For C++ hosts
 * @brief What has C++ linkage. Include tsmconnector.h, which holds the general rules.
 * @{
 */

/**
 * @brief Gives another node access to backups in a filespace.
 *
 * The rule covers the high-level name of one backslash with any low-level name,
 * whatever the session's delimiter is. The library has no call to read another
 * node's filespace.
 *
 * @param handle the session
 * @param node the node that gets access
 * @param fileSpace the filespace's full name on the server, leading delimiter
 *        included
 * @param unused not read
 * @return 0 or a negative code.
 */
TSM_API int TsmSetAccess(int handle, char* node, char* fileSpace, char* unused);

class TsmApi;
/**
 * @brief The library's one instance: null before TsmInitApi() and after
 * TsmReleaseApi(). Compare it with null, and do nothing else with it.
 */
extern TSM_API TsmApi* tsmApi;

/**
 * @name POSIX primitives
 * For hosts without their own. All but dpsThreadCreate() return what the POSIX
 * call returned, 0 or an error number. If it is not 0, they print a line with that
 * number to standard output. They are as thread-safe as the calls behind them.
 * @{
 */
/** @brief pthread_mutex_init, default attributes. @param mutex the mutex @return 0 or an error number */
TSM_API int dpsMutexInit(pthread_mutex_t* mutex);
/** @brief pthread_mutex_destroy. @param mutex the mutex @return 0 or an error number */
TSM_API int dpsMutexDestroy(pthread_mutex_t* mutex);
/** @brief pthread_mutex_lock. @param mutex the mutex @return 0 or an error number */
TSM_API int dpsMutexLock(pthread_mutex_t* mutex);
/** @brief pthread_mutex_unlock. @param mutex the mutex @return 0 or an error number */
TSM_API int dpsMutexUnlock(pthread_mutex_t* mutex);
/** @brief pthread_cond_init, default attributes. @param condition the condition @return 0 or an error number */
TSM_API int dpsCreateCondition(pthread_cond_t* condition);
/** @brief pthread_cond_destroy. @param condition the condition @return 0 or an error number */
TSM_API int dpsDestroyCondition(pthread_cond_t* condition);
/**
 * @brief pthread_cond_wait; goes on waiting silently when the wait is interrupted (EINTR).
 * @param condition the condition @param mutex the mutex, locked @return 0 or an error number
 */
TSM_API int dpsWaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex);
/** @brief pthread_cond_signal. @param condition the condition @return 0 or an error number */
TSM_API int dpsSignalCondition(pthread_cond_t* condition);

/**
 * @brief Starts a thread that runs start(argument).
 *
 * Nobody can join the thread. Let it call pthread_detach(pthread_self()), or its
 * stack stays allocated until the process ends.
 *
 * @param start the thread's function; what it returns is lost
 * @param argument what it is called with
 * @return 0, also when no thread could be started, and prints nothing: let the
 * thread itself report that it runs.
 */
TSM_API int dpsThreadCreate(void* (*start)(void*), void* argument);
/** @} */
/** @} */
#endif /* __cplusplus */

#endif
