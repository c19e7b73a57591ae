/* Stores standard input as one object. */
#include <errno.h>

#include "host.h"

static unsigned char piece[256 * 1024];

/* Returns the length of the next piece, 0 after the last one, -1 after reporting that reading failed. */
static int ReadPiece(void) {
    const size_t length = fread(piece, 1, sizeof piece, stdin);
    if (!ferror(stdin)) return (int)length;
    perror("standard input");
    return -1;
}

/* The size to announce. 0 would store a directory object, so an empty stream announces 1. A server may stop a stream
 * that goes beyond it, so one of unknown size announces more than it is likely to have. */
static long long Announced(const char* text) {
    if (text == NULL) return 10LL << 30;
    char* end = NULL;
    errno = 0;
    const long long size = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return -1;
    return size == 0 ? 1 : size;
}

static int Backup(int session, char** arguments) {
    /* Read before TsmBeginBackup, which commits directory objects at once. */
    int length = ReadPiece();
    if (length < 0) return EXIT_FAILURE;
    int result = TsmBeginBackup(session, arguments[0], arguments[1], Announced(arguments[2]));
    if (result < 0) return Problem("TsmBeginBackup", result);
    while (length > 0) {
        result = TsmSendData(session, piece, length);
        /* No TsmEndBackup from here: it could commit half an object. Closing the session drops it. */
        if (result < 0) return Problem("TsmSendData", result);
        length = ReadPiece();
        if (length < 0) return EXIT_FAILURE;
    }
    result = TsmEndBackup(session);
    return result < 0 ? Problem("TsmEndBackup", result) : 0;
}

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4 || Announced(argv[3]) < 0) return Usage("backup PATH NAME [BYTES] < DATA");
    if (!NameIsPlain(argv[1], argv[2])) return 2;
    return RunTask(Backup, argv + 1);
}
