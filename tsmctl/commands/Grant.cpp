// grant: gives another node access to the backups in the filespace.
#include <fmt/format.h>

#include <memory>

#include "Errors.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct GrantOptions {
    std::string node;
};

void Grant(const GrantOptions& options, Context& context) {
    if (options.node.empty()) throw UsageError("an empty node name");
    Session session(context.connection);
    const std::string& filespace = context.connection.Filespace();
    const std::string path = "/" + filespace;
    const int handle = session.Handle();
    if (context.report.IsDryRun()) {
        return context.report.Line(fmt::format("would grant {} access to filespace {}", options.node, filespace));
    }
    session.Check("cannot grant access", TsmSetAccess(handle, Text(options.node), Text(path), nullptr));
    context.report.Line(fmt::format("granted {} access to filespace {}", options.node, filespace));
}

}  // namespace

void AddGrant(CommandLine& line) {
    const auto options = std::make_shared<GrantOptions>();
    CLI::App& command = line.Add("grant", "Let another node read the filespace",
                                 {"tsmctl grant NODE2", "tsmctl grant NODE2 --filespace shared"},
                                 [options](Context& context) { Grant(*options, context); });
    command.add_option("NODE", options->node, "the node that gets access")->type_name("NAME")->required();
    line.AddDryRun(command);
}

}  // namespace tsmctl
