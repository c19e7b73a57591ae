#include "util/Helpers.h"

#include <cstdint>

Helpers::Helpers() {}
Helpers::~Helpers() {}

dsStruct64_t Helpers::GetSizeEstimate(long long size) {
    const auto bits = static_cast<std::uint64_t>(size);
    return {static_cast<dsUint32_t>(bits >> 32), static_cast<dsUint32_t>(bits & 0xFFFFFFFFu)};
}

long long Helpers::GetSizeFromStruct(dsStruct64_t size) {
    return static_cast<long long>((static_cast<std::uint64_t>(size.hi) << 32) + size.lo);
}
