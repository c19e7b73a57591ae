// The command line: the options of every command, those that several commands have, and the commands that are added to
// it. What arguments and options fill in lives as long as the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Connection.h"
#include "ObjectInfo.h"
#include "ObjectNames.h"

namespace tsmctl {

// Type names of values that are local names.
constexpr const char* fileType = "FILE";
constexpr const char* folderType = "FOLDER";

// One argument or more.
CLI::Option* AddArguments(CLI::App& command, const char* name, std::vector<std::string>& values, const char* type,
                          const char* description);

// An option that takes one value each time it is given.
CLI::Option* AddRepeatable(CLI::App& command, const char* name, std::vector<std::string>& values, const char* type,
                           const char* description);

// A decimal number from least to most.
std::function<std::string(const std::string&)> NumberBetween(long long least, long long most);
template <typename Number>
CLI::Option* AddNumber(CLI::App& command, const char* name, const char* type, const char* description, long long least,
                       long long most, Number& number) {
    const auto take = [&number](const std::string& text) { number = static_cast<Number>(*ParseNumber(text)); };
    return command.add_option_function<std::string>(name, take, description)
        ->type_name(type)
        ->check(NumberBetween(least, most));
}

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

// Whether the user gives exactly this answer; true at once with --yes. Throws UsageError when standard input is no
// terminal.
bool Confirmed(bool yes, const std::string& question, const std::string& answer);

class CommandLine {
public:
    // Carries a command out once its options are parsed. It throws UsageError before it opens a session, reports what
    // fails for one object and goes on, and throws Failure where the whole command fails.
    using RunFunction = std::function<void(Context&)>;

    CommandLine();

    // Adds a command; the caller adds its arguments and options to what is returned. The examples work as they are on
    // a store that holds what they name.
    CLI::App& Add(const std::string& name, const std::string& description, const std::vector<std::string>& examples,
                  RunFunction run);
    // The same with what run gets as its options, which is returned, too.
    template <typename Options, typename Run>
    std::pair<CLI::App&, Options&> Add(const std::string& name, const std::string& description,
                                       const std::vector<std::string>& examples, Run run) {
        const auto options = std::make_shared<Options>();
        return {Add(name, description, examples, [=](Context& context) { run(*options, context); }), *options};
    }
    // For a command that changes something; it asks the Report.
    void AddDryRun(CLI::App& command);
    const CLI::App& Syntax() const { return app_; }

    // Parses the arguments and runs the command. Returns the exit status. Throws UsageError.
    int Run(int argc, char** argv);

private:
    void AddCommonOptions();
    std::string UsageText(const CLI::ParseError& error) const;
    // Returns the command.
    const CLI::App& Parse(int argc, char** argv);
    void CheckValues(const std::vector<std::string>& arguments) const;

    CLI::App app_{"Stores files on a TSM server and brings them back.", "tsmctl"};
    ConnectionOptions connection_;
    ReportOptions output_;
    std::map<const CLI::App*, RunFunction> runs_;
};

}  // namespace tsmctl
