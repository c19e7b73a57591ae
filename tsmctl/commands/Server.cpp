// Commands that concern the node rather than single objects.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Errors.h"
#include "Terminal.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

void PrintNames(Context& context, const char* key, char** names, long long count) {
    for (long long i = 0; i < count; ++i) {
        if (context.options.json) {
            context.report.Json({{key, names[i]}});
        } else {
            context.report.Entry(names[i]);
        }
    }
}

}  // namespace

void RunFilespaces(Context& context) {
    Session session(context.connection, false);
    char** names = nullptr;
    const int handle = session.Handle();
    const int result = TsmGetFileSpaces(handle, &names);
    const long long count = result == -2 ? 0 : session.Check("cannot list the filespaces", result);
    PrintNames(context, "filespace", names, count);
    TsmEndGetFileSpaces(handle);
}

void RunClasses(Context& context) {
    Session session(context.connection, false);
    char** names = nullptr;
    const int handle = session.Handle();
    const long long count = session.Check("cannot list the management classes", TsmGetMgmtClasses(handle, &names));
    PrintNames(context, "class", names, count);
    TsmEndGetMgmtClasses(handle);
}

void RunDeleteFilespace(Context& context) {
    const std::string& name = context.options.paths[0];
    if (name.empty()) throw UsageError("an empty filespace name");
    const std::string question = fmt::format("delete the filespace {} with every version in it", name);
    if (!Confirmed(context.options.yes, question, name)) throw Failure("not confirmed, nothing deleted");
    Session session(context.connection, false);
    session.Check("cannot delete the filespace", TsmDeleteFileSpace(session.Handle(), Text(name)));
    context.report.Line(fmt::format("deleted filespace {}", name));
}

void RunGrant(Context& context) {
    const std::string& node = context.options.paths[0];
    if (node.empty()) throw UsageError("an empty node name");
    Session session(context.connection);
    const std::string filespace = "/" + context.options.filespace;
    session.Check("cannot grant access", TsmSetAccess(session.Handle(), Text(node), Text(filespace), nullptr));
    context.report.Line(fmt::format("granted {} access to filespace {}", node, context.options.filespace));
}

}  // namespace tsmctl
