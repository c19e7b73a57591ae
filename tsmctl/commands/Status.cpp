// status: tells when trees were backed up last, and whether that was complete, to people and to monitoring programs.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>

#include "Errors.h"
#include "Inventory.h"
#include "RunRecord.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct StatusOptions {
    std::string path = "/";
    std::string format = "text";
    std::optional<long long> warning;  // hours
    std::optional<long long> critical;
};

// As monitoring programs number them.
enum Level { Ok, Warning, Critical, Unknown };
const char* const levelNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

struct Finding {
    std::string path;
    RunRecord run;
    Level level;
    std::string trouble;  // empty if there is none

    const char* State() const { return !run.failures ? "not ended" : *run.failures > 0 ? "failed" : "complete"; }
};

std::string TimeOf(std::optional<long long> seconds) {
    if (!seconds) return "never";
    std::tm local = {};
    const std::time_t time = *seconds;
    return localtime_r(&time, &local) ? fmt::format("{:%F %T %z}", local) : std::to_string(time);
}

Finding Judge(const RunRecord& run, const StatusOptions& options, long long now) {
    Finding finding = {Join(run.tree), run, Ok, ""};
    const auto worse = [&](Level level, const std::string& trouble) {
        finding.level = std::max(finding.level, level);
        finding.trouble += (finding.trouble.empty() ? "" : ", ") + trouble;
    };
    if (finding.path.empty()) finding.path = "/";
    if (!run.failures) {
        // Within the limits, it may well be at work.
        worse(options.warning || options.critical ? Ok : Warning, "not ended since " + TimeOf(run.begun));
    } else if (*run.failures > 0) {
        worse(Warning, fmt::format("{} failed at {}", *run.failures, TimeOf(run.ended)));
    }
    if (!run.complete) {
        worse(Critical, "never complete");
        return finding;
    }
    const auto late = [&](const std::optional<long long>& hours) {
        return hours && now - *run.complete > *hours * 3600;
    };
    if (late(options.critical) || late(options.warning)) {
        worse(late(options.critical) ? Critical : Warning, "last complete at " + TimeOf(run.complete));
    }
    return finding;
}

// The newest stream that is the path or lies directly in it. It was stored whole, or not at all.
std::optional<RunRecord> FindStream(Session& session, const Parts& path) {
    StoredFolder streams = ListFolder(session, path);
    if (!path.empty()) streams[""] = ListOne(session, path);
    std::optional<RunRecord> newest;
    for (const auto& entry : streams) {
        const auto& object = entry.second.file;
        if (!object || object->GetKind() != Kind::Stream) continue;
        const long long stored = object->info->mtime.tv_sec;
        if (!newest || stored > newest->ended) newest = {object->PlainParts(), stored, stored, 0, stored};
    }
    return newest;
}

std::vector<Finding> Find(const StatusOptions& options, Session& session) {
    const Parts path = ParsePath(options.path);
    std::vector<RunRecord> runs = FindRuns(session, path, Scope::Tree);
    // Of a tree that was deleted, or has become a file, the record does not count.
    const auto isGone = [&](const RunRecord& run) {
        if (run.tree.empty()) return run.complete && ListIn(session, "", {}).empty();
        const StoredPair stored = ListOne(session, run.tree);
        const auto wasStored = [&] { return !List(session, NamePattern(run.tree, false), {true}).empty(); };
        return !stored.directory && (run.complete || wasStored());
    };
    runs.erase(std::remove_if(runs.begin(), runs.end(), isGone), runs.end());
    if (const auto stream = FindStream(session, path)) runs.push_back(*stream);
    if (runs.empty()) throw Failure("no backup of a tree or stream is recorded");
    std::vector<Finding> findings;
    for (const RunRecord& run : runs) findings.push_back(Judge(run, options, std::time(nullptr)));
    return findings;
}

void Show(Report& report, const Finding& f) {
    if (!report.IsJson()) {
        return report.Line(fmt::format("{:<9}  {:<25}  {}{}{}", f.State(), TimeOf(f.run.complete), f.path,
                                       f.trouble.empty() ? "" : ": ", f.trouble));
    }
    nlohmann::ordered_json line = {{"path", f.path},       {"state", f.State()}, {"level", levelNames[f.level]},
                                   {"begun", f.run.begun}, {"ended", nullptr},   {"failures", nullptr},
                                   {"complete", nullptr}};
    if (f.run.failures) {
        line["ended"] = f.run.ended;
        line["failures"] = *f.run.failures;
    }
    if (f.run.complete) line["complete"] = *f.run.complete;
    report.Json(line);
}

void ShowPrometheus(Context& context, const std::vector<Finding>& findings) {
    // Labels are UTF-8.
    const auto quoted = [](const std::string& text) {
        using nlohmann::json;
        const std::string whole = json(text).dump(-1, ' ', false, json::error_handler_t::replace);
        std::string value;
        for (const char c : json::parse(whole).get<std::string>()) {
            value += c == '\n' ? "\\n" : c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
        }
        return value;
    };
    const auto show = [&](const char* name, const char* help, const auto& value) {
        context.report.Entry(fmt::format("# HELP {} {}", name, help));
        context.report.Entry(fmt::format("# TYPE {} gauge", name));
        for (const Finding& f : findings) {
            context.report.Entry(fmt::format("{}{{node=\"{}\",filespace=\"{}\",path=\"{}\"}} {}", name,
                                             quoted(context.connection.Node()), quoted(context.connection.Filespace()),
                                             quoted(f.path), value(f)));
        }
    };
    show("tsmctl_last_complete_timestamp_seconds", "End of the last complete backup, 0 for never.",
         [](const Finding& f) { return f.run.complete.value_or(0); });
    show("tsmctl_last_begun_timestamp_seconds", "Begin of the last backup.",
         [](const Finding& f) { return f.run.begun; });
    show("tsmctl_last_succeeded", "Whether the last backup has ended and was complete.",
         [](const Finding& f) { return f.run.failures == 0 ? 1 : 0; });
}

void ShowNagios(Report& report, const StatusOptions& options, const std::vector<Finding>& findings, Level worst) {
    const auto plain = [](std::string text) {
        std::replace_if(
            text.begin(), text.end(), [](char c) { return c == '|' || c == '\'' || c == '='; }, '_');
        return text;
    };
    const auto limit = [](const std::optional<long long>& hours) { return hours ? std::to_string(*hours * 3600) : ""; };
    std::string troubles;
    std::string data;
    for (const Finding& f : findings) {
        if (f.level > Ok) troubles += fmt::format("{}{} {}", troubles.empty() ? "" : "; ", plain(f.path), f.trouble);
        if (!f.run.complete) continue;
        data += fmt::format(" '{}'={}s;{};{}", plain(f.path), std::max(0LL, std::time(nullptr) - *f.run.complete),
                            limit(options.warning), limit(options.critical));
    }
    if (troubles.empty()) troubles = fmt::format("{} complete", findings.size());
    report.Line(fmt::format("TSMCTL {}: {} |{}", levelNames[worst], troubles, data));
}

void Status(const StatusOptions& options, Context& context) {
    const bool nagios = options.format == "nagios";
    if (options.path.empty()) throw UsageError("an empty path");
    std::vector<Finding> findings;
    try {
        Session session(context.connection);
        findings = Find(options, session);
    } catch (const std::exception& error) {
        if (!nagios) throw;
        context.report.Line(fmt::format("TSMCTL UNKNOWN: {}", error.what()));
        context.status = Unknown;
        return;
    }
    Level worst = Ok;
    for (const Finding& finding : findings) worst = std::max(worst, finding.level);
    if (context.report.IsJson() || options.format == "text") {
        for (const Finding& finding : findings) Show(context.report, finding);
    } else if (nagios) {
        ShowNagios(context.report, options, findings, worst);
    } else {
        ShowPrometheus(context, findings);
    }
    context.status = nagios ? worst : worst > Ok ? 1 : 0;
}

}  // namespace

void AddStatus(CommandLine& line) {
    auto [command, options] = line.Add<StatusOptions>(
        "status", "Tell when trees were backed up last, and whether that was complete",
        {"tsmctl status", "tsmctl status nightly/docs --warning 26 --critical 50 --format nagios",
         "tsmctl status --format prometheus > tsmctl.prom"},
        Status);
    command.add_option("PATH", options.path, "object path (default: everything)")->type_name("OBJECT");
    AddChoice(command, "--format", options.format, "for whom", {"text", "nagios", "prometheus"})->capture_default_str();
    AddNumber(command, "--warning", "HOURS", "since the last complete backup", 1, INT_MAX, options.warning);
    AddNumber(command, "--critical", "HOURS", "since the last complete backup", 1, INT_MAX, options.critical);
}

}  // namespace tsmctl
