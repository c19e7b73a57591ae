#include "help.h"

std::string ValueOf(const CLI::Option& option) {
    return option.get_expected_max() == 0 ? "" : option.get_type_name();
}

HelpFormatter::HelpFormatter() {
    label("SUBCOMMAND", "COMMAND");
    column_width(26);
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
    const std::string value = ValueOf(*option);
    return option->get_positional() || value.empty() ? "" : " " + value;
}

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
    std::string text = option->get_description();
    if (!option->get_default_str().empty()) text += " (default: " + option->get_default_str() + ")";
    if (!option->get_envname().empty()) text += " [" + option->get_envname() + "]";
    return text;
}

std::string HelpFormatter::make_option_usage(const CLI::Option* option) const {
    const bool many = option->get_expected_max() >= CLI::detail::expected_max_vector_size;
    const std::string text = option->get_name(true, false) + (many ? "..." : "");
    return option->get_required() ? text : "[" + text + "]";
}
