/*
 * testcontrol.h - the stand-in's clock and its failures, in the hands of a test.
 *
 * Not part of the client API: only tests and benchmarks include it. All of it
 * concerns this process alone and may be called by any thread at any time.
 */
#ifndef STANDIN_TESTCONTROL_H
#define STANDIN_TESTCONTROL_H

#include "dsmapitd.h"

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/*
 * Stops the server's clock at a moment, "2021-03-07 09:05:00"; null lets it run
 * again, as the options file has it. Returns 0, or -1 for a text that is no moment.
 */
int standinSetClock(const char* moment);

/*
 * Makes the nth next call (from 1) of a function ("dsmSendObj", or "*" for any)
 * answer with rc instead of being carried out. Several can be waiting at once.
 * Returns 0, or -1 for an unknown function, an nth of 0, or dsmQueryApiVersionEx,
 * which cannot fail and does not count for "*".
 *   - DSM_RC_WILL_ABORT inside a transaction marks it as given up for reason;
 *   - dsmEndTxn drops the transaction and reports reason, also with rc 0;
 *   - dsmTerminate, dsmCleanUp, dsmEndQuery and dsmEndGetData still end what
 *     they end, and dsmGetNextQObj ends the query.
 */
int standinFail(const char* function, unsigned nth, dsInt16_t rc, dsUint16_t reason);

/* Lets one dsmSendData take at most this many bytes; 0 lifts the limit. */
void standinTakeAtMost(dsUint32_t bytes);

/* Calls of a function, or with "*" of all, since the start or the last reset. */
unsigned long standinCalls(const char* function);

/* Forgets failures, limit and counts, and lets the clock run. What the options file asks for stays. */
void standinReset(void);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
