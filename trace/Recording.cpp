#include "Recording.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

namespace trace {
namespace {

namespace fs = std::filesystem;

struct Row {
    const char* words;
    std::vector<long long> answers;
};

const Row& RowOf(const std::string& call) {
#define LIST(...) \
    { __VA_ARGS__ }
#define CALL(name, count, words, answers, ...) {#name, {words, LIST answers}},
    static const std::map<std::string, Row> rows = {
#include "../tables/calls.def"
    };
#undef CALL
    static const Row unknown = {"call", {}};
    const auto found = rows.find(call);
    return found == rows.end() ? unknown : found->second;
}

struct Code {
    const char* name;
    const char* text;
};

Code CodeOf(long long code) {
#define CODE(value, name, text) {value, {name, text}},
    static const std::map<long long, Code> codes = {
#include "../tables/codes.def"
    };
#undef CODE
    const auto found = codes.find(code);
    return found == codes.end() ? Code{"", "a code that has no text here; the API's manual explains it"}
                                : found->second;
}

}  // namespace

std::vector<std::string> FilesOf(const std::string& file) {
    std::vector<std::string> files;
    std::map<int, std::string> older;  // there may be gaps, where two processes began new files at the same time
    const fs::path folder = fs::path(file).has_parent_path() ? fs::path(file).parent_path() : ".";
    const std::string name = fs::path(file).filename().string() + ".";
    std::error_code ignored;
    if (fs::exists(file)) files.push_back(file);
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
        const std::string found = entry.path().filename().string();
        if (found.rfind(name, 0) != 0) continue;
        const std::string rest = found.substr(name.size());
        if (rest.rfind("held.", 0) == 0) files.push_back(entry.path().string());
        if (rest.size() < 5 && rest.find_first_not_of("0123456789") == std::string::npos && !rest.empty())
            older[std::stoi(rest)] = entry.path().string();
    }
    for (const auto& [number, part] : older) files.insert(files.begin(), part);
    return files;
}

Health ForEachLine(const std::string& file, const std::function<void(Json&)>& take) {
    const std::vector<std::string> files = FilesOf(file);
    if (files.empty()) throw Failure(file + ": there is no such recording");
    Health health;
    std::map<long long, long long>
        last;  // of a process: the number of its last line; what it held may be in the file already
    for (const std::string& part : files) {
        std::ifstream in(part, std::ios::binary);
        if (!in) throw Failure(part + ": cannot be read");
        for (std::string text; std::getline(in, text);) {
            if (text.empty()) continue;
            if (text[0] == '\0') break;  // the unused rest of what is held
            try {
                Json line = Json::parse(text);
                const long long pid = line.at("pid").get<long long>();
                const std::string event = line.value("event", "");
                if (event == "gap") health.lost += line.value("lost", 0LL);
                if (event == "end") {
                    health.lost += line.value("lost", 0LL);
                    ++health.ended;
                }
                if (const long long number = line.value("n", 0LL)) {
                    const bool known = last.count(pid) != 0;
                    if (event == "start" && known && number <= last[pid]) last[pid] = 0;  // another process, same id
                    if (known && number <= last[pid]) continue;
                    health.missing += number - last[pid] - 1;
                    last[pid] = number;
                }
                health.begun += event == "start";
                take(line);
            } catch (const Json::exception&) {
                ++health.unreadable;
            }
        }
    }
    return health;
}

Health ForEachCall(const std::string& file, const std::function<void(Json&)>& take) {
    return ForEachLine(file, [&](Json& line) {
        if (line.contains("call") && line.contains("rc") && !line.contains("depth")) take(line);
    });
}

long long HandleOf(const Json& line) {
    const Json& holder =
        line.contains("in") && line.at("in").is_object() && line.at("in").contains("h") ? line.at("in") : line;
    return holder.contains("h") && holder.at("h").is_number() ? holder.at("h").get<long long>() : 0;
}

bool Failed(const Json& line) {
    const long long code = line.at("rc");
    const auto& answers = RowOf(line.at("call")).answers;
    const bool reason = line.contains("reason") && line.at("reason").is_number() && line.at("reason") != 0;
    return reason || (code != 0 && std::find(answers.begin(), answers.end(), code) == answers.end());
}

std::string Bytes(const Json& text) {
    if (text.is_string()) return text;
    std::string bytes;
    const std::string digits = text.is_object() ? text.value("bytes", "") : "";
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string Shown(const Json& value) {
    if (value.is_null()) return "nothing";
    if (value.is_array()) return value.size() == 1 ? Shown(value[0]) : fmt::format("{} of them", value.size());
    if (value.is_object() && value.contains("fs") && value.contains("ll")) {
        return Shown(value.at("fs")) + Shown(value.at("hl")) + Shown(value.at("ll"));
    }
    for (const char* part : {"name", "id", "fs", "class"}) {
        if (!value.is_object() || !value.contains(part)) continue;
        return (std::string(part) == "id" ? "object " : "") + Shown(value.at(part));
    }
    if (!value.is_string() && !value.is_object()) return value.dump();
    std::string text = Bytes(value);
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7F || (byte >= 0x80 && value.is_object())) c = '?';
    }
    return text;
}

std::string Words(const Json& line) {
    std::string text = RowOf(line.at("call")).words;
    for (std::size_t begin; (begin = text.find('{')) != std::string::npos;) {
        const std::size_t end = text.find('}', begin);
        const std::string path = text.substr(begin + 1, end - begin - 1);
        const Json* value = &line;
        for (std::size_t at = 0; at < path.size() && value;) {
            const std::size_t dot = std::min(path.find('.', at), path.size());
            const auto member = value->is_object() ? value->find(path.substr(at, dot - at)) : value->end();
            value = value->is_object() && member != value->end() ? &*member : nullptr;
            at = dot + 1;
        }
        std::string shown = value ? Shown(*value) : "something";
        if (path == "vote") shown = shown == "1" ? "commit" : shown == "2" ? "abort" : "vote " + shown;
        std::replace(shown.begin(), shown.end(), '{', '(');
        text.replace(begin, end - begin + 1, shown);
    }
    return text;
}

std::string CodeText(long long code) {
    const std::string name = CodeOf(code).name;
    return name.empty() ? fmt::format("{}", code) : fmt::format("{} ({})", name, code);
}

std::string Sentence(const Json& line) {
    const long long code = line.at("rc");
    if (!Failed(line))
        return Words(line) + (code == 0 || code == 2200 || code == 121 ? "" : fmt::format(": {}", CodeOf(code).text));
    if (line.contains("missing")) return Words(line) + " failed: this API has no such function";
    const long long reason =
        line.contains("reason") && line.at("reason").is_number() ? line.at("reason").get<long long>() : 0;
    const std::string name = CodeOf(code).name;
    const std::string codes = (name.empty() ? "" : name + ", ") + fmt::format("{}", code);
    // The caller did something wrong or is not allowed to; every other code is a failure of the API or the server.
    const bool refused = (code >= 100 && code != 102 && code != 157 && code != 2302) || code == 32;
    if (reason != 0)
        return fmt::format("{} failed: {} (reason {}; {})", Words(line), CodeOf(reason).text, reason, codes);
    return fmt::format("{} {}: {} ({})", Words(line), refused ? "was refused" : "failed", CodeOf(code).text, codes);
}

std::string Moment(const Json& line) {
    const long long at = line.at("at");
    return fmt::format("{:%H:%M:%S}.{:06}", fmt::localtime(static_cast<std::time_t>(at / 1000000)), at % 1000000);
}

std::string Duration(double nanoseconds) {
    const std::pair<double, const char*> units[] = {{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}, {1, "ns"}};
    const auto* unit =
        std::find_if(std::begin(units), std::end(units) - 1, [&](auto& u) { return nanoseconds >= u.first; });
    return fmt::format("{:.3g} {}", nanoseconds / unit->first, unit->second);
}

}  // namespace trace
