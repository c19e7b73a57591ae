#pragma once

#include <exception>

#include "dsmapitd.h"

namespace standin {

// Thrown when the server refuses a valid request. Any other exception is a failure of the environment and goes to the
// error log.
class Refusal : public std::exception {
public:
    explicit Refusal(dsInt16_t answer) : code(answer) {}
    const char* what() const noexcept override { return "refused"; }

    const dsInt16_t code;
};

// The code for a failure of the environment. A full disk and a store that cannot be written have codes of their own.
dsInt16_t CodeOf(const std::exception& problem, dsInt16_t otherwise);

}  // namespace standin
