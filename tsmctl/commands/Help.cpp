// help: prints the help of tsmctl or of a command, as --help does. It needs no server.
#include <memory>

#include "commands/Commands.h"

namespace tsmctl {

void AddHelp(CommandLine& line) {
    const auto about = std::make_shared<std::string>();  // empty for tsmctl itself
    const CLI::App& tsmctl = line.Syntax();
    const auto help = [about, &tsmctl](Context& context) {
        const CLI::App* const shown = about->empty() ? &tsmctl : tsmctl.get_subcommand(*about);
        const std::string name = about->empty() ? "tsmctl" : "tsmctl " + *about;
        context.report.Text(tsmctl.get_formatter()->make_help(shown, name, CLI::AppFormatMode::Normal));
    };
    CLI::App& command =
        line.Add("help", "Show this help, or that of a command", {"tsmctl help", "tsmctl help backup"}, help);
    std::vector<std::string> names;
    for (const CLI::App* known : tsmctl.get_subcommands({})) names.push_back(known->get_name());
    command.add_option("COMMAND", *about, "the command")->type_name("")->check(CLI::IsMember(names).description(""));
}

}  // namespace tsmctl
