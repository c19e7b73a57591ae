/* Writes an object to standard output: the active version, or the one that was current at a moment. */
#include "host.h"

static unsigned char room[256 * 1024];

static int Copy(int session) {
    int length;
    while ((length = GetPiece(session, room, (int)sizeof room)) > 0) {
        if (fwrite(room, 1, (size_t)length, stdout) != (size_t)length) break;
    }
    return length < 0 ? Problem("TsmGetData", length) : FinishOutput();
}

static int Restore(int session, char** arguments) {
    const long long size = TsmBeginRestore(session, arguments[0], arguments[1], arguments[2]);
    const int failed = size < 0 ? Problem("TsmBeginRestore", size) : Copy(session);
    /* Called after a failure too; its result does not matter then. */
    const int result = TsmEndRestore(session);
    return failed || result >= 0 ? failed : Problem("TsmEndRestore", result);
}

/* A text that the library cannot read as a moment counts as none, and any version might come back. */
static int IsMoment(const char* text) {
    int year, month, day, hour, minute, second, end = 0;
    return sscanf(text, "%4d-%2d-%2d %2d:%2d:%2d%n", &year, &month, &day, &hour, &minute, &second, &end) == 6 &&
           text[end] == '\0' && year > 0 && month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour >= 0 &&
           hour <= 23 && minute >= 0 && minute <= 59 && second >= 0 && second <= 59;
}

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4 || (argc == 4 && !IsMoment(argv[3]))) {
        return Usage("restore PATH NAME ['YYYY-MM-DD hh:mm:ss'] > DATA");
    }
    if (!NameIsPlain(argv[1], argv[2])) return 2;
    return RunTask(Restore, argv + 1);
}
