// The stand-in's side of standin/testcontrol.h: which calls there are, which of them is to fail, what time it is.
#pragma once

#include <cstdint>
#include <optional>

#include "dsmapitd.h"

namespace standin {

// clang-format off
#define STANDIN_CALLS(X)                                                                                      \
    X(SetUp) X(CleanUp) X(InitEx) X(Terminate) X(RCMsg) X(RegisterFS) X(DeleteFS) X(SetAccess) X(BeginQuery)   \
    X(GetNextQObj) X(EndQuery) X(BindMC) X(BeginTxn) X(EndTxn) X(SendObj) X(SendData) X(EndSendObj)            \
    X(BeginGetData) X(GetObj) X(GetData) X(EndGetObj) X(EndGetData) X(DeleteObj) X(RenameObj) X(QueryApiVersionEx)
// clang-format on

enum class Call : unsigned {
#define STANDIN_CALL(name) name,
    STANDIN_CALLS(STANDIN_CALL)
#undef STANDIN_CALL
};

struct Fault {
    dsInt16_t rc;
    dsUint16_t reason;
};

namespace control {

// Counts the call and gives the answer that a test wants instead of its work.
std::optional<Fault> Enter(Call call);

dsUint32_t TakeAtMost(dsUint32_t offered);

// The server's clock, in seconds since 1970 in UTC.
std::int64_t Now();

// How it goes where no test has set it: stopped at a moment if that is not 0, or ahead of the machine's by seconds.
void SetServerClock(std::int64_t stoppedAt, std::int64_t aheadBy);

}  // namespace control
}  // namespace standin
