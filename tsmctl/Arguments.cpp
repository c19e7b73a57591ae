#include "Arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "Errors.h"
#include "HelpFormatter.h"
#include "UsageText.h"

namespace tsmctl {
namespace {

// Empty for a moment of the calendar in six parts, with leading zeros or, as the server writes them, without; else what
// is wrong.
std::string CheckMoment(const std::string& text) {
    int year = 0;
    std::tm date = {};
    std::sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d", &year, &date.tm_mon, &date.tm_mday, &date.tm_hour,
                &date.tm_min, &date.tm_sec);
    const auto written = [&](const char* form) {
        return fmt::format(fmt::runtime(form), year, date.tm_mon, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
    };
    bool real = text == written("{:04}-{:02}-{:02} {:02}:{:02}:{:02}") || text == written("{}-{}-{} {}:{}:{}");
    date.tm_year = year - 1900;
    date.tm_mon -= 1;
    const std::tm typed = date;
    timegm(&date);  // carries what is out of range
    real = real && year > 0 && date.tm_mon == typed.tm_mon && date.tm_mday == typed.tm_mday &&
           date.tm_hour == typed.tm_hour && date.tm_min == typed.tm_min && date.tm_sec == typed.tm_sec;
    return real ? "" : "not a moment like '2024-01-31 23:59:59': " + text;
}

// -1 for anything but a decimal number. CLI11 would also read octal, and would cut a number that is too large.
long long DecimalNumber(const std::string& text) {
    long long number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : -1;
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
        if (const long long number = DecimalNumber(text); number >= least && number <= most) return "";
        const std::string typed = text.size() > 40 ? text.substr(0, 40) + "..." : text;
        return fmt::format("a whole number from {} to {} is needed, not '{}'", least, most, typed);
    };
    const auto take = [=](const std::string& text) { assign(DecimalNumber(text)); };
    return command.add_option_function<std::string>(name, take, description)->type_name(type)->check(check);
}

CLI::Option* AddChoice(CLI::App& command, const char* name, std::string& value, const char* description,
                       const std::vector<std::string>& choices) {
    const auto check = [choices](const std::string& text) -> std::string {
        if (std::count(choices.begin(), choices.end(), text) > 0) return "";
        return fmt::format("one of {} is needed, not '{}'", fmt::join(choices, ", "), text) + Suggestion(text, choices);
    };
    return command.add_option(name, value, description)
        ->type_name(fmt::format("{}", fmt::join(choices, "|")))
        ->check(check);
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
