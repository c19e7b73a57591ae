// How outcomes of the API become the results that hosts see.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <new>

#include "util/DsmApi.h"

namespace connector {

// A failing return code as a result: minus its magnitude.
inline int Negated(dsInt16_t rc) {
    return rc > 0 ? -rc : rc;
}

// The same where 0 is no valid answer either: an API that gives it contradicts itself, which must not read as success.
inline int NegatedUnexpected(dsInt16_t rc) {
    return rc == 0 ? -DSM_RC_ABORT_SYSTEM_ERROR : Negated(rc);
}

// The reason for which the server gave a transaction up, as a result.
inline int NegatedReason(dsUint16_t reason) {
    return -static_cast<int>(reason);
}

// A count as a result: at most as many as fit.
inline int Saturated(std::size_t count) {
    return static_cast<int>(std::min<std::size_t>(count, INT_MAX));
}

// The exception that is being handled, as a result. No exception may leave an exported function: one whose body can
// throw is a try block as a whole, with this in its handler.
inline int CaughtResult() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return -DSM_RC_NO_MEMORY;
    } catch (...) {
        return -DSM_RC_ABORT_SYSTEM_ERROR;
    }
}

}  // namespace connector
