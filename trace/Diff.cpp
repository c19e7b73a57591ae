// Compares two recordings, session by session.
#include <fmt/format.h>

#include <map>

#include "Commands.h"
#include "Recording.h"

namespace trace {
namespace {

constexpr const char* passing[] = {"n", "at", "mono", "ns", "pid", "tid", "h", "depth"};
constexpr const char* moments[] = {"stored", "ended", "begun", "completed", "moment"};

// The calls of a session, without what is not compared.
struct Sequence {
    std::vector<Json> calls;
    std::map<long long, long long> ids;  // in the order of their appearance

    void Number(Json& id) {
        if (id.is_array()) {
            for (Json& each : id) Number(each);
        } else if (id.is_number() && id != 0) {
            id = ids.emplace(id.get<long long>(), ids.size() + 1).first->second;
        }
    }
    void Reduce(Json& value, bool replayed) {
        if (!value.is_object()) return;
        for (const char* member : passing) value.erase(member);
        if (replayed) {
            for (const char* member : {"setUp", "crc32", "configFile", "options", "userPassword"}) value.erase(member);
        }
        for (auto& [key, member] : value.items()) {
            if (key == "id" || key == "ids") Number(member);
            if (std::find(std::begin(moments), std::end(moments), key) != std::end(moments)) member = !member.is_null();
            Reduce(member, replayed);
        }
    }
};

// By process and handle, each in the order of their appearance.
std::map<std::pair<std::size_t, std::size_t>, Sequence> Read(const std::string& file, bool replayed) {
    std::map<std::pair<std::size_t, std::size_t>, Sequence> sequences;
    std::map<long long, std::map<std::pair<long long, long long>, std::size_t>> handles;
    std::map<long long, std::size_t> processes;
    const Health health = ForEachCall(file, [&](Json& line) {
        // A replay is one process, whatever made the calls first.
        const long long pid = replayed ? 0 : line.at("pid").get<long long>();
        const auto handle = std::pair(line.at("pid").get<long long>(), HandleOf(line));
        const std::size_t process = processes.emplace(pid, processes.size()).first->second;
        auto& known = handles[pid];
        const std::size_t session = handle.second == 0 ? 0 : known.emplace(handle, known.size() + 1).first->second;
        Sequence& sequence = sequences[{process, session}];
        sequence.Reduce(line, replayed);
        sequence.calls.push_back(std::move(line));
    });
    if (const long long gone = health.missing + health.unreadable; gone > 0)
        fmt::print(stderr, "{}: {} lines are missing or cannot be read\n", file, gone);
    return sequences;
}

std::string Differences(const Json& a, const Json& b) {
    std::string text;
    for (const Json& step : Json::diff(a, b)) {
        const Json::json_pointer at(step.at("path").get<std::string>());
        const auto value = [&](const Json& of) { return of.contains(at) ? of.at(at).dump(-1, ' ', true) : "nothing"; };
        text += fmt::format("    {}: {} against {}\n", at.to_string(), value(a), value(b));
    }
    return text;
}

}  // namespace

int Diff(const std::string& a, const std::string& b, bool replayed) {
    auto first = Read(a, replayed), second = Read(b, replayed);
    for (const auto& [key, sequence] : second) first[key];
    std::size_t calls = 0, differences = 0;
    for (const auto& [key, sequence] : first) {
        const auto& one = sequence.calls;
        const auto& other = second[key].calls;
        for (std::size_t i = 0; i < std::max(one.size(), other.size()); ++i, ++calls) {
            if (i < one.size() && i < other.size() && one[i] == other[i]) continue;
            ++differences;
            const auto words = [i](const auto& list) { return i < list.size() ? Sentence(list[i]) : "nothing more"; };
            const bool parted = i >= one.size() || i >= other.size() || one[i].at("call") != other[i].at("call");
            if (differences <= 20) {
                fmt::print("process {}, session {}, call {}:\n  < {}\n  > {}\n{}", key.first + 1, key.second, i + 1,
                           words(one), words(other), parted ? "" : Differences(one[i], other[i]));
            }
            if (parted) break;  // what follows cannot be compared
        }
    }
    fmt::print("{} calls compared, {} differences\n", calls, differences);
    return differences == 0 ? 0 : 1;
}

}  // namespace trace
