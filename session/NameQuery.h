// The query behind both listings of names.
#pragma once

#include <climits>
#include <new>
#include <string>
#include <vector>

#include "session/NameList.h"
#include "session/Query.h"
#include "session/Result.h"

namespace connector {

struct NameQuery {
    dsmQueryType type;
    dsmQueryBuff* what;
    int noMatch;  // the result when the API answers that nothing matches
};

// Runs a query, gathers the names that take(response, names) appends, has the session hold them and shows them in
// list, which is written as soon as the query has begun. held is empty before, and after a failure. Returns the number
// of names or a negative result, and lets no exception out.
template <class Response, class Take>
int ListNames(dsUint32_t handle, const NameQuery& query, Response& response, Take take, const HeldNames& held,
              char**& list) noexcept try {
    if (const dsInt16_t rc = dsmBeginQuery(handle, query.type, query.what)) return Negated(rc);
    list = nullptr;
    std::vector<std::string> names;
    const dsInt16_t end = ForEachResponse(handle, response, [&](const Response& found) {
        take(found, names);
        if (names.size() > INT_MAX) throw std::bad_alloc();  // more than fit into a result
    });
    if (end == DSM_RC_ABORT_NO_MATCH) return query.noMatch;
    if (end != DSM_RC_FINISHED) return NegatedUnexpected(end);
    if (const dsInt16_t rc = dsmEndQuery(handle)) return Negated(rc);
    HoldNames(held, names);
    list = held.list;
    return held.count;
} catch (...) {
    return CaughtResult();
}

}  // namespace connector
