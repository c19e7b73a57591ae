// completion: prints the completion for bash. It needs no server.
#include <fmt/format.h>

#include <algorithm>

#include "HelpFormatter.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

// bash cuts the words by its own rules, "--type=dir" into three. $2 ends at the cursor. Files and folders are left to
// bash, which knows how to quote them.
constexpr const char* function = R"bash(
_tsmctl() {
    local cur=$2 command=tsmctl option='' plain='' prefix='' word values
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ $option ]]; then
            [[ $word == = ]] || option=
        elif [[ $word == *[\<\>] ]]; then
            option='tsmctl >'
        elif [[ ! $plain && $word == -- ]]; then
            plain=1
        elif [[ ! $plain && $word == -* ]]; then
            option=$(_tsmctl_value_key "$command" "$word")
        elif [[ $command == tsmctl && ${_tsmctl_options[$word]+known} ]]; then
            command=$word
        fi
    done
    if [[ ! $option && ! $plain && $cur == --*=* ]]; then
        option=$(_tsmctl_value_key "$command" "${cur%%=*}")
        prefix=${cur%%=*}=
        cur=${cur#*=}
    fi
    if [[ $option ]]; then
        values=${_tsmctl_values[$option]}
    elif [[ ! $plain && $cur == -* ]]; then
        values=${_tsmctl_options[$command]}
        [[ $command == tsmctl ]] || values+=" ${_tsmctl_options[tsmctl]}"
    elif [[ $command == tsmctl ]]; then
        values=$_tsmctl_commands
    else
        values=${_tsmctl_values[$command]-}
    fi
    case $values$prefix in
        FILE) compopt -o bashdefault -o default ;;
        FOLDER) compopt -o dirnames ;;
        FILE*) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -P "$prefix" -f -- "$cur") ;;
        FOLDER*) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -P "$prefix" -d -- "$cur") ;;
        *) mapfile -t COMPREPLY < <(compgen -P "$prefix" -W "$values" -- "$cur") ;;
    esac
}

# The entry of _tsmctl_values for an option of a command, where the option takes a value.
_tsmctl_value_key() {
    local key
    for key in "$1 $2" "tsmctl $2"; do
        [[ ${_tsmctl_values[$key]+known} ]] && printf '%s' "$key" && return
    done
}

complete -F _tsmctl tsmctl
)bash";

// What to offer for a value: the word FILE or FOLDER, a list of words, or nothing.
std::string Offer(const CLI::Option& option) {
    std::string value = TypeOfValue(option);
    if (value.find('|') == std::string::npos) return value == fileType || value == folderType ? value : "";
    std::replace(value.begin(), value.end(), '|', ' ');
    return value;
}

// Adds the names of the options of a command, and what to offer for their values and for the command's PATH.
void Describe(const std::string& command, const CLI::App& app, std::string& options, std::string& values) {
    std::string names;
    for (const CLI::Option* option : app.get_options({})) {
        for (const std::string& name : CLI::detail::split(option->get_name(false, true), ',')) {
            if (!option->get_positional()) names += " " + name;
            if (TypeOfValue(*option).empty()) continue;
            const std::string key = option->get_positional() ? command : command + " " + name;
            values += fmt::format("    ['{}']='{}'\n", key, Offer(*option));
        }
    }
    options += fmt::format("    [{}]='{}'\n", command, names);
}

// Defines and registers the completion. Everything that it offers is read from the command line's own tree.
std::string CompletionScript(const CLI::App& app) {
    std::string commands;
    std::string options;
    std::string values = "    ['tsmctl >']='FILE'\n";
    Describe("tsmctl", app, options, values);
    for (const CLI::App* command : app.get_subcommands({})) {
        commands += " " + command->get_name();
        Describe(command->get_name(), *command, options, values);
    }
    return fmt::format(
        "# Completion of tsmctl for bash, printed by 'tsmctl completion'.\n"
        "_tsmctl_commands='{}'\n"
        "declare -gA _tsmctl_options=(\n{})\n"
        "# What follows an option of a command, or is the PATH of a command.\n"
        "declare -gA _tsmctl_values=(\n{})\n{}",
        commands, options, values, function);
}

}  // namespace

void AddCompletion(CommandLine& line) {
    line.Add("completion", "Print the completion for bash",
             {"tsmctl completion > tsmctl.bash", "source <(tsmctl completion)"},
             [&line](Context& context) { context.report.Text(CompletionScript(line.Syntax())); });
}

}  // namespace tsmctl
