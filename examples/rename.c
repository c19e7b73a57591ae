/* Gives a file another name, with all its versions. */
#include "host.h"

static int Rename(int session, char** arguments) {
    char* const oldPath = arguments[0];
    char* const oldName = arguments[1];
    char* const newPath = arguments[2];
    char* const newName = arguments[3];
    if (CheckKinds(session, oldPath, oldName, 0) != 0) return EXIT_FAILURE;
    /* A rename first deletes every version under the new name. */
    const int taken = Count(session, newPath, newName, 0, TSM_OBJECTS_ANY);
    if (taken != 0) return taken < 0 ? EXIT_FAILURE : PrintRefusal(newPath, newName, "is taken");

    const int result = TsmRenameBackup(session, oldPath, oldName, newPath, newName);
    if (result < 0) return Problem("TsmRenameBackup", result);
    /* 0 is also the result when the server gave up without a reason. */
    const int renamed = Count(session, newPath, newName, 0, TSM_OBJECTS_FILES);
    return renamed > 0 ? 0 : renamed < 0 ? EXIT_FAILURE : PrintRefusal(newPath, newName, "the server did not rename");
}

/* The library drops one slash at the end of a path and adds one in front where it is missing. */
static int SamePath(const char* one, const char* other) {
    size_t oneLength = strlen(one);
    size_t otherLength = strlen(other);
    if (oneLength > 0 && one[oneLength - 1] == '/') --oneLength;
    if (otherLength > 0 && other[otherLength - 1] == '/') --otherLength;
    const size_t oneStart = oneLength > 0 && one[0] == '/';
    const size_t otherStart = otherLength > 0 && other[0] == '/';
    return oneLength - oneStart == otherLength - otherStart &&
           memcmp(one + oneStart, other + otherStart, oneLength - oneStart) == 0;
}

int main(int argc, char** argv) {
    if (argc != 5) return Usage("rename PATH NAME NEWPATH NEWNAME");
    if (!NameIsPlain(argv[1], argv[2]) || !NameIsPlain(argv[3], argv[4])) return 2;
    /* Renaming an object to its own name deletes it. */
    if (SamePath(argv[1], argv[3]) && strcmp(argv[2], argv[4]) == 0) {
        fputs("both names are the same\n", stderr);
        return 2;
    }
    return RunTask(Rename, argv + 1);
}
