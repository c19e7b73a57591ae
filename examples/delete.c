/* Deletes the files that match, one by one. What was stored stays restorable at earlier moments. */
#include "host.h"

static int DeleteEach(int session, TsmObject* objects, int count) {
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        char* const path = objects[i].highLevelName;
        char* const name = objects[i].lowLevelName;
        /* Another host's name may have wildcards in it, and match more than itself. */
        if (!NameIsPlain(path, name + 1) || CheckKinds(session, path, name + 1, 1) != 0) {
            failed = EXIT_FAILURE;
            continue;
        }
        /* 1 instead of 0: every version, for good. */
        const int result = TsmDelete(session, path, name, 0, NULL);
        /* A transaction may be left open: do nothing more with this session. */
        if (result < 0) return Problem("TsmDelete", result);
        /* 0 is also the result when the library's own search failed. */
        const int left = Count(session, path, name, 1, TSM_OBJECTS_FILES);
        if (left != 0) return left < 0 ? EXIT_FAILURE : PrintRefusal(path, name, "is still there");
        printf("deleted %s%s\n", path, name);
    }
    return FinishOutput() || failed;
}

static int Delete(int session, char** arguments) {
    TsmObject* objects = NULL;
    const int count = TsmGetBackupInfo(session, arguments[0], arguments[1], 1, TSM_OBJECTS_FILES, &objects);
    if (count < 0) return Problem("TsmGetBackupInfo", count);
    if (count == 0) {
        fprintf(stderr, "%s %s: nothing is stored under this name\n", arguments[0], arguments[1]);
        return EXIT_FAILURE;
    }
    /* The records are the session's, and invalid after the first TsmDelete. */
    const size_t bytes = (size_t)count * sizeof *objects;
    TsmObject* const copies = malloc(bytes);
    if (copies != NULL) memcpy(copies, objects, bytes);
    TsmEndGetBackupInfo(session);
    if (copies == NULL) {
        perror("delete");
        return EXIT_FAILURE;
    }
    const int failed = DeleteEach(session, copies, count);
    free(copies);
    return failed;
}

int main(int argc, char** argv) {
    if (argc != 3) return Usage("delete PATH NAME   (both may hold wildcards)");
    return RunTask(Delete, argv + 1);
}
