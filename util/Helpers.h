#pragma once

#include "util/DsmApi.h"

// Converts a number of bytes to the API's two words and back. Stateless; any thread may call any member at any time.
class __attribute__((visibility("default"))) Helpers {
public:
    Helpers();
    ~Helpers();

    static dsStruct64_t GetSizeEstimate(long long size);
    static long long GetSizeFromStruct(dsStruct64_t size);
};
