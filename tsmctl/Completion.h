// The bash completion that tsmctl prints.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tsmctl {

// A script that defines and registers the completion; all that it offers is read from the command line's own tree.
std::string CompletionScript(const CLI::App& app);

}  // namespace tsmctl
