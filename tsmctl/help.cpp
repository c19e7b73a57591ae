#include "help.h"

#include <algorithm>

std::string ValueOf(const CLI::Option& option) {
    if (option.get_expected_max() == 0) return "";
    const std::string type = option.get_type_name();  // "TEXT:{any,dir,file}" where a check names the set
    const size_t set = type.find('{');
    if (set == std::string::npos) return type.substr(0, type.find(':'));
    std::string values = type.substr(set + 1, type.find('}') - set - 1);
    std::replace(values.begin(), values.end(), ',', '|');
    return values;
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
