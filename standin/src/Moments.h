// Moments are kept as seconds since 1970 in UTC. To the API they are local time of the process that asks, which is
// written here as the number YYYYMMDDhhmmss.
#pragma once

#include <cstdint>
#include <optional>

namespace standin {

std::int64_t LocalTime(std::int64_t moment);

// The moments of a local time: one, or two where the clocks were set back. A time that they skipped counts as if
// they had not been set yet.
struct Moments {
    std::int64_t later, earlier;
};
Moments MomentsOf(std::int64_t localTime);

// Of a text such as "2021-03-07 09:05:00", the later one; none where it is no moment.
std::optional<std::int64_t> MomentIn(const char* text);

}  // namespace standin
