#include "Report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <new>
#include <nlohmann/json.hpp>

#include "Errors.h"
#include "ObjectNames.h"

namespace tsmctl {

std::string HumanSize(double bytes) {
    const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    size_t unit = 0;
    for (; bytes >= 1024 && unit + 1 < std::size(units); ++unit) bytes /= 1024;
    return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

namespace {

constexpr const char* changeNames[] = {"new", "changed", "unchanged", "gone"};

// Columns of the terminal, but for the last one, which may wrap.
size_t Room() {
    winsize window = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0;
    return known ? window.ws_col - 1U : 79U;
}

}  // namespace

Report::Report(const ReportOptions& options)
    : options_(options), bar_(!options.quiet && isatty(STDERR_FILENO) == 1), onTerminal_(isatty(STDOUT_FILENO) == 1) {}

void PrintMessage(std::string_view text) {
    const std::string line = "tsmctl: " + Printable(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

Report::~Report() {
    Erase();
}

void Report::Say(const std::string& text) {
    Erase();
    PrintMessage(text);
}

void Report::Event(const char* key, std::string_view subject, std::string_view text) {
    if (options_.json) Json({{key, subject}, {"text", text}});
}

void Report::Failed(std::string_view subject, std::string_view text) {
    Event("failed", subject, text);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++failures_;
    Say(fmt::format("{}{}{}", subject, subject.empty() ? "" : ": ", text));
}

void Report::Warn(std::string_view subject, std::string_view text) {
    Event("warning", subject, text);
    const std::lock_guard<std::mutex> lock(mutex_);
    Say(fmt::format("{}: warning: {}", subject, text));
}

void Report::CountLoss(const std::string& what) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++losses_[what];
}

void Report::Note(std::string_view text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!options_.quiet) Say(std::string(text));
}

void Report::Put(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Erase();
    std::fwrite((line + "\n").data(), 1, line.size() + 1, out_);
}

void Report::Line(std::string_view text) {
    options_.json ? Json({{"text", text}}) : Put(Printable(text));
}

void Report::Entry(const std::string& text) {
    Put(onTerminal_ ? Printable(text) : OneLine(text));
}

void Report::Json(const nlohmann::ordered_json& value) {
    Put(value.dump(-1, ' ', onTerminal_, nlohmann::ordered_json::error_handler_t::replace));
}

void Report::Name(const char* key, const std::string& name) {
    options_.json ? Json({{key, name}}) : Entry(name);
}

void Report::Text(const std::string& text) {
    const std::string trimmed = text.substr(0, text.find_last_not_of('\n') + 1);
    options_.json ? Line(trimmed) : Put(trimmed);
}

void Report::Differs(std::string_view subject, std::string_view text) {
    const bool isMark = text.size() == 1;
    options_.json ? Event("differs", subject, text)
                  : Line(isMark ? fmt::format("{} {}", text, subject) : fmt::format("{}: {}", subject, text));
    const std::lock_guard<std::mutex> lock(mutex_);
    ++differences_;
}

void Report::Did(const char* action, const std::string& object, const std::string& detail, bool isResult) {
    if (!isResult && !options_.verbose && !options_.dryRun) return;
    if (!options_.json) {
        const std::string more = detail.empty() ? "" : fmt::format(" ({})", detail);
        return Line(fmt::format("{}{} {}{}", options_.dryRun ? "would be " : "", action, object, more));
    }
    nlohmann::ordered_json line = {{"action", action}, {"path", object}};
    if (!detail.empty()) line["detail"] = detail;
    if (options_.dryRun) line["dryRun"] = true;
    Json(line);
}

void Report::Expect(std::optional<long long> bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    totalBytes_ += std::min(std::max(0LL, bytes.value_or(0)), LLONG_MAX - totalBytes_);
    ++totalObjects_;
}

void Report::Advance(size_t count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_ += static_cast<long long>(count);
    Draw();
}

void Report::Step() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++steps_;
    Draw();
}

void Report::Count(Kind kind) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++counts_[KindName(kind)];
    ++counted_;
    Draw();
}

void Report::CountChange(Change change, long long count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    changes_[change] += count;
}

double Report::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Report::Draw() {
    const auto now = Clock::now();
    const size_t objects = std::max(steps_, counted_);
    if (!bar_ || (bytes_ == 0 && objects == 0) || now - drawn_ < std::chrono::milliseconds(100)) return;
    drawn_ = now;
    const auto bytes = static_cast<double>(bytes_);
    const auto allBytes = static_cast<double>(totalBytes_);
    const size_t room = Room();
    std::string line;
    // What matters most comes first, and what has no room is left out.
    const auto show = [&](const std::string& part) {
        if (line.size() + part.size() + 2 <= room) line += "  " + part;
    };
    if (totalBytes_ > 0 || totalObjects_ > 0) {
        const double part =
            std::min(1.0, totalBytes_ > 0 ? bytes / allBytes
                                          : static_cast<double>(objects) / static_cast<double>(totalObjects_));
        show(fmt::format("{:.0f}%", part * 100));
        const double left = Seconds() * (1 - part) / part;  // so long at first that it means nothing
        if (left < 100 * 3600) show(fmt::format("{:%T} left", std::chrono::seconds(static_cast<long long>(left))));
    }
    if (bytes_ > 0) {
        show(HumanSize(bytes) + (totalBytes_ > 0 ? " of " + HumanSize(allBytes) : ""));
        show(HumanSize(bytes / Seconds()) + "/s");
    }
    // Directories come on top of what was expected.
    const std::string of = totalObjects_ > 0 ? fmt::format(" of {}", std::max(objects, totalObjects_)) : "";
    if (objects > 0) show(fmt::format("{}{} objects", objects, of));
    // Blanks wipe the rest of the old line, since not every terminal knows a sequence for that.
    std::fputs(fmt::format("\r{:<{}}", line, std::min(onScreen_, room)).c_str(), stderr);
    onScreen_ = line.size();
}

void Report::Erase() {
    if (onScreen_ > 0) std::fputs(fmt::format("\r{:{}}\r", "", std::min(onScreen_, Room())).c_str(), stderr);
    onScreen_ = 0;
}

void Report::Summary(const std::string& command) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Erase();
    for (const auto& [what, count] : losses_) {
        Say(fmt::format("warning: {} ({} object{})", what, count, count == 1 ? "" : "s"));
    }
    if (options_.quiet || options_.json) return;
    std::string text = command + (options_.dryRun ? " (dry run):" : ":");
    for (const auto& [kind, count] : counts_) {
        text += fmt::format(" {} {},", count, count == 1 ? kind : kind == "directory" ? "directories" : kind + "s");
    }
    for (const auto& [change, count] : changes_) {
        text += fmt::format(" {} {},", count, changeNames[static_cast<size_t>(change)]);
    }
    if (bytes_ > 0) text += fmt::format(" {} bytes", bytes_);
    text += fmt::format(" in {:.2f} s", Seconds());
    if (differences_ > 0) text += fmt::format(", {} difference{}", differences_, differences_ == 1 ? "" : "s");
    if (failures_ > 0) text += fmt::format(", {} failed", failures_);
    Say(text);
}

void Report::JsonSummary(const std::string& command, bool good) {
    nlohmann::ordered_json summary = {{"command", command}, {"dryRun", options_.dryRun}, {"objects", counts_}};
    for (size_t i = 0; !changes_.empty() && i < std::size(changeNames); ++i) {
        summary[changeNames[i]] = changes_[static_cast<Change>(i)];
    }
    summary["bytes"] = bytes_;
    summary["seconds"] = Seconds();
    summary["differences"] = differences_;
    summary["failures"] = failures_;
    summary["incomplete"] = losses_;
    summary["succeeded"] = good && failures_ == 0 && differences_ == 0;
    Json({{"summary", summary}});
}

long long Report::Failures() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return failures_;
}

bool Report::Succeeded(const std::string& command, bool good) {
    if (options_.json && !options_.quiet) JsonSummary(command, good);
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!written) Failed("standard output", "cannot write");
    const std::lock_guard<std::mutex> lock(mutex_);
    Erase();
    return failures_ == 0 && differences_ == 0;
}

bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work) {
    CheckInterrupt();
    const bool done = AttemptAnyway(report, subject, work);
    if (!done) CheckInterrupt();
    return done;
}

bool AttemptAnyway(Report& report, const std::string& subject, const std::function<void()>& work) try {
    work();
    return true;
} catch (const UsageError&) {
    throw;
} catch (const Interrupted&) {
    return false;
} catch (const std::bad_alloc&) {
    report.Failed(subject, "not done: not enough memory");
    return false;
} catch (const std::exception& failure) {
    report.Failed(subject, failure.what());
    return false;
}

}  // namespace tsmctl
