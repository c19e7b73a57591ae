#include <stdio.h>
#include <tsmconnector.h>

int main(void) {
    int failed = TsmInitApi("dsm.opt", ".", NULL, NULL) != 0;
    int session = TsmOpenSession("MYNODE", NULL, "secret", NULL, NULL, NULL, "/");
    failed = failed || session <= 0 || TsmConnectToFileSpace(session, "vm01") != 0 ||
             TsmBeginBackup(session, "disks/today", "greeting", 5) != 0 ||
             TsmSendData(session, (unsigned char*)"hello", 5) != 0 || TsmEndBackup(session) != 0;
    printf(failed ? "not stored\n" : "stored\n");
    return TsmReleaseApi() != 0 || failed;
}
