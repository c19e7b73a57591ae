#include "HelpFormatter.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace tsmctl {

std::string TypeOfValue(const CLI::Option& option) {
    return option.get_expected_max() == 0 ? "" : option.get_type_name();
}

std::string HelpText(const CLI::App& app, const std::string& name) {
    const auto row = [](const std::string& left, const std::string& right) {
        return fmt::format("  {:<23} {}\n", left, right);
    };
    std::string usage = name + " [OPTIONS]";
    std::string positionals;
    std::string options;
    std::string commands;
    for (const CLI::Option* option : app.get_options({})) {
        std::string names = option->get_name(false, true);
        std::string text = option->get_description();
        if (!option->get_default_str().empty()) text += " (default: " + option->get_default_str() + ")";
        if (!option->get_envname().empty()) text += " [" + option->get_envname() + "]";
        if (option->get_positional()) {
            positionals += row(names, text);
            if (option->get_expected_max() >= CLI::detail::expected_max_vector_size) names += "...";
            usage += option->get_required() ? " " + names : " [" + names + "]";
        } else {
            const std::string type = TypeOfValue(*option);
            options += row(names + (type.empty() ? "" : " ") + type, text);
        }
    }
    for (const CLI::App* command : app.get_subcommands({})) {
        commands += row(command->get_name(), command->get_description());
    }
    if (!positionals.empty()) positionals = "\nPositionals:\n" + positionals;
    if (!commands.empty()) commands = "\nCommands:\n" + commands;
    return fmt::format("{}\nUsage: {}{}\n{}\nOptions:\n{}{}\n{}\n", app.get_description(), usage,
                       commands.empty() ? "" : " COMMAND", positionals, options, commands, app.get_footer());
}

std::string Suggestion(const std::string& typed, const std::vector<std::string>& names) {
    // How many characters must be inserted, removed or replaced.
    const auto distanceTo = [&](const std::string& name) {
        std::vector<size_t> row(name.size() + 1);
        std::iota(row.begin(), row.end(), 0U);
        for (const char c : typed) {
            size_t diagonal = row[0]++;
            for (size_t j = 0; j < name.size(); ++j) {
                const size_t replaced = diagonal + (c == name[j] ? 0 : 1);
                diagonal = row[j + 1];
                row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
            }
        }
        return row.back();
    };
    const std::string* best = nullptr;
    size_t least = 3;  // a name further away was not meant
    for (const std::string& name : names) {
        const bool begun = typed.size() > 3 && name.compare(0, typed.size(), typed) == 0;
        const size_t distance = begun ? 0 : distanceTo(name);
        if (distance >= least || distance + 1 >= typed.size()) continue;
        least = distance;
        best = &name;
    }
    return best ? "; did you mean " + *best + "?" : "";
}

namespace {

std::vector<const CLI::Option*> OptionsOf(const CLI::App& app, const CLI::App* command) {
    std::vector<const CLI::Option*> options = app.get_options({});
    if (!command) return options;
    const std::vector<const CLI::Option*> own = command->get_options({});
    options.insert(options.end(), own.begin(), own.end());
    return options;
}

// What is wrong with the first argument that CLI11 found no use for; empty if there is none.
std::string UnknownArgument(const CLI::App& app, const CLI::App* command) {
    const std::vector<std::string> rest = app.remaining(true);
    if (rest.empty()) return "";
    const std::string typed = rest[0].substr(0, rest[0].find('='));
    std::vector<std::string> names;
    if (typed[0] == '-') {
        for (const CLI::App* const owner : app.get_subcommands({})) {
            const bool misplaced = (!command || command == owner) && owner->get_option_no_throw(typed);
            if (misplaced) return typed + " has to come after the command that it belongs to";
        }
        for (const CLI::Option* option : OptionsOf(app, command)) {
            for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
        }
        return "no such option: " + rest[0] + Suggestion(typed, names);
    }
    if (command) return "unexpected argument: " + rest[0];
    for (const CLI::App* known : app.get_subcommands({})) names.push_back(known->get_name());
    return "no such command: " + rest[0] + Suggestion(typed, names);
}

std::string Problem(const CLI::App& app, const CLI::App* command, const CLI::ParseError& error) {
    const auto missing = dynamic_cast<const CLI::RequiredError*>(&error);
    if (missing || dynamic_cast<const CLI::ExtrasError*>(&error)) {
        if (const std::string text = UnknownArgument(app, command); !text.empty()) return text;
        if (!command) return "no command";
    }
    // Only the text of CLI11's error says which option it means.
    const std::string said = dynamic_cast<const CLI::ArgumentMismatch*>(&error) ? error.what() : "";
    for (const CLI::Option* option : OptionsOf(app, command)) {
        const std::string name = option->get_name();
        if (missing && option->get_required() && option->count() == 0) {
            return fmt::format("{} is missing: {}", name, option->get_description());
        }
        if (said.rfind(name + ":", 0) != 0 && said.rfind(name.substr(2) + " was", 0) != 0) continue;
        if (TypeOfValue(*option).empty()) return name + " takes no value";
        if (option->count() > 1) return name + " is given more than once";
        return fmt::format("{} needs a value, {}: {}", name, TypeOfValue(*option), option->get_description());
    }
    return error.what();
}

}  // namespace

std::string UsageText(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<CLI::App*> typed = app.get_subcommands();
    const CLI::App* const command = typed.empty() ? nullptr : typed[0];
    const std::string help = command ? "tsmctl help " + command->get_name() : "tsmctl help";
    return fmt::format("{} (see '{}')", Problem(app, command, error), help);
}

}  // namespace tsmctl
