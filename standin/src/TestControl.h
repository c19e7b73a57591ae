// The server's clock, which tests may stop (standin/testcontrol.h).
#pragma once

#include <cstdint>

namespace standin {
namespace control {

// In seconds since 1970 in UTC.
std::int64_t Now();

// How it goes where no test has set it: stopped at a moment if that is not 0, or ahead of the machine's by seconds.
void SetServerClock(std::int64_t stoppedAt, std::int64_t aheadBy);

}  // namespace control
}  // namespace standin
