// help: prints the help of tsmctl or of a command, as --help does. It needs no server.
#include <memory>

#include "Arguments.h"
#include "HelpFormatter.h"
#include "commands/Commands.h"

namespace tsmctl {

void AddHelp(CommandLine& line) {
    const auto about = std::make_shared<std::string>();  // empty for tsmctl itself
    const CLI::App& tsmctl = line.Syntax();
    const auto help = [about, &tsmctl](Context& context) {
        context.report.Text(about->empty() ? HelpText(tsmctl, "tsmctl")
                                           : HelpText(*tsmctl.get_subcommand(*about), "tsmctl " + *about));
    };
    CLI::App& command =
        line.Add("help", "Show this help, or that of a command", {"tsmctl help", "tsmctl help backup"}, help);
    std::vector<std::string> names;
    for (const CLI::App* known : tsmctl.get_subcommands({})) names.push_back(known->get_name());
    AddChoice(command, "COMMAND", *about, "the command", names);
}

}  // namespace tsmctl
