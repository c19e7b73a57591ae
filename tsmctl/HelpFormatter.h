// How the help looks, and what the completion needs to know of an option as well.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tsmctl {

// Type names of values that are local names. The completion offers files or folders for them.
constexpr const char* fileType = "FILE";
constexpr const char* folderType = "FOLDER";

// The type of an option's value: "FILE", or "any|dir|file" where it is one of these words. Empty for a flag.
std::string TypeOfValue(const CLI::Option& option);

// The layout is ours, so that it does not depend on the version of CLI11.
class HelpFormatter : public CLI::FormatterBase {
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
};

}  // namespace tsmctl
