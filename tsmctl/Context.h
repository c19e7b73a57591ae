#pragma once

#include "Connection.h"
#include "Report.h"

namespace tsmctl {

// What a command works with when it runs.
struct Context {
    Connection& connection;
    Report& report;
    int status = 0;  // of the program, when nothing failed
};

}  // namespace tsmctl
