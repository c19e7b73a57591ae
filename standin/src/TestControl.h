// The server's clock, which tests may stop (standin/testcontrol.h).
#pragma once

#include <cstdint>

namespace standin {
namespace control {

// In seconds since 1970 in UTC.
std::int64_t Now();

// Sets the clock for when no test has set it: stopped at a moment unless that is 0, else ahead of the machine's clock
// by so many seconds.
void SetServerClock(std::int64_t stoppedAt, std::int64_t aheadBy);

}  // namespace control
}  // namespace standin
