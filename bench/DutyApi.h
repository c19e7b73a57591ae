// An API that does nothing but its duty: takes or fills the bytes, fills the response.
#ifndef BENCH_DUTYAPI_H
#define BENCH_DUTYAPI_H

// Objects that every backup query finds from now on, on this thread.
void SetFound(long objects);

#endif
