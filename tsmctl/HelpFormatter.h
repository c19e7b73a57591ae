// How the help looks, what is wrong with a command line that makes no sense, and what the completion needs to know of
// an option as well.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tsmctl {

// Type names of values that are local names. The completion offers files or folders for them.
constexpr const char* fileType = "FILE";
constexpr const char* folderType = "FOLDER";

// The type of an option's value: "FILE", or "any|dir|file" where it is one of these words. Empty for a flag.
std::string TypeOfValue(const CLI::Option& option);

// The help of tsmctl or of a command, under this name. The layout is ours, so that it does not depend on the version of
// CLI11.
std::string HelpText(const CLI::App& app, const std::string& name);

// "; did you mean X?" if one of the names is close to what was typed; else empty.
std::string Suggestion(const std::string& typed, const std::vector<std::string>& names);

// A line with the option or argument, what is wrong with it, what is expected, and where the help is.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace tsmctl
