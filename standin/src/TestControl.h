// The server's clock, which tests may stop (standin/testcontrol.h).
#pragma once

#include <cstdint>

namespace standin {
namespace control {

// In seconds since 1970 in UTC.
std::int64_t Now();

}  // namespace control
}  // namespace standin
