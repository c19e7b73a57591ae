// Everything that a command says: failures and warnings on standard error, results on standard output, the progress
// line and the closing summary. Names and texts from outside are made harmless here and nowhere else.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "ObjectInfo.h"

namespace tsmctl {

// Writes a line to standard error. Nothing is done about an error.
void PrintMessage(std::string_view text);

// What became of an object in a backup.
enum class Change { New, Changed, Unchanged, Gone };

// Safe for several threads.
class Report {
public:
    explicit Report(bool quiet);
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    // Something could not be done: one object, or the whole command.
    void Failed(std::string_view subject, std::string_view text);
    void Failed(std::string_view text);
    void Warn(std::string_view subject, std::string_view text);
    // Something about one object that is not kept; told once, in the summary, with the number of objects.
    void CountLoss(const std::string& what);
    // Neither a failure nor a result; left out if the user wants quiet.
    void Note(std::string_view text);

    // A line of the result.
    void Line(std::string_view text);
    // A line of the result that makes the command fail.
    void Differs(std::string_view text);
    // A line that scripts read: names are shown as they are unless it is a terminal, but on one line.
    void Entry(const std::string& text);
    // The exact value on one line, in plain ASCII on a terminal.
    void Json(const nlohmann::ordered_json& value);
    // An entry, or with json an object with this one member.
    void Name(const char* key, const std::string& name, bool json);
    // Text of our own, without the last line break.
    void Text(const std::string& text);

    void ExpectBytes(long long total);
    void Advance(size_t count);
    void Count(Kind kind);
    // The summary tells what was counted, even if it was 0.
    void CountChange(Change change, long long count = 1);
    void Summary(const std::string& command);

    // False when anything failed or differed. Flushes standard output first; an error there is a failure.
    bool Succeeded();

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
    std::map<std::string, long long> losses_;
    std::map<Change, long long> changes_;
};

// Does the work. A failure is reported under the subject; then the result is false. Interrupted and UsageError pass.
bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work);

// Why an object was not done for which there was no memory.
constexpr const char* noMemory = "not done: not enough memory";

std::string HumanSize(double bytes);

}  // namespace tsmctl
