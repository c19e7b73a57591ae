#include "Report.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>
#include <nlohmann/json.hpp>
#include <vector>

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

// Columns of the terminal, but for the last one, which may wrap.
size_t Room() {
    winsize window = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0;
    return known ? window.ws_col - 1U : 79U;
}

}  // namespace

Report::Report(bool quiet)
    : quiet_(quiet), bar_(!quiet && isatty(STDERR_FILENO) == 1), onTerminal_(isatty(STDOUT_FILENO) == 1) {}

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

void Report::Failed(std::string_view subject, std::string_view text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++failures_;
    Say(fmt::format("{}: {}", subject, text));
}

void Report::Failed(std::string_view text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++failures_;
    Say(std::string(text));
}

void Report::Warn(std::string_view subject, std::string_view text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Say(fmt::format("{}: warning: {}", subject, text));
}

void Report::CountLoss(const std::string& what) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++losses_[what];
}

void Report::Note(std::string_view text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!quiet_) Say(std::string(text));
}

void Report::Put(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Erase();
    std::fwrite((line + "\n").data(), 1, line.size() + 1, stdout);
}

void Report::Line(std::string_view text) {
    Put(Printable(text));
}

void Report::Entry(const std::string& text) {
    Put(onTerminal_ ? Printable(text) : OneLine(text));
}

void Report::Json(const nlohmann::ordered_json& value) {
    Put(value.dump(-1, ' ', onTerminal_, nlohmann::ordered_json::error_handler_t::replace));
}

void Report::Name(const char* key, const std::string& name, bool json) {
    if (json) {
        Json({{key, name}});
    } else {
        Entry(name);
    }
}

void Report::Text(const std::string& text) {
    Put(text.substr(0, text.find_last_not_of('\n') + 1));
}

void Report::Differs(std::string_view text) {
    Line(text);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++differences_;
}

void Report::ExpectBytes(long long total) {
    const std::lock_guard<std::mutex> lock(mutex_);
    totalBytes_ = total;
}

void Report::Advance(size_t count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_ += static_cast<long long>(count);
    Draw();
}

void Report::Count(Kind kind) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++counts_[kind];
    Draw();
}

void Report::CountChange(Change change, long long count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    changes_[change] += count;
}

double Report::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

// Empty where the time is not known, or so long that it means nothing.
std::string Report::TimeLeft(double rate) const {
    const double seconds = static_cast<double>(totalBytes_ - bytes_) / rate;
    if (!(seconds >= 0 && seconds < 100 * 3600)) return "";
    const auto left = static_cast<int>(seconds);
    if (left < 3600) return fmt::format("  {}:{:02} left", left / 60, left % 60);
    return fmt::format("  {}:{:02}:{:02} left", left / 3600, left / 60 % 60, left % 60);
}

void Report::Draw() {
    const auto now = Clock::now();
    if (!bar_ || bytes_ == 0 || now - drawn_ < std::chrono::milliseconds(100)) return;
    drawn_ = now;
    const double rate = static_cast<double>(bytes_) / Seconds();
    const std::string done = HumanSize(static_cast<double>(bytes_));
    const std::string speed = fmt::format("  {}/s", HumanSize(rate));
    std::vector<std::string> lines = {done + speed, done};  // from the longest to the shortest
    if (totalBytes_ > 0) {
        const double part = std::min(1.0, static_cast<double>(bytes_) / static_cast<double>(totalBytes_));
        const auto marks = static_cast<size_t>(part * 24);
        const std::string scale = fmt::format("[{}{}] ", std::string(marks, '#'), std::string(24 - marks, '-'));
        const std::string percent = fmt::format("{:3.0f}%", part * 100);
        const std::string amount = fmt::format("  {} of {}", done, HumanSize(static_cast<double>(totalBytes_)));
        const std::string left = TimeLeft(rate);
        lines = {scale + percent + amount + speed + left, percent + amount + speed + left, percent + speed + left,
                 percent + left, percent};
    }
    const size_t room = Room();
    const auto fits = std::find_if(lines.begin(), lines.end(), [&](const auto& line) { return line.size() <= room; });
    if (fits == lines.end()) return;
    // Blanks wipe the rest of the old line, since not every terminal knows a sequence for that.
    std::fputs(fmt::format("\r{:<{}}", *fits, std::min(onScreen_, room)).c_str(), stderr);
    onScreen_ = fits->size();
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
    if (quiet_) return;
    std::string text = command + ":";
    for (const auto& [kind, count] : counts_) {
        const char* const plural = kind == Kind::Directory ? "directories" : nullptr;
        text += count == 1 || plural ? fmt::format(" {} {},", count, count == 1 ? KindName(kind) : plural)
                                     : fmt::format(" {} {}s,", count, KindName(kind));
    }
    for (const auto& [change, count] : changes_) {
        const char* const names[] = {"new", "changed", "unchanged", "gone"};
        text += fmt::format(" {} {},", count, names[static_cast<size_t>(change)]);
    }
    if (bytes_ > 0) text += fmt::format(" {} bytes", bytes_);
    text += fmt::format(" in {:.2f} s", Seconds());
    if (differences_ > 0) text += fmt::format(", {} differences", differences_);
    if (failures_ > 0) text += fmt::format(", {} failed", failures_);
    Say(text);
}

bool Report::Succeeded() {
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!written) Failed("standard output", "cannot write");
    const std::lock_guard<std::mutex> lock(mutex_);
    Erase();
    return failures_ == 0 && differences_ == 0;
}

bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work) try {
    CheckInterrupt();
    work();
    return true;
} catch (const UsageError&) {
    throw;
} catch (const std::bad_alloc&) {
    report.Failed(subject, noMemory);
    return false;
} catch (const std::exception& failure) {
    report.Failed(subject, failure.what());
    return false;
}

}  // namespace tsmctl
