// The command line: the options of every command, and the commands that are added to it.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Connection.h"

namespace tsmctl {

class CommandLine {
public:
    // Carries a command out once its options are parsed. It throws UsageError before it opens a session, reports what
    // fails for one object and goes on, and throws Failure where the whole command fails.
    using RunFunction = std::function<void(Context&)>;

    CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    // Adds a command; the caller adds its arguments and options to what is returned. The examples work as they are on
    // a store that holds what they name.
    CLI::App& Add(const std::string& name, const std::string& description, const std::vector<std::string>& examples,
                  RunFunction run);
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
