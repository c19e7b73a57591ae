/*
 * An API of a few functions, in place of libApiTSM64: what a recorder must leave as it is, and what it may not suppose.
 * Data is taken, most functions are missing, one is unknown to everybody but its host.
 */
#include <errno.h>
#include <string.h>

#pragma GCC visibility push(default)
#include "dsmapifp.h"
#include "dsmrc.h"

int dsmOfTheFuture(int number) {
    return number + 1;
}

/* Needs errno as the caller left it, changes it, and calls a function that callers can call too. */
dsInt16_t dsmBeginTxn(dsUint32_t handle) {
    const int asLeft = errno;
    dsmEndQuery(handle);
    errno = 77;
    return asLeft == 5 ? DSM_RC_OK : DSM_RC_INVALID_PARM;
}

dsInt16_t dsmEndQuery(dsUint32_t handle) {
    (void)handle;
    return DSM_RC_OK;
}

dsInt16_t dsmSendData(dsUint32_t handle, DataBlk* block) {
    (void)handle;
    block->numBytes = block->bufferLen;
    return DSM_RC_OK;
}

dsInt16_t dsmBeginQuery(dsUint32_t handle, dsmQueryType type, dsmQueryBuff* what) {
    (void)handle, (void)type, (void)what;
    return DSM_RC_OK;
}

/* An answer in the host's memory, whatever room that has. */
dsInt16_t dsmGetNextQObj(dsUint32_t handle, DataBlk* block) {
    (void)handle;
    memset(block->bufferPtr, 'x', block->bufferLen);
    return DSM_RC_MORE_DATA;
}
#pragma GCC visibility pop
