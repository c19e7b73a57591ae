// The query behind both name listings.
#ifndef SESSION_NAMEQUERY_H
#define SESSION_NAMEQUERY_H

#include <climits>
#include <new>
#include <string>
#include <vector>

#include "session/NameList.h"
#include "session/Query.h"
#include "session/Result.h"

// Runs the query and gathers the names that take(response, names) appends. held and count are the session's list,
// already released; list is what the caller reads, written only once the query has begun. A query without a match
// gives noMatch. Returns the number of names or a negative result; no query is left open but by the API's failure.
template <class Response, class Take>
int QueryNames(dsUint32_t handle, dsmQueryType type, dsmQueryBuff* what, Response& response, int noMatch, Take take,
               char**& held, int& count, char**& list) {
    if (const dsInt16_t rc = dsmBeginQuery(handle, type, what)) return Negated(rc);
    list = nullptr;
    std::vector<std::string> names;
    const dsInt16_t end = ForEachResponse(handle, response, [&](const Response& found) {
        take(found, names);
        if (names.size() > INT_MAX) throw std::bad_alloc();  // more than a result can tell
    });
    if (end == DSM_RC_ABORT_NO_MATCH) return noMatch;
    if (end != DSM_RC_FINISHED) return NegatedUnexpected(end);
    if (const dsInt16_t rc = dsmEndQuery(handle)) return Negated(rc);
    list = held = CopyNames(names);
    count = static_cast<int>(names.size());
    return count;
}

#endif
