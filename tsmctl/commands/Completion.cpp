// completion: prints the completion for bash. It needs no server.
#include <fmt/format.h>

#include <algorithm>

#include "commands/Commands.h"

namespace tsmctl {
namespace {

// $2 ends at the cursor; $3 is the word before, where bash has cut "--type=dir" into three. Where nothing matches, bash
// offers local names, which it knows how to quote.
constexpr const char* function = R"bash(
_tsmctl() {
    local command=tsmctl option=$3 word words
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ ${_tsmctl_options[$word]+known} ]] && command=$word && break
    done
    [[ $option != = ]] || option=${COMP_WORDS[COMP_CWORD-2]}
    words=${_tsmctl_words["$command $option"]-}
    if [[ $2 == -* ]]; then
        words="${_tsmctl_options[$command]} ${_tsmctl_options[tsmctl]}"
    elif [[ ! $words && ( $command == tsmctl || $command == help ) ]]; then
        words=$_tsmctl_commands
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$2")
}
complete -o bashdefault -o default -F _tsmctl tsmctl
)bash";

// Everything that the completion offers is read from the command line's own tree.
std::string CompletionScript(const CLI::App& app) {
    std::string commands;
    std::string options;
    std::string values;
    const auto describe = [&](const std::string& command, const CLI::App& described) {
        std::string names;
        for (const CLI::Option* option : described.get_options({})) {
            std::string words = option->get_type_name();
            if (option->nonpositional()) names += " " + option->get_name();
            if (words.find('|') == std::string::npos) continue;
            std::replace(words.begin(), words.end(), '|', ' ');
            values += fmt::format("    ['{} {}']='{}'\n", command, option->get_name(), words);
        }
        options += fmt::format("    [{}]='{}'\n", command, names);
    };
    describe("tsmctl", app);
    for (const CLI::App* command : app.get_subcommands({})) {
        commands += " " + command->get_name();
        describe(command->get_name(), *command);
    }
    return fmt::format(
        "# Completion of tsmctl for bash, printed by 'tsmctl completion'.\n"
        "_tsmctl_commands='{}'\n"
        "declare -gA _tsmctl_options=(\n{})\n"
        "# What an option takes that takes one of some words.\n"
        "declare -gA _tsmctl_words=(\n{})\n{}",
        commands, options, values, function);
}

}  // namespace

void AddCompletion(CommandLine& line) {
    line.Add("completion", "Print the completion for bash",
             {"tsmctl completion > tsmctl.bash", "source <(tsmctl completion)"},
             [&line](Context& context) { context.report.Text(CompletionScript(line.Syntax())); });
}

}  // namespace tsmctl
