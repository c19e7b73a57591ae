#ifndef UTIL_HELPERS_H
#define UTIL_HELPERS_H

#include "util/DsmApi.h"

// A number of bytes to and from the API's two words. Stateless; any thread may call any member at any time.
class __attribute__((visibility("default"))) Helpers {
public:
    Helpers();
    ~Helpers();

    static dsStruct64_t GetSizeEstimate(long long size);
    static long long GetSizeFromStruct(dsStruct64_t size);
};

#endif
