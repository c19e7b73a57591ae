// help and completion: print the help of tsmctl or of a command, as --help does, and the completion for bash. They need
// no server.
#include <memory>

#include "commands/Commands.h"

namespace tsmctl {
namespace {

// It reads the helps. $2 ends at the cursor; $3 is the word before, where bash has cut "--type=dir" into three. Where
// nothing matches, bash offers local names, which it knows how to quote.
constexpr const char* completion = R"bash(# Completion of tsmctl for bash, printed by 'tsmctl completion'.
_tsmctl() {
    local help command='' option=$3 word words=''
    help=$(tsmctl --help)
    local commands=$(sed -n '/^Commands:/,/^$/s/^  \([^ ]*\).*/\1/p' <<<"$help")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $'\n'$commands$'\n' == *$'\n'"$word"$'\n'* ]] && command=$word && break
    done
    [[ ! $command ]] || help+=$'\n'$(tsmctl "$command" --help)
    [[ $option != = ]] || option=${COMP_WORDS[COMP_CWORD-2]}
    if [[ $2 == -* ]]; then
        words=$(sed -n 's/^  \(-.,\)\{0,1\}\(--[a-z-]*\).*/\2/p' <<<"$help")
    elif [[ $help =~ $'\n  '"$option "([a-z]+(\|[a-z]+)+) ]]; then
        words=${BASH_REMATCH[1]}
    fi
    [[ $words || ( $command && $command != help ) ]] || words=$commands
    mapfile -t COMPREPLY < <(compgen -W "${words//|/ }" -- "$2")
}
complete -o bashdefault -o default -F _tsmctl tsmctl
)bash";

}  // namespace

void AddCompletion(CommandLine& line) {
    line.Add("completion", "Print the completion for bash",
             {"tsmctl completion > tsmctl.bash", "source <(tsmctl completion)"},
             [](Context& context) { context.report.Text(completion); });
}

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
