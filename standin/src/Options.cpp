#include "Options.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Moments.h"

namespace standin {
namespace {

namespace fs = std::filesystem;

constexpr const char* faultVariable = "TSM_STANDIN_FAULTS";

template <std::size_t Size>
std::string Field(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

bool Same(const std::string& text, const char* keyword) {
    return strcasecmp(text.c_str(), keyword) == 0;
}

std::string Trimmed(const std::string& text) {
    const char* const blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Cuts the first word off.
std::string TakeWord(std::string& text) {
    const std::size_t end = std::min(text.find_first_of(" \t"), text.size());
    std::string word = text.substr(0, end);
    text = Trimmed(text.substr(end));
    return word;
}

std::string Unquoted(const std::string& text) {
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

std::string Variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

// Of days or versions: with any of these, moments stay after 1970.
std::optional<std::int64_t> Number(const std::string& text) {
    std::int64_t number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool good = error == std::errc() && end == text.data() + text.size() && number >= 0 && number <= 9999;
    return good ? std::optional(number) : std::nullopt;
}

std::string DefaultStoreDir() {
    if (const std::string store = Variable("TSM_STANDIN_STORE"); !store.empty()) return store;
    if (const std::string data = Variable("XDG_DATA_HOME"); !data.empty()) return data + "/tsm-standin";
    if (const std::string home = Variable("HOME"); !home.empty()) return home + "/.local/share/tsm-standin";
    throw std::runtime_error("no place for the store: neither STOREDIR, TSM_STANDIN_STORE nor HOME is set");
}

}  // namespace

ErrorLog::ErrorLog(const envSetUp* setUp) {
    const std::string folder = setUp ? Field(setUp->dsmiLog) : "";
    if (folder.empty()) return;
    const std::string name = Field(setUp->logName);
    path_ = folder + "/" + (name.empty() ? "dsierror.log" : name);
}

void ErrorLog::Write(const std::string& text) const noexcept try {
    if (path_.empty()) return;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char moment[32];
    std::strftime(moment, sizeof moment, "%Y-%m-%d %H:%M:%S ", localtime_r(&now, &local));
    std::string line = moment + text;
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < ' ') c = ' ';
    }
    line += '\n';
    const int file = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) return;
    // One write, so that lines of several processes do not mix. A failure cannot be reported anywhere.
    [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
    close(file);
} catch (...) {
}

Options::Options(const envSetUp* setUp) {
    if (const std::string file = setUp ? Field(setUp->dsmiConfig) : ""; !file.empty()) ReadFile(file);
    ReadRules(Variable(faultVariable));
    if (storeDir.empty()) storeDir = DefaultStoreDir();
    storeDir = fs::absolute(storeDir).string();
    if (classes.empty()) classes.push_back({"STANDARD", "Default management class"});
    for (const auto& [name, retention] : policy.classes) {
        if (std::none_of(classes.begin(), classes.end(),
                         [&name = name](const MgmtClass& c) { return c.name == name; })) {
            throw std::runtime_error("KEEP names a class that no MGMTCLASS does");
        }
    }
}

void Options::ReadFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("options file " + path + ": " + std::strerror(errno));
    const std::string baseDir = fs::absolute(path).parent_path().string();
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::string value = Trimmed(line);
        if (value.empty() || value.front() == '*') continue;
        const std::string keyword = TakeWord(value);
        const std::string place = "options file " + path + ", line " + std::to_string(number) + ": ";
        if (TakeFault(place, keyword, value)) continue;
        if (value.empty() || !(TakePolicy(keyword, value) || Take(keyword, value, baseDir))) {
            // A value may be secret, and so may a lone word or the text behind "=": none of them goes into the log.
            throw std::runtime_error(place + "not understood" +
                                     (value.empty() ? "" : ": " + keyword.substr(0, keyword.find('='))));
        }
    }
    if (file.bad()) throw std::runtime_error("options file " + path + ": cannot be read");
}

// For a program whose options file cannot be changed: lines of one, with a semicolon or the end of a line between them,
// but only those that make the server behave in another way.
void Options::ReadRules(std::string rules) {
    std::replace(rules.begin(), rules.end(), ';', '\n');
    std::istringstream lines(rules);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        std::string rest = Trimmed(line);
        if (rest.empty()) continue;
        const std::string keyword = TakeWord(rest);
        const std::string place = std::string(faultVariable) + ", rule " + std::to_string(number) + ": ";
        if (!TakeFault(place, keyword, rest) && (rest.empty() || !TakePolicy(keyword, rest))) {
            throw std::runtime_error(place + "not understood");
        }
    }
}

bool Options::TakeFault(const std::string& place, const std::string& keyword, const std::string& rest) try {
    return faults.Take(keyword, rest);
} catch (const std::runtime_error& mistake) {
    throw std::runtime_error(place + keyword + ": " + mistake.what());
}

bool Options::Take(const std::string& keyword, const std::string& value, const std::string& baseDir) {
    if (Same(keyword, "STOREDIR")) {
        const std::string folder = Unquoted(value);
        storeDir = (fs::path(baseDir) / folder).string();
        return !folder.empty();
    }
    if (Same(keyword, "MGMTCLASS")) {
        std::string description = value;
        std::string name = TakeWord(description);
        if (name.size() > DSM_MAX_MC_NAME_LENGTH || description.size() > DSM_MAX_MC_DESCR_LENGTH) return false;
        classes.push_back({std::move(name), Unquoted(description)});
        return true;
    }
    if (Same(keyword, "BACKDELETE")) {
        mayDeleteBackups = Same(value, "YES");
        return mayDeleteBackups || Same(value, "NO");
    }
    return false;
}

bool Options::TakePolicy(const std::string& keyword, const std::string& value) {
    if (Same(keyword, "KEEP")) return TakeKeep(value);
    if (Same(keyword, "EXPIRE")) return (passwordDays = Number(value)).value_or(0) > 0;
    return Same(keyword, "CLOCK") && TakeClock(value);
}

bool Options::TakeKeep(std::string value) {
    const std::string name = TakeWord(value);
    const auto [place, isNew] = policy.classes.emplace(name, Retention{});
    if (!isNew || value.empty()) return false;
    Retention& rules = place->second;
    while (!value.empty()) {
        const std::string limit = TakeWord(value);
        std::optional<std::int64_t>* const rule = Same(limit, "EXISTING")    ? &rules.existing
                                                  : Same(limit, "DELETED")   ? &rules.deleted
                                                  : Same(limit, "EXTRADAYS") ? &rules.extraDays
                                                  : Same(limit, "LASTDAYS")  ? &rules.lastDays
                                                                             : nullptr;
        if (!rule || *rule || !(*rule = Number(TakeWord(value)))) return false;
    }
    return rules.existing != 0;
}

bool Options::TakeClock(const std::string& value) {
    clockStoppedAt = clockAheadBy = 0;
    if (value[0] == '+' || value[0] == '-') {
        const std::optional<std::int64_t> days = Number(value.substr(1));
        clockAheadBy = (value[0] == '+' ? 1 : -1) * days.value_or(0) * 86400;
        return days.has_value();
    }
    clockStoppedAt = MomentIn(value.c_str()).value_or(0);
    return clockStoppedAt > 0;
}

}  // namespace standin
