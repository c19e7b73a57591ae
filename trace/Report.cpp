// Tells what happened: in sum, line by line, and as a picture.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>

#include "Commands.h"
#include "Recording.h"

namespace trace {
namespace {

using Session = std::pair<long long, long long>;  // process, handle

Session SessionOf(const Json& line) {
    return {line.at("pid").get<long long>(), HandleOf(line)};
}

// The node of each session, to name the session by.
class Sessions {
public:
    std::string Name(const Json& line) {
        const Session session = SessionOf(line);
        if (line.at("call") == "dsmInitEx" && line.at("rc") == 0) nodes_[session] = Shown(line.at("in").at("node"));
        if (session.second == 0) return "no session";
        return fmt::format("session {}", session.second) +
               (nodes_[session].empty() ? "" : " of node " + nodes_[session]);
    }

private:
    std::map<Session, std::string> nodes_;
};

struct Sum {
    std::vector<double> times;
    std::map<std::string, long long> failures;
    double total = 0;
};

// The last steps of a session; equal ones in a row count as one step.
class History {
public:
    void Add(const Json& line) {
        const std::string words = Sentence(line);
        if (line.at("call") == call_ && !steps_.empty() && (words == steps_.back().first || line.contains("data"))) {
            ++steps_.back().second;
        } else {
            steps_.emplace_back(words, 1);
        }
        call_ = line.at("call");
        if (steps_.size() > 6) steps_.pop_front();
    }
    std::string Text() const {
        std::string text;
        for (const auto& [words, count] : steps_) {
            text += "       " + words + (count > 1 ? fmt::format(", and {} more", count - 1) : "") + "\n";
        }
        return text;
    }

private:
    std::deque<std::pair<std::string, long long>> steps_;
    std::string call_;
};

// Whether an object's name, or any text in the value, contains the part.
bool Has(const Json& value, const std::string& part) {
    const bool named = value.is_string() || (value.is_object() && value.contains("fs") && value.contains("ll"));
    if (named && Shown(value).find(part) != std::string::npos) return true;
    return value.is_structured() &&
           std::any_of(value.begin(), value.end(), [&](const Json& v) { return Has(v, part); });
}

}  // namespace

int Summary(const std::string& file) {
    std::map<std::string, Sum> sums;
    std::map<Session, History> histories;
    std::vector<std::pair<double, std::string>> slowest;
    std::vector<std::string> failures;
    Sessions sessions;
    long long calls = 0, failed = 0;
    double all = 0;
    const Health health = ForEachCall(file, [&](Json& line) {
        Sum& sum = sums[line.at("call")];
        const double time = line.value("ns", 0.0);
        sum.times.push_back(time);
        sum.total += time;
        all += time;
        ++calls;
        const std::string session = sessions.Name(line);
        slowest.emplace_back(time, fmt::format("{}, {}: {}", Moment(line), session, Words(line)));
        std::sort(slowest.rbegin(), slowest.rend());
        if (slowest.size() > 5) slowest.pop_back();
        History& history = histories[SessionOf(line)];
        if (Failed(line)) {
            ++failed;
            ++sum.failures[CodeText(line.at("rc"))];
            if (failures.size() < 20) {
                failures.push_back(fmt::format("{:>4}. {}, {}:\n     {}\n{}{}", failed, Moment(line), session,
                                               Sentence(line), history.Text().empty() ? "" : "     before it:\n",
                                               history.Text()));
            }
        }
        history.Add(line);
    });
    fmt::print("{} calls in {}, {} failed\n", calls, Duration(all), failed);
    if (health.ended < health.begun)
        fmt::print("{} of {} processes have not ended, or ended suddenly\n", health.begun - health.ended, health.begun);
    if (health.lost > 0) fmt::print("{} lines are lost: there was no room for them\n", health.lost);
    if (health.missing > health.lost) fmt::print("{} lines are not in these files\n", health.missing - health.lost);
    if (health.unreadable > 0) fmt::print("{} lines cannot be read\n", health.unreadable);
    fmt::print("\n{:<22}{:>9}{:>8}{:>10}{:>10}{:>8}\n", "call", "number", "failed", "median", "99 %", "share");
    for (auto& [call, sum] : sums) {
        std::sort(sum.times.begin(), sum.times.end());
        const auto at = [&times = sum.times](double part) {
            return Duration(times[static_cast<std::size_t>(part * static_cast<double>(times.size() - 1))]);
        };
        long long number = 0;
        std::string codes;
        for (const auto& [code, count] : sum.failures) {
            number += count;
            codes += fmt::format("  {} x {}", count, code);
        }
        fmt::print("{:<22}{:>9}{:>8}{:>10}{:>10}{:>6.1f} %{}\n", call, sum.times.size(), number, at(0.5), at(0.99),
                   all > 0 ? 100 * sum.total / all : 0, codes);
    }
    fmt::print("\nslowest\n");
    for (const auto& [time, what] : slowest) fmt::print("  {:>8}  {}\n", Duration(time), what);
    if (failed > 0) fmt::print("\nfailures\n");
    for (const std::string& failure : failures) fmt::print("{}", failure);
    if (failed > 20) fmt::print("  and {} more; 'tsmtrace show --failed' lists them\n", failed - 20);
    return 0;
}

int Show(const std::string& file, const Filter& filter) {
    ForEachCall(file, [&](Json& line) {
        if (filter.handle >= 0 && HandleOf(line) != filter.handle) return;
        if (line.at("call").get<std::string>().find(filter.call) == std::string::npos) return;
        if (!filter.object.empty() && !Has(line, filter.object)) return;
        if (filter.failed && !Failed(line)) return;
        std::string given;
        for (const char* member : {"found", "bytes"}) {
            if (line.contains(member)) given += fmt::format(" [{}]", Shown(line[member]));
        }
        fmt::print("{} {:>6} {:>4} {:>8}  {:<20} {}{}\n", Moment(line), line.at("tid").dump(), HandleOf(line),
                   Duration(line.value("ns", 0.0)), line.at("call").get<std::string>(), Sentence(line), given);
    });
    return 0;
}

// Chrome's format for traces, which Perfetto reads too: microseconds, a row for each "thread".
int Export(const std::string& file) {
    Sessions sessions;
    std::map<Session, std::string> rows;
    std::string comma = "\n";
    const auto put = [&](const Json& event) {
        fmt::print("{}{}", comma, event.dump(-1, ' ', true));
        comma = ",\n";
    };
    fmt::print("{{\"displayTimeUnit\":\"ms\",\"traceEvents\":[");
    ForEachCall(file, [&](Json& line) {
        const Session session = SessionOf(line);
        const std::string name = sessions.Name(line);
        if (std::exchange(rows[session], name) != name) {
            put({{"ph", "M"},
                 {"name", "thread_name"},
                 {"pid", session.first},
                 {"tid", session.second},
                 {"args", {{"name", name}}}});
        }
        Json event = {{"ph", "X"},
                      {"name", line.at("call")},
                      {"cat", Failed(line) ? "failed" : "ok"},
                      {"pid", session.first},
                      {"tid", session.second},
                      {"ts", line.value("mono", 0.0) / 1e3},
                      {"dur", line.value("ns", 0.0) / 1e3},
                      {"args", {{"what", Sentence(line)}, {"line", line}}}};
        if (Failed(line)) event["cname"] = "terrible";
        put(event);
    });
    fmt::print("\n]}}\n");
    return 0;
}

}  // namespace trace
