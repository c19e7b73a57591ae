// filespaces, classes, delete-filespace and grant: what the server keeps for the node besides objects. A filespace is
// deleted with every version in it, after a question that its name answers. grant gives another node access to it.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Errors.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

std::vector<std::string> List(Session& session, const char* what, int (*get)(int, char***), int (*end)(int)) {
    char** names = nullptr;
    const int result = get(session.Handle(), &names);
    const long long count = result == TSM_RESULT_ABORT_NO_MATCH
                                ? 0
                                : session.Check(fmt::format("cannot list the {}", what).c_str(), result);
    const std::vector<std::string> found(names, names + count);
    end(session.Handle());
    return found;
}

std::vector<std::string> ListFilespaces(Session& session) {
    return List(session, "filespaces", TsmGetFileSpaces, TsmEndGetFileSpaces);
}

struct DeleteFilespaceOptions {
    std::string name;
    bool yes = false;
};

void DeleteFilespace(const DeleteFilespaceOptions& options, Context& context) {
    const std::string& name = options.name;
    if (name.empty()) throw UsageError("an empty filespace name");
    Session session(context.connection, false);
    const std::string question = fmt::format("delete the filespace {} with every version in it", name);
    if (context.report.IsDryRun()) {
        const std::vector<std::string> there = ListFilespaces(session);
        if (std::count(there.begin(), there.end(), name) == 0) throw Failure("there is no filespace " + name);
        return context.report.Line("would " + question);
    }
    if (!Confirmed(options.yes, question, name)) throw Failure("not confirmed, nothing deleted");
    session.Check("cannot delete the filespace", TsmDeleteFileSpace(session.Handle(), Text(name)));
    context.report.Line(fmt::format("deleted filespace {}", name));
}

void Grant(const std::string& node, Context& context) {
    if (node.empty()) throw UsageError("an empty node name");
    Session session(context.connection);
    const std::string& filespace = context.connection.Filespace();
    const std::string path = "/" + filespace;
    const int handle = session.Handle();
    const bool dryRun = context.report.IsDryRun();
    if (!dryRun) session.Check("cannot grant access", TsmSetAccess(handle, Text(node), Text(path), nullptr));
    context.report.Line(
        fmt::format("{} {} access to filespace {}", dryRun ? "would grant" : "granted", node, filespace));
}

}  // namespace

void AddFilespaces(CommandLine& line) {
    line.Add("filespaces", "List the node's filespaces", {"tsmctl filespaces", "tsmctl filespaces --json"},
             [](Context& context) {
                 Session session(context.connection, false);
                 for (const std::string& name : ListFilespaces(session)) context.report.Name("filespace", name);
             });
}

void AddClasses(CommandLine& line) {
    line.Add("classes", "List the management classes", {"tsmctl classes", "tsmctl classes --json"},
             [](Context& context) {
                 Session session(context.connection, false);
                 const auto names = List(session, "management classes", TsmGetMgmtClasses, TsmEndGetMgmtClasses);
                 for (const std::string& name : names) context.report.Name("class", name);
             });
}

void AddDeleteFilespace(CommandLine& line) {
    auto [command, options] =
        line.Add<DeleteFilespaceOptions>("delete-filespace", "Delete a filespace with everything in it, for good",
                                         {"tsmctl delete-filespace old-host --yes"}, DeleteFilespace);
    command.add_option("NAME", options.name, "the filespace")->type_name("NAME")->required();
    command.add_flag("--yes", options.yes, "do not ask");
    line.AddDryRun(command);
}

void AddGrant(CommandLine& line) {
    auto [command, node] =
        line.Add<std::string>("grant", "Let another node read the filespace",
                              {"tsmctl grant NODE2", "tsmctl grant NODE2 --filespace shared"}, Grant);
    command.add_option("NODE", node, "the node that gets access")->type_name("NAME")->required();
    line.AddDryRun(command);
}

}  // namespace tsmctl
