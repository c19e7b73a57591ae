// What is wrong with a command line that makes no sense.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tsmctl {

// "; did you mean X?" if one of the names is close to what was typed; else empty.
std::string Suggestion(const std::string& typed, const std::vector<std::string>& names);

// A line with the option or argument, what is wrong with it, what is expected, and where the help is.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace tsmctl
