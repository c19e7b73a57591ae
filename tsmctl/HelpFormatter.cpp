#include "HelpFormatter.h"

#include <fmt/format.h>

namespace tsmctl {

std::string TypeOfValue(const CLI::Option& option) {
    return option.get_expected_max() == 0 ? "" : option.get_type_name();
}

namespace {

std::string Names(const CLI::Option& option) {
    if (option.get_positional()) return option.get_name(true);
    std::string names;
    for (const std::string& name : option.get_snames()) names += ",-" + name;
    for (const std::string& name : option.get_lnames()) names += ",--" + name;
    return names.substr(1);
}

std::string Row(const std::string& left, const std::string& right) {
    return fmt::format("  {:<23} {}\n", left, right);
}

std::string RowOf(const CLI::Option& option) {
    std::string names = Names(option);
    if (!option.get_positional() && !TypeOfValue(option).empty()) names += " " + TypeOfValue(option);
    std::string text = option.get_description();
    if (!option.get_default_str().empty()) text += " (default: " + option.get_default_str() + ")";
    if (!option.get_envname().empty()) text += " [" + option.get_envname() + "]";
    return Row(names, text);
}

std::string UsageOf(const CLI::Option& positional) {
    const bool many = positional.get_expected_max() >= CLI::detail::expected_max_vector_size;
    const std::string text = Names(positional) + (many ? "..." : "");
    return positional.get_required() ? " " + text : " [" + text + "]";
}

}  // namespace

std::string HelpFormatter::make_help(const CLI::App* app, std::string name, CLI::AppFormatMode /*mode*/) const {
    std::string usage = name + " [OPTIONS]";
    std::string positionals;
    std::string options;
    std::string commands;
    for (const CLI::Option* option : app->get_options({})) {
        (option->get_positional() ? positionals : options) += RowOf(*option);
        if (option->get_positional()) usage += UsageOf(*option);
    }
    for (const CLI::App* command : app->get_subcommands({})) {
        commands += Row(command->get_name(), command->get_description());
    }
    if (!positionals.empty()) positionals = "\nPositionals:\n" + positionals;
    if (!commands.empty()) commands = "\nCommands:\n" + commands;
    return fmt::format("{}\nUsage: {}{}\n{}\nOptions:\n{}{}\n{}\n", app->get_description(), usage,
                       commands.empty() ? "" : " COMMAND", positionals, options, commands, app->get_footer());
}

}  // namespace tsmctl
