#include "UsageText.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <string_view>

#include "HelpFormatter.h"

namespace tsmctl {
namespace {

// How many characters must be inserted, removed or replaced.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

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

bool Begins(const CLI::ParseError& error, const std::string& text) {
    return std::string_view(error.what()).substr(0, text.size()) == text;
}

std::string Problem(const CLI::App& app, const CLI::App* command, const CLI::ParseError& error) {
    const auto missing = dynamic_cast<const CLI::RequiredError*>(&error);
    if (missing || dynamic_cast<const CLI::ExtrasError*>(&error)) {
        if (const std::string text = UnknownArgument(app, command); !text.empty()) return text;
        if (!command) return "no command";
    }
    // Only the text of CLI11's error says which option it means.
    const bool mismatch = dynamic_cast<const CLI::ArgumentMismatch*>(&error);
    for (const CLI::Option* option : OptionsOf(app, command)) {
        const std::string name = option->get_name();
        if (missing && option->get_required() && option->count() == 0) {
            return fmt::format("{} is missing: {}", name, option->get_description());
        }
        if (!mismatch || (!Begins(error, name + ":") && !Begins(error, name.substr(2) + " was"))) continue;
        if (TypeOfValue(*option).empty()) return name + " takes no value";
        if (option->count() > 1) return name + " is given more than once";
        return fmt::format("{} needs a value, {}: {}", name, TypeOfValue(*option), option->get_description());
    }
    return error.what();
}

}  // namespace

std::string Suggestion(const std::string& typed, const std::vector<std::string>& names) {
    const std::string* best = nullptr;
    size_t least = 3;  // a name further away was not meant
    for (const std::string& name : names) {
        const bool begun = typed.size() > 3 && name.compare(0, typed.size(), typed) == 0;
        const size_t distance = begun ? 0 : EditDistance(typed, name);
        if (distance >= least || distance + 1 >= typed.size()) continue;
        least = distance;
        best = &name;
    }
    return best ? "; did you mean " + *best + "?" : "";
}

std::string UsageText(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<CLI::App*> typed = app.get_subcommands();
    const CLI::App* const command = typed.empty() ? nullptr : typed[0];
    const std::string help = command ? "tsmctl help " + command->get_name() : "tsmctl help";
    return fmt::format("{} (see '{}')", Problem(app, command, error), help);
}

}  // namespace tsmctl
