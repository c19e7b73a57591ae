// How --help looks, and what the completion needs to know of an option too.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

// Type names of the values that are local names; the completion offers files or folders for them.
constexpr const char* fileType = "FILE";
constexpr const char* folderType = "FOLDER";

// What an option takes: "FILE", or "any|dir|file" where only these will do. Empty for a flag.
std::string ValueOf(const CLI::Option& option);

class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter();

    std::string make_option_opts(const CLI::Option* option) const override;
    std::string make_option_desc(const CLI::Option* option) const override;
    std::string make_option_usage(const CLI::Option* option) const override;
};
