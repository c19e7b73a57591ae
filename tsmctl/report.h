// Everything that a command says: failures and warnings on standard error, results on standard output, the progress
// line and the closing summary. Safe for several threads.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "info.h"

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
    // A line of the result, exactly as it is.
    void Line(const std::string& text);
    // The same, for a result that makes the command fail.
    void Differs(const std::string& text);

    void ExpectBytes(long long total);
    void Advance(size_t bytes);
    void Count(Kind kind);
    void Summary(const std::string& command);

    // Flushes standard output; a write that failed is a failure.
    bool AllDone();

private:
    void Say(const std::string& text);
    std::string TimeLeft(double rate) const;
    void Draw();
    void Erase();

    using Clock = std::chrono::steady_clock;
    double Seconds() const;

    const bool quiet;
    const bool bar;
    const Clock::time_point start = Clock::now();
    std::mutex mutex;
    Clock::time_point drawn = start;
    size_t onScreen = 0;  // characters of the progress line
    long long bytes = 0;
    long long totalBytes = 0;
    long long failures = 0;
    long long differences = 0;
    std::map<Kind, long long> counts;
};

std::string HumanSize(double bytes);
