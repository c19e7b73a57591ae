/*
 * tsmconnector.h - the public interface of libtsmconnector.
 *
 * The library stores byte streams as backup objects on a TSM server through
 * the TSM client API, lists them, reads them back, deletes and renames them.
 * Everything it offers is declared here, as C11 and as C++17; what has C++
 * linkage is declared for C++ only.
 *
 * Life of a host: TsmInitApi, TsmOpenSession, TsmConnectToFileSpace, any
 * number of object operations, TsmCloseSession, TsmReleaseApi.
 *
 * Results
 *   0 or a positive value (a handle, a count, a number of bytes) is success,
 *   a negative value is failure: the return code of the TSM client API with a
 *   minus sign (-|rc|), or the reason for which the server gave a transaction
 *   up, with a minus sign. What the library refuses by itself is named in the
 *   same vocabulary, before any call reaches the API:
 *     -109   a value out of range
 *     -2000  a null path, name or node
 *     -2009  a null pointer where data or results are to be read or written
 *     -2014  no such session: unknown handle, or the library not initialised
 *     -2041  called in the wrong order
 *     -2061  no filespace connected (TsmConnectToFileSpace)
 *     -2120  a text too long for its field (a rename's, with its time, later)
 *   and in the middle of an operation:
 *     -102   no memory
 *     -1     the API contradicted itself
 *   These hold for every function below and are not repeated at each. No
 *   exception leaves these functions.
 *
 * Texts
 *   Arguments are NUL-terminated byte strings that stay the caller's; the
 *   library copies what it keeps and never holds on to a caller's pointer
 *   after a call. What it hands out (lists, records) stays the library's: read
 *   it, never free it.
 *
 * Names
 *   An object is named by a path and a name. The session's delimiter divides
 *   the path into directories. When it is exactly "/" (or exactly "\"), the
 *   other slash in a path is read as the delimiter. One delimiter at the end
 *   of a path is dropped and one at its start is added where it is missing, so
 *   "a/b", "/a/b" and "a/b/" are the same path; "" and "/" are the top of the
 *   filespace. With the delimiter in front, a path takes up to 1024 bytes, a
 *   name (and each directory of a path to back up or rename to) up to 256, that
 *   is 255 bytes of the host's own.
 *   Names are treated in two ways. A backup and a restore take the name as it
 *   is and put the delimiter in front: "/x" becomes "//x", and "a\b" keeps its
 *   backslash. Listings, deletions and renames treat the name like a path, so
 *   that they do not find those two: keep delimiters and, with "/" or "\", the
 *   other slash out of names.
 *
 * Points in time
 *   "year-month-day hour:minute:second" in the server's local time, leading
 *   zeros optional, parts left off at the end are 0. TsmObject.backupDate has
 *   this form. A text that is no moment is not refused: what cannot be read is
 *   0, and a moment of zeros means none: listings and restores then take every
 *   version. Check what users typed.
 *
 * Flags
 *   An int that is a flag means yes exactly when it is 1.
 *
 * Threads
 *   Different handles may be used by different threads at the same time. One
 *   handle is used by one thread at a time, and is not closed while a call
 *   with it is still running: the host sees to both. TsmInitApi and
 *   TsmReleaseApi run while no other call of the library does. While one
 *   thread signs on or off, calls on other handles may wait for it. A thread
 *   inside a call must not be cancelled (pthread_cancel).
 */
#ifndef TSMCONNECTOR_H
#define TSMCONNECTOR_H

#if defined(__GNUC__)
#define TSM_API __attribute__((visibility("default")))
#else
#define TSM_API
#endif

/*
 * One stored version of one object, as the inventory lists it. 2600 bytes,
 * 8-byte aligned; the layout never changes. Texts are NUL-terminated, and
 * every byte that no value covers is 0.
 */
typedef struct TsmObject {
    char highLevelName[1027]; /* the path with its leading delimiter; empty at the top of the filespace */
    char lowLevelName[257];   /* the name with its leading delimiter */
    long long size;           /* bytes, as announced when the object was backed up */
    char backupDate[20];      /* when this version was stored; usable as a point in time */
    char objectInfo[255];     /* the host's own text, cut to 254 bytes */
    char fileSpace[1025];     /* the filespace without its leading delimiter */
    int isFile;               /* 0: a directory object; 1: anything else */
} TsmObject;

/* Kinds of object that a listing asks for (objectType). */
#define TSM_OBJECTS_ANY 0
#define TSM_OBJECTS_DIRECTORIES 1
#define TSM_OBJECTS_FILES 2

#ifdef __cplusplus
extern "C" {
#endif

/* --------------------------------------------------------- life cycle */

/*
 * Initialises the library and the TSM client API for this process.
 *   configFile       the API's options file, or null
 *   logDir           folder for the API's error log "dsierror.log", or null
 *   apiDir           the API's installation folder, or null
 *   applicationType  the name under which sessions sign on, or null for the default
 * Paths take up to 1279 bytes.
 * Returns 0; the set-up's return code with its sign turned round on failure
 * (as a rule negative; a code that is itself negative comes back positive, so
 * anything but 0 is failure); -2041 when the library is initialised already,
 * which then goes on working. After any other failure, call TsmReleaseApi, or
 * TsmInitApi again.
 * When no mutex can be created the process ends with exit status 0.
 */
TSM_API int TsmInitApi(char* configFile, char* logDir, char* apiDir, char* applicationType);

/*
 * Closes every session that is still open, in ascending order of their
 * handles, and cleans the API up. All handles, lists and records are invalid
 * afterwards. To be called after a failed TsmInitApi too.
 * Returns 0, or the return code of the API's clean-up as it is (as a rule
 * positive); -2014 when there is nothing to release.
 */
TSM_API int TsmReleaseApi(void);

/*
 * Signs on to the server.
 *   nodeName, ownerName, password  the node's credentials, each may be null
 *   options       an options string for the API, or null
 *   extraString   kept and not used; may be null
 *   userPassword  the user's password (the user name is nodeName), or null
 *   dirDelimiter  the text that divides paths, normally one character (the
 *                 server is told the first one); null or empty: a backslash
 * Returns the session's handle, greater than 0, valid until TsmCloseSession or
 * TsmReleaseApi; a negative value or 0 on failure. -2041 after a failed
 * TsmInitApi. Passwords are wiped from the library's memory when the session ends.
 */
TSM_API int TsmOpenSession(char* nodeName, char* ownerName, char* password, char* options, char* extraString,
                           char* userPassword, char* dirDelimiter);

/*
 * Signs off and releases everything that the session handed out. What is not
 * yet committed is discarded by the server.
 * Returns 0, also for a handle that is not open; otherwise the sign-off's
 * return code as it is (as a rule positive). The handle is gone either way.
 */
TSM_API int TsmCloseSession(int handle);

/* --------------------------------------------------------- filespaces */

/*
 * Chooses the filespace for all further operations on objects and registers
 * it on the server where it is new. May be called again to change over.
 * Slashes in the name are rewritten as in paths. With the delimiter that is put
 * in front of it, it takes up to 1024 bytes.
 * Returns 0 or a negative code. When the server refuses the registration the
 * new name is chosen all the same; a name that the library refuses (-2000,
 * -2120, -102) leaves the session with the filespace it had.
 */
TSM_API int TsmConnectToFileSpace(int handle, char* name);

/*
 * Lists the node's filespaces, without their leading delimiters, in the
 * server's order. *list receives an array of texts that stays the session's
 * and is valid until TsmEndGetFileSpaces, the next TsmGetFileSpaces or the end
 * of the session.
 * Returns the number of names, 0 or -2 when there are none (*list is null), or
 * a negative code. A listing that cannot even begin leaves *list as it was,
 * though what an earlier listing gave is released.
 */
TSM_API int TsmGetFileSpaces(int handle, char*** list);

/* Releases the list of filespaces, if one is held. Returns 0. */
TSM_API int TsmEndGetFileSpaces(int handle);

/*
 * Deletes a filespace with every object and version in it, for good. The
 * delimiter is put in front of the name; slashes are not rewritten.
 * Returns 0 or a negative code.
 */
TSM_API int TsmDeleteFileSpace(int handle, char* name);

/* ------------------------------------------------- management classes */

/*
 * Lists the management classes offered to the node, in the server's order.
 * *list: as for TsmGetFileSpaces, released by TsmEndGetMgmtClasses.
 * Returns the number of names, 0 when there are none, or a negative code.
 */
TSM_API int TsmGetMgmtClasses(int handle, char*** list);

/* Releases the list of management classes, if one is held. Returns 0. */
TSM_API int TsmEndGetMgmtClasses(int handle);

/* ------------------------------------------------------------- backup */

/*
 * Creates the directory objects of the path that are missing, each for good at
 * once, and opens an object for writing in a transaction of its own. After 0,
 * call TsmSendData as often as needed and then TsmEndBackup; the object is not
 * stored before that.
 *   size  expected bytes. 0 stores a directory object, which takes no data: to
 *         store an empty file, announce another size and send nothing. A
 *         negative size comes back as the negative result of TsmBeginRestore.
 * Storing under a taken name keeps the older version as an inactive one.
 * Releases the session's inventory (TsmGetBackupInfo).
 * Returns 0 or a negative code. After a failure the transaction may still be
 * open: call TsmEndBackup (its result does not matter, nothing is stored) or
 * close the session, before the session is used for anything else. When the
 * server gives the transaction up without a reason the result is 0 although
 * nothing is open; the TsmSendData or TsmEndBackup that follows then fails.
 */
TSM_API int TsmBeginBackup(int handle, char* path, char* name, long long size);

/*
 * The same, with
 *   objInfo    a text stored with the object, up to 65534 bytes (listings give
 *              the first 254), or null
 *   mgmtClass  the management class for the object and for directory objects
 *              created on the way, or null for the server's choice
 */
TSM_API int TsmBeginBackupEx(int handle, char* path, char* name, long long size, char* objInfo, char* mgmtClass);

/*
 * Sends length bytes as the next part of the open object. The buffer is only
 * read and is free again on return; the library copies it once, so a call
 * takes length bytes of memory.
 * Returns 0 when the API took all of it (or gave the transaction up without a
 * reason: TsmEndBackup then fails), or a negative code. After a failure close
 * the session: TsmEndBackup could commit what was sent so far as if it
 * were the whole object.
 */
TSM_API int TsmSendData(int handle, unsigned char* buffer, int length);

/*
 * Ends the open object and commits it. After 0 it is stored for good and
 * visible to all; after a negative value it is not stored. The result is that
 * of the commit: where the API failed to end the object but committed all the
 * same, it is 0, and only a listing tells.
 */
TSM_API int TsmEndBackup(int handle);

/* ---------------------------------------------------------- inventory */

/*
 * Lists stored objects.
 *   path        the directory; "*" for every directory. May hold the
 *               wildcards * (any run of characters, delimiters too) and ?
 *   name        the name, may hold wildcards; null: every name in the path,
 *               where the delimiter is "/" or a backslash (with another
 *               delimiter pass "*")
 *   activeOnly  flag: only active versions; otherwise inactive ones as well,
 *               one record a version
 *   objectType  TSM_OBJECTS_...; any value but 0 and 1 means files
 *   objects     receives an array of as many records as the result says, in
 *               the server's order; null when there are none. It stays the
 *               session's and is valid until TsmEndGetBackupInfo, the end of
 *               the session, the next listing that finds something, or the
 *               next TsmBeginBackup, TsmDelete or TsmRenameBackup with the
 *               handle, whichever comes first.
 * Returns the number of records, 0 when nothing matches, or a negative code.
 * A listing that cannot even begin leaves *objects as it was.
 */
TSM_API int TsmGetBackupInfo(int handle, char* path, char* name, int activeOnly, int objectType, TsmObject** objects);

/* Releases the records of the last listing, if any are held. Returns 0. */
TSM_API int TsmEndGetBackupInfo(int handle);

/*
 * The same listing of the versions that were current at a point in time; with
 * a null pointInTime, of the active versions.
 */
TSM_API int TsmGetBackupInfoPointInTime(int handle, char* path, char* name, char* pointInTime, int objectType,
                                        TsmObject** objects);

/* The same as TsmEndGetBackupInfo. */
TSM_API int TsmEndGetBackupInfoPointInTime(int handle);

/* ------------------------------------------------------------ restore */

/*
 * Opens an object for reading: the active version, or with pointInTime the one
 * that was current then. Directory objects are not found. The name is taken as
 * it is: one that begins with the delimiter gets a second one. Wildcards match;
 * of several matches the one that the server gives last is read.
 * Returns the size announced when the object was backed up, in bytes (0 or
 * more), -2 when nothing matches, or another negative code. After 0 or more,
 * read with TsmGetData until it returns 0 or less, then call TsmEndRestore;
 * after a failure call TsmEndRestore too (its result does not matter).
 */
TSM_API long long TsmBeginRestore(int handle, char* path, char* name, char* pointInTime);

/*
 * Reads the next piece of the open object to the memory at *buffer; the
 * pointer itself is not changed.
 *   size  wanted bytes at most; anything below 32768 counts as 32768, so the
 *         memory at *buffer must have room for max(size, 32768) bytes
 * Returns the number of bytes placed, 0 after the last one, or a negative code.
 */
TSM_API int TsmGetData(int handle, unsigned char** buffer, int size);

/* Ends the reading, at any point of it. Returns 0 or a negative code. */
TSM_API int TsmEndRestore(int handle);

/* ----------------------------------------------- deletion and renaming */

/*
 * Deletes objects, one transaction each, and then the directory objects of
 * the path that hold nothing active any more, climbing towards the top.
 *   path         the directory; "*" for every directory
 *   name         the name, may hold wildcards; null: every name in the path,
 *                directory objects among them (as for TsmGetBackupInfo)
 *   allVersions  flag: every version, for good (the node needs permission for
 *                that); otherwise the active version becomes inactive
 *   pointInTime  null, or a moment that the server's search is limited to
 * The climb removes by name: where a file bears the name of an emptied
 * directory, that file goes as well, and wildcards in the path match.
 * Releases the session's inventory.
 * Returns 0, also when nothing matched, or a negative code at the first
 * failure (-2302 for a transaction that the server refused); what was deleted
 * before it stays deleted. A transaction may be left open, after a failure and,
 * where the climb failed, also after 0: when the next call answers -2041, call
 * TsmEndBackup or close the session.
 */
TSM_API int TsmDelete(int handle, char* path, char* name, int allVersions, char* pointInTime);

/*
 * Renames an object with all its versions, inside the filespace. What is
 * stored under the new name is deleted first, every version of it; where the
 * server refuses that, it is moved aside, to the new path and name with the
 * time appended to both. Whatever remains under the old name is deleted, empty
 * directory objects of the old path go, those of the new path are created.
 * Renaming an object to its own name therefore deletes it. Of a name that holds
 * both a file and a directory object, the kind that the server lists first is
 * renamed, and the other is what remains and is deleted.
 * Releases the session's inventory.
 * Returns 0, -2 when nothing is stored under the old name, or a negative code.
 * 0 is also what a transaction that the server gave up without a reason leaves:
 * list the new name to be sure. With a taken new name, the path takes 25 bytes
 * less and the name too (-2120 otherwise, before anything is deleted). A
 * transaction may be left open as by TsmDelete.
 */
TSM_API int TsmRenameBackup(int handle, const char* oldPath, const char* oldName, const char* newPath,
                            const char* newName);

#ifdef __cplusplus
} /* extern "C" */

#include <pthread.h>

/*
 * Lets another node read the backups of a filespace.
 *   node        the node that gets access
 *   fileSpace   the filespace's full name on the server, leading delimiter included
 *   unused      not read
 * Returns 0 or a negative code. C++ linkage.
 */
TSM_API int TsmSetAccess(int handle, char* node, char* fileSpace, char* unused);

/*
 * The library's one instance: null before TsmInitApi and after TsmReleaseApi.
 * To be compared with null only.
 */
class TsmApi;
extern TSM_API TsmApi* tsmApi;

/*
 * POSIX primitives with C++ linkage, for hosts without their own. All but
 * dpsThreadCreate return what the POSIX call returned, 0 or an error number, and
 * print a line with that number to standard output when it is not 0. They are
 * as thread-safe as the calls behind them.
 */
TSM_API int dpsMutexInit(pthread_mutex_t* mutex);
TSM_API int dpsMutexDestroy(pthread_mutex_t* mutex);
TSM_API int dpsMutexLock(pthread_mutex_t* mutex);
TSM_API int dpsMutexUnlock(pthread_mutex_t* mutex);
TSM_API int dpsCreateCondition(pthread_cond_t* condition);
TSM_API int dpsDestroyCondition(pthread_cond_t* condition);
/* Waits on, silently, where the wait is interrupted (EINTR). */
TSM_API int dpsWaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex);
TSM_API int dpsSignalCondition(pthread_cond_t* condition);

/*
 * Starts a thread that runs start(argument). Nobody can join it: let it call
 * pthread_detach(pthread_self()), or its stack stays until the process ends.
 * Returns 0 and prints nothing, also when no thread could be started: let the
 * thread itself say that it runs.
 */
TSM_API int dpsThreadCreate(void* (*start)(void*), void* argument);
#endif /* __cplusplus */

#endif
