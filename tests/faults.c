/* In a host, linked or preloaded: TSM_FAULT in its environment ("dsmSendData 2 41") makes that call fail; a fourth
   number is the reason that goes with it. */
#include <stdio.h>
#include <stdlib.h>

#include "standin/testcontrol.h"

__attribute__((constructor)) static void Arm(void) {
    char call[32];
    unsigned nth;
    short code;
    unsigned short reason = 0;
    const char* const fault = getenv("TSM_FAULT");
    if (fault == NULL) return;
    if (sscanf(fault, "%31s %u %hd %hu", call, &nth, &code, &reason) < 3 || standinFail(call, nth, code, reason) != 0)
        abort();
}
