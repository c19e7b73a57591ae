// Everything that a command says: failures and warnings on standard error, results on standard output, the progress
// line and the closing summary. What comes from outside, names and texts of the server, is made harmless here and
// nowhere else. Safe for several threads.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "ObjectInfo.h"

namespace tsmctl {

// A line on standard error, wherever that leads.
void Tell(std::string_view text);

class Report {
public:
    explicit Report(bool quiet);
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void Failed(std::string_view subject, std::string_view text);
    // The same for the command as a whole.
    void Failed(std::string_view text);
    void Warn(std::string_view subject, std::string_view text);
    // What is neither a failure nor a result; not said where the user wants quiet.
    void Note(std::string_view text);
    // A line of the result.
    void Line(std::string_view text);
    // The same, for a result that makes the command fail.
    void Differs(std::string_view text);
    // The same, for a result that scripts read: what is no terminal gets the names as they are, but in one line.
    void Entry(const std::string& text);
    // Exactly this value; on a terminal in plain ASCII.
    void Json(const nlohmann::ordered_json& value);

    void ExpectBytes(long long total);
    void Advance(size_t bytes);
    void Count(Kind kind);
    void Summary(const std::string& command);

    // Flushes standard output; a write that failed is a failure.
    bool AllDone();

private:
    void Say(const std::string& text);
    void Put(const std::string& line);
    std::string TimeLeft(double rate) const;
    void Draw();
    void Erase();

    using Clock = std::chrono::steady_clock;
    double Seconds() const;

    const bool quiet_;
    const bool bar_;
    const bool onTerminal_;  // standard output
    const Clock::time_point start_ = Clock::now();
    std::mutex mutex_;
    Clock::time_point drawn_ = start_;
    size_t onScreen_ = 0;  // characters of the progress line
    long long bytes_ = 0;
    long long totalBytes_ = 0;
    long long failures_ = 0;
    long long differences_ = 0;
    std::map<Kind, long long> counts_;
};

std::string HumanSize(double bytes);

}  // namespace tsmctl
