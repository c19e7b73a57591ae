#include "Arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <regex>

#include "Errors.h"
#include "ObjectInfo.h"

namespace tsmctl {
namespace {

// Empty for a moment of the calendar in six numbers, with leading zeros or, as the server writes them, without; else
// what is wrong.
std::string CheckMoment(const std::string& text) {
    static const std::regex form(R"(\d{1,4}(-\d\d?){2} \d\d?(:[0-5]?\d){2})");
    std::tm date = {};
    bool real = std::regex_match(text, form) && strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &date);
    const int day = date.tm_mday;
    timegm(&date);  // carries a day that the month does not have
    real = real && day == date.tm_mday && date.tm_year > -1900;
    return real ? "" : "not a moment like '2024-01-31 23:59:59': " + text;
}

}  // namespace

CLI::Option* AddPaths(CLI::App& command, std::vector<std::string>& paths, const char* type, const char* description) {
    return command.add_option("PATH", paths, description)
        ->type_name(type)
        ->expected(-1)
        ->allow_extra_args()
        ->required();
}

CLI::Option* AddNumber(CLI::App& command, const char* name, const char* type, const char* description, long long least,
                       long long most, const std::function<void(long long)>& assign) {
    const auto check = [=](const std::string& text) -> std::string {
        if (const auto number = ParseNumber(text); number && *number >= least && *number <= most) return "";
        const std::string typed = text.size() > 40 ? text.substr(0, 40) + "..." : text;
        return fmt::format("a whole number from {} to {} is needed, not '{}'", least, most, typed);
    };
    const auto take = [=](const std::string& text) { assign(*ParseNumber(text)); };
    return command.add_option_function<std::string>(name, take, description)->type_name(type)->check(check);
}

CLI::Option* AddChoice(CLI::App& command, const char* name, std::string& value, const char* description,
                       const std::vector<std::string>& choices) {
    return command.add_option(name, value, description)
        ->type_name(fmt::format("{}", fmt::join(choices, "|")))
        ->check(CLI::IsMember(choices).description(""));
}

CLI::Option* AddMoment(CLI::App& command, std::string& at, const char* description) {
    return command.add_option("--at", at, description)->type_name("MOMENT")->check(CheckMoment);
}

CLI::Option* AddExclude(CLI::App& command, std::vector<std::string>& patterns) {
    return command.add_option("--exclude", patterns, "leave out what the end of its path matches")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
}

CLI::Option* AddJobs(CLI::App& command, int& jobs) {
    return AddNumber(command, "-j,--jobs", "NUMBER", "sessions at the same time, 1 to 64", 1, 64,
                     [&jobs](long long number) { jobs = static_cast<int>(number); })
        ->default_str(std::to_string(jobs));
}

CLI::Option* AddLiteral(CLI::App& command, bool& literal) {
    return command.add_flag("--literal", literal, "take * and ? in PATH as they are");
}

void AddPlace(CLI::App& command, SourceOptions& source) {
    command.add_option("--to", source.to, "directory among the objects (default: the top)")->type_name("PATH");
    command.add_option("--as", source.as, "object path for standard input, below --to")->type_name("PATH");
}

void CheckSource(const SourceOptions& source) {
    const bool input = std::count(source.paths.begin(), source.paths.end(), "-") > 0;
    if (input != source.IsInput()) throw UsageError("- and --as NAME belong together");
    if (input && source.paths.size() > 1) throw UsageError("- cannot be given with other paths");
    if (input && ParsePath(source.as).empty()) throw UsageError("--as needs a name");
}

}  // namespace tsmctl
