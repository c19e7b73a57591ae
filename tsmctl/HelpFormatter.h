// How --help looks, and what the completion needs to know of an option too.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tsmctl {

// Type names of the values that are local names; the completion offers files or folders for them.
constexpr const char* fileType = "FILE";
constexpr const char* folderType = "FOLDER";

// What an option takes: "FILE", or "any|dir|file" where only these will do. Empty for a flag.
std::string ValueOf(const CLI::Option& option);

// One layout, whatever the version of CLI11 would make of it.
class HelpFormatter : public CLI::FormatterBase {
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
};

}  // namespace tsmctl
