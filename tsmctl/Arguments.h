// Arguments and options that several commands have. What they fill in lives as long as the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "ObjectNames.h"

namespace tsmctl {

// Type names of values that are local names.
constexpr const char* fileType = "FILE";
constexpr const char* folderType = "FOLDER";

// One argument or more.
CLI::Option* AddPaths(CLI::App& command, std::vector<std::string>& paths, const char* type, const char* description);

// A decimal number from least to most.
CLI::Option* AddNumber(CLI::App& command, const char* name, const char* type, const char* description, long long least,
                       long long most, const std::function<void(long long)>& assign);

// One of some words.
CLI::Option* AddChoice(CLI::App& command, const char* name, std::string& value, const char* description,
                       const std::vector<std::string>& choices);

CLI::Option* AddMoment(CLI::App& command, std::string& at, const char* description);
CLI::Option* AddExclude(CLI::App& command, std::vector<std::string>& patterns);
CLI::Option* AddJobs(CLI::App& command, int& jobs);
CLI::Option* AddLiteral(CLI::App& command, bool& literal);

// Local paths and their place among the objects, or standard input and its object path.
struct SourceOptions {
    std::vector<std::string> paths;  // only "-" for standard input
    std::string to;
    std::string as;  // empty unless it is standard input

    bool IsInput() const { return !as.empty(); }
    // The object path of standard input.
    Parts InputObject() const { return Append(ParsePath(to), ParsePath(as)); }
};
void AddPlace(CLI::App& command, SourceOptions& source);
// Throws UsageError for what does not go together.
void CheckSource(const SourceOptions& source);

}  // namespace tsmctl
