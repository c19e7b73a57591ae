/* Lists every stored version: when it was stored, its size as announced, its name. */
#include "host.h"

static int List(int session, char** arguments) {
    char* const path = arguments[0] == NULL ? "*" : arguments[0];
    char* const name = arguments[0] == NULL ? NULL : arguments[1];
    TsmObject* objects = NULL;
    const int count = TsmGetBackupInfo(session, path, name, 0, TSM_OBJECTS_ANY, &objects);
    if (count < 0) return Problem("TsmGetBackupInfo", count);
    for (int i = 0; i < count; ++i) {
        const TsmObject* const object = &objects[i];
        printf("%-19s %12lld %s%s%s\n", object->backupDate, object->size, object->highLevelName, object->lowLevelName,
               object->isFile ? "" : "/");
    }
    TsmEndGetBackupInfo(session);
    return FinishOutput();
}

int main(int argc, char** argv) {
    if (argc > 3) return Usage("list [PATH [NAME]]   (both may hold wildcards)");
    return RunTask(List, argv + 1);
}
