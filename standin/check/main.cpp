// tsm-standin-check: the command line of the store's checker.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>

#include "../src/Check.h"

namespace {

constexpr int sound = 0, findings = 1, notChecked = 2;

void Print(const nlohmann::ordered_json& line) {
    fmt::print("{}\n", line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

}  // namespace

int main(int count, char** arguments) {
    CLI::App app(
        "Checks a store of the stand-in: its mark, its catalogue, every byte of every version, and what "
        "belongs to none.\nExit status: 0 nothing found, 1 something found, 2 could not be checked.",
        "tsm-standin-check");
    std::string store;
    bool repair = false, json = false;
    app.add_option("STORE", store, "folder of the store")->required();
    app.add_flag("--repair", repair,
                 "move what belongs to no version to lost+found/, and replace a damaged catalogue by one of its "
                 "readable rows; nothing is deleted, and no host may have the store open");
    app.add_flag("--json", json, "one JSON object for each finding, and one for the summary");
    app.set_version_flag("--version", "tsm-standin-check " STANDIN_VERSION);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? sound : notChecked;
    }

    long found = 0;
    const auto report = [&](const standin::Finding& f) {
        ++found;
        if (json) {
            Print({{"finding", f.kind}, {"where", f.where}, {"text", f.text}, {"moved", f.moved}});
        } else {
            fmt::print("{}: {}: {}{}\n", f.kind, f.where, f.text, f.moved.empty() ? "" : ", moved to " + f.moved);
        }
    };
    std::string failure;
    standin::Checked checked;
    try {
        checked = standin::Check(store, repair, report);
    } catch (const std::exception& problem) {
        failure = problem.what();
    }
    if (json) {
        nlohmann::ordered_json summary = {
            {"versions", checked.versions}, {"bytes", checked.bytes}, {"findings", found}};
        if (!failure.empty()) summary["failure"] = failure;
        Print(summary);
    } else if (!failure.empty()) {
        fmt::print(stderr, "tsm-standin-check: {}\n", failure);
    } else {
        fmt::print("sound: {} versions, {} bytes; findings: {}\n", checked.versions, checked.bytes, found);
    }
    // A report that could not be written must not look like success.
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) return notChecked;
    return !failure.empty() ? notChecked : found > 0 ? findings : sound;
}
