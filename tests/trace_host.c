/* A host that does what recorders stumble over. Usage: trace_host calls|fork|threads|kill|full */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dsmapifp.h"
#include "dsmrc.h"

int dsmOfTheFuture(int number);

static int diskIsShort, diskIsFull, interrupted;

static void* Send(void* count);

/* In front of the system's: a disk that takes a part only, or nothing, of what is not meant for a terminal. The first
   time that it is full a signal's handler makes a call as well. */
__attribute__((visibility("default"))) ssize_t write(int file, const void* bytes, size_t size) {
    if (diskIsFull && file > 2) {
        if (!interrupted++) Send((void*)1);
        errno = ENOSPC;
        return -1;
    }
    return syscall(SYS_write, file, bytes, diskIsShort && file > 2 ? size - size / 3 : size);
}

static void Must(int holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "%s\n", what);
    exit(1);
}

static void* Send(void* count) {
    char data[] = "PLANTED-data";
    for (long i = 0; i < (long)count; ++i) {
        DataBlk block = {DataBlkVersion, sizeof data - 1, 0, data};
        Must(dsmSendData(1, &block) == 0 && block.numBytes == sizeof data - 1, "dsmSendData");
    }
    return NULL;
}

static void Calls(void) {
    dsmObjName name;
    memset(&name, 'x', sizeof name); /* no field ends */
    qryBackupData query = {qryBackupDataVersion, &name, NULL, DSM_ACTIVE, {0, 0, 0, 0, 0, 0}};
    char room[100];
    DataBlk block = {DataBlkVersion, sizeof room, 0, room};
    Must(dsmBeginQuery(1, qtBackup, &query) == 0, "dsmBeginQuery");
    Must(dsmGetNextQObj(1, &block) == DSM_RC_MORE_DATA && room[99] == 'x', "dsmGetNextQObj");
    errno = 5;
    Must(dsmBeginTxn(1) == 0 && errno == 77, "errno");
    /* The recording's descriptor is closed, and its number another file's; and a thread has a small stack. */
    const int own = open("own", O_RDWR | O_CREAT | O_TRUNC, 0600);
    dup2(own, 512);
    pthread_attr_t small;
    pthread_t thread;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 64 << 10);
    Must(pthread_create(&thread, &small, Send, (void*)1) == 0, "pthread_create");
    pthread_join(thread, NULL);
    dsmGetList list = {dsmGetListVersion, 1, NULL, (PartialObjData*)1};
    errno = 5;
    Must(dsmBeginGetData(1, bTrue, gtBackup, &list) == DSM_RC_ABORT_SYSTEM_ERROR && errno == 5, "a missing function");
    Must(lseek(own, 0, SEEK_END) == 0, "the host's own file");
    printf("%d\n", dsmOfTheFuture(41));
}

int main(int argc, char** argv) {
    const char* what = argc > 1 ? argv[1] : "";
    if (strcmp(what, "calls") == 0) Calls();
    if (strcmp(what, "fork") == 0) {
        Send((void*)2);
        for (int i = 0; i < 2; ++i) {
            if (fork() == 0) {
                Send((void*)3);
                if (i == 0) _exit(0);
                return 0;
            }
        }
        while (wait(NULL) > 0) continue;
        Send((void*)2);
    }
    if (strcmp(what, "threads") == 0) {
        pthread_t threads[4];
        for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, Send, (void*)5000);
        for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
    }
    if (strcmp(what, "kill") == 0) {
        Send((void*)100);
        raise(SIGKILL);
    }
    if (strcmp(what, "full") == 0) {
        diskIsShort = 1;
        for (diskIsFull = 0; diskIsFull < 2; ++diskIsFull) Send((void*)4000);
        diskIsFull = 0;
        Send((void*)1000);
    }
    return 0;
}
