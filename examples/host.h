/*
 * Shared by the examples, in C11 and in C++17: signing on and off, reporting failures, checking names.
 * The environment says where to sign on:
 *   TSM_CONFIG     the client API's options file; if it is not set, the API decides
 *   TSM_NODE, TSM_PASSWORD, TSM_FILESPACE
 */
#ifndef EXAMPLES_HOST_H
#define EXAMPLES_HOST_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tsmconnector.h>

/* The exit status for a command line that is wrong. */
static inline int Usage(const char* line) {
    fprintf(stderr, "usage: %s\n", line);
    return 2;
}

/* Reports a call that failed. Returns the exit status for that. */
static inline int Problem(const char* call, long long result) {
    fprintf(stderr, "%s failed: %lld%s\n", call, result, result == -2 ? " (nothing is stored under this name)" : "");
    return EXIT_FAILURE;
}

/* Backups and restores take names as they are, listings and deletions rewrite them. Accepts what both read alike. */
static inline int NameIsPlain(const char* path, const char* name) {
    if (strpbrk(path, "*?\\") == NULL && strstr(path, "//") == NULL && *name != '\0' && strpbrk(name, "*?\\/") == NULL)
        return 1;
    fprintf(stderr,
            "%s %s: no name for one object (wildcards, a backslash, a slash in the name, two in a row, or no name)\n",
            path, name);
    return 0;
}

/* Writing what standard output still buffers may fail. Returns 0 when all of it was written. */
static inline int FinishOutput(void) {
    if (fflush(stdout) == 0 && !ferror(stdout)) return 0;
    perror("standard output");
    return EXIT_FAILURE;
}

/* Call it once, before other threads use the library. Returns 0, or EXIT_FAILURE after reporting why. */
static inline int StartApi(void) {
    const int result = TsmInitApi(getenv("TSM_CONFIG"), NULL, NULL, NULL);
    return result == 0 ? 0 : Problem("TsmInitApi", result);
}

/* Call it once, after the last call of every thread, and also when StartApi failed. Returns the exit status. */
static inline int EndApi(int failed) {
    const int result = TsmReleaseApi();
    if (result != 0) failed = Problem("TsmReleaseApi", result);
    return failed ? EXIT_FAILURE : EXIT_SUCCESS;
}

/* Returns a session connected to the filespace, which the caller closes, or 0 after reporting why there is none. */
static inline int OpenSession(void) {
    char* const node = getenv("TSM_NODE");
    char* const password = getenv("TSM_PASSWORD");
    char* const fileSpace = getenv("TSM_FILESPACE");
    if (node == NULL || password == NULL || fileSpace == NULL) {
        fputs("set TSM_NODE, TSM_PASSWORD and TSM_FILESPACE\n", stderr);
        return 0;
    }
    char delimiter[] = "/";
    const int session = TsmOpenSession(node, NULL, password, NULL, NULL, NULL, delimiter);
    if (session <= 0) {
        Problem("TsmOpenSession", session);
        return 0;
    }
    const int result = TsmConnectToFileSpace(session, fileSpace);
    if (result >= 0) return session;
    Problem("TsmConnectToFileSpace", result);
    TsmCloseSession(session);
    return 0;
}

static inline int PrintRefusal(const char* path, const char* name, const char* why) {
    fprintf(stderr, "%s %s: %s\n", path, name, why);
    return EXIT_FAILURE;
}

/* Returns how many versions a name has, or -1 after reporting why that is not known. */
static inline int Count(int session, char* path, char* name, int activeOnly, int objectType) {
    TsmObject* objects = NULL;
    const int count = TsmGetBackupInfo(session, path, name, activeOnly, objectType, &objects);
    if (count < 0) Problem("TsmGetBackupInfo", count);
    TsmEndGetBackupInfo(session);
    return count < 0 ? -1 : count;
}

/*
 * Deleting and renaming go by name. A directory object with the file's name would go with it, and so would a file with
 * the name of a directory above that is left empty. Returns 0 if there is neither, or EXIT_FAILURE after reporting what
 * is in the way.
 */
static inline int CheckKinds(int session, const char* path, const char* name, int activeOnly) {
    char level[1300]; /* more than a path and a name can have */
    if (*path == '/') ++path;
    if (snprintf(level, sizeof level, "/%s/%s", path, name) >= (int)sizeof level)
        return PrintRefusal(path, name, "too long");
    int wrong = TSM_OBJECTS_DIRECTORIES;
    for (char* slash; (slash = strrchr(level, '/')) != NULL; wrong = TSM_OBJECTS_FILES) {
        *slash = '\0';
        if (slash[1] == '\0') continue;
        const int count = Count(session, level, slash + 1, activeOnly, wrong);
        if (count < 0) return EXIT_FAILURE;
        if (count > 0)
            return PrintRefusal(level, slash + 1, wrong == TSM_OBJECTS_FILES ? "is a file" : "is a directory");
    }
    return 0;
}

/*
 * Reads the next piece of a restore into size bytes of memory, 32768 or more. Returns the number of bytes, 0 after the
 * last one, or a negative code. A piece may also be empty: only a 0 that repeats is the end.
 */
static inline int GetPiece(int session, unsigned char* room, int size) {
    const int length = TsmGetData(session, &room, size);
    return length != 0 ? length : TsmGetData(session, &room, size);
}

/*
 * Runs a program with one task on one session. The task gets the session and the command line's arguments (ended by a
 * null pointer) and returns 0 when it is done. The session is always closed, so that the server drops what a failed
 * task left open. Returns the exit status.
 */
static inline int RunTask(int (*task)(int session, char** arguments), char** arguments) {
    int failed = StartApi();
    if (!failed) {
        const int session = OpenSession();
        failed = session == 0 || task(session, arguments) != 0;
        const int result = TsmCloseSession(session);
        if (result != 0) failed = Problem("TsmCloseSession", result);
    }
    return EndApi(failed);
}

#endif
