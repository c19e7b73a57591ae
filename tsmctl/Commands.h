// The commands. Each reports what fails for one object and goes on; what it throws ends the whole command.
#pragma once

#include "Connection.h"
#include "Options.h"
#include "Report.h"

namespace tsmctl {

struct Context {
    const Options& options;
    const Connection& connection;
    Report& report;
};

void RunBackup(Context& context);
void RunRestore(Context& context);
void RunVerify(Context& context);
void RunList(Context& context);
void RunDelete(Context& context);
void RunRename(Context& context);

void RunFilespaces(Context& context);
void RunClasses(Context& context);
void RunDeleteFilespace(Context& context);
void RunGrant(Context& context);

}  // namespace tsmctl
