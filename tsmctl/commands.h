// The commands. Each reports what fails for one object and goes on; what it throws ends the whole command.
#pragma once

#include "connection.h"
#include "options.h"
#include "report.h"

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
