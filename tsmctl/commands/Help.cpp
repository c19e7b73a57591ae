// help: prints the help of tsmctl or of a command, as --help does. It needs no server.
#include <memory>

#include "Arguments.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct HelpOptions {
    std::string command;  // empty for tsmctl itself
};

void Help(const HelpOptions& options, const CLI::App& tsmctl, Context& context) {
    const CLI::App* const about = options.command.empty() ? &tsmctl : tsmctl.get_subcommand(options.command);
    const std::string name = options.command.empty() ? "tsmctl" : "tsmctl " + options.command;
    context.report.Text(tsmctl.get_formatter()->make_help(about, name, CLI::AppFormatMode::Normal));
}

}  // namespace

void AddHelp(CommandLine& line) {
    const auto options = std::make_shared<HelpOptions>();
    const CLI::App& tsmctl = line.Syntax();
    CLI::App& command = line.Add("help", "Show this help, or that of a command", {"tsmctl help", "tsmctl help backup"},
                                 [options, &tsmctl](Context& context) { Help(*options, tsmctl, context); });
    std::vector<std::string> names;
    for (const CLI::App* known : tsmctl.get_subcommands({})) names.push_back(known->get_name());
    AddChoice(command, "COMMAND", options->command, "the command", names);
}

}  // namespace tsmctl
