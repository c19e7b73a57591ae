#pragma once

#include "Connection.h"
#include "Report.h"

namespace tsmctl {

// What a command works with when it runs.
struct Context {
    Connection& connection;
    Report& report;
};

}  // namespace tsmctl
