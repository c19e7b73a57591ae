// grant: gives another node access to the backups in the filespace.
#include <fmt/format.h>

#include <memory>

#include "Errors.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

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

void AddGrant(CommandLine& line) {
    const auto node = std::make_shared<std::string>();
    CLI::App& command = line.Add("grant", "Let another node read the filespace",
                                 {"tsmctl grant NODE2", "tsmctl grant NODE2 --filespace shared"},
                                 [node](Context& context) { Grant(*node, context); });
    command.add_option("NODE", *node, "the node that gets access")->type_name("NAME")->required();
    line.AddDryRun(command);
}

}  // namespace tsmctl
