// Everything that a command says: failures and warnings on standard error, results on standard output, the progress
// line and the closing summary; as JSON, all but the progress on standard output. Names and texts from outside are made
// harmless here and nowhere else.
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ObjectInfo.h"

namespace tsmctl {

// Writes a line to standard error. Nothing is done about an error.
void PrintMessage(std::string_view text);

// What became of an object in a backup.
enum class Change { New, Changed, Unchanged, Gone };

struct ReportOptions {
    bool quiet = false;
    bool verbose = false;
    bool json = false;
    bool dryRun = false;
};

// Safe for several threads.
class Report {
public:
    explicit Report(const ReportOptions& options);
    ~Report();

    bool IsJson() const { return options_.json; }
    // Whether the command only tells what it would do.
    bool IsDryRun() const { return options_.dryRun; }
    // Standard output takes data. What would be written there goes to standard error.
    void LeaveOutputAlone() { out_ = stderr; }

    // Something could not be done: one object, or the whole command.
    void Failed(std::string_view subject, std::string_view text);
    void Warn(std::string_view subject, std::string_view text);
    // Something about one object that is not kept; told once, in the summary, with the number of objects.
    void CountLoss(const std::string& what);
    // Neither a failure nor a result; left out if the user wants quiet.
    void Note(std::string_view text);

    // A line of the result.
    void Line(std::string_view text);
    // A line of the result that makes the command fail.
    void Differs(std::string_view subject, std::string_view text);
    void Differs(char mark, const std::string& object) { Differs(object, std::string(1, mark)); }
    // What was done to an object ("removed"), or would be. Left out unless each is to be named, or it is a result.
    void Did(const char* action, const std::string& object, const std::string& detail = "", bool isResult = false);
    // A line that scripts read: names are shown as they are unless it is a terminal, but on one line.
    void Entry(const std::string& text);
    // The exact value on one line, in plain ASCII on a terminal.
    void Json(const nlohmann::ordered_json& value);
    // An entry, or an object with this one member.
    void Name(const char* key, const std::string& name);
    // Text of our own, without the last line break.
    void Text(const std::string& text);

    // One more object is to be done. A size that is not sure counts as 0.
    void Expect(std::optional<long long> bytes = 0);
    void Advance(size_t count);
    // One more object is behind, of which is counted later whether it was done.
    void Step();
    void Count(Kind kind);
    // The summary tells what was counted, even if it was 0.
    void CountChange(Change change, long long count = 1);
    void Summary(const std::string& command);

    long long Failures();
    // Ends the output, as JSON with a summary. False when anything failed or differed, or standard output could not be
    // written.
    bool Succeeded(const std::string& command, bool good);

private:
    void Say(const std::string& text);
    void Put(const std::string& line);
    void Event(const char* key, std::string_view subject, std::string_view text);
    void JsonSummary(const std::string& command, bool good);
    void Draw();
    void Erase();

    using Clock = std::chrono::steady_clock;
    double Seconds() const;

    const ReportOptions options_;
    FILE* out_ = stdout;
    const bool bar_;
    const bool onTerminal_;  // standard output
    const Clock::time_point start_ = Clock::now();
    std::mutex mutex_;
    Clock::time_point drawn_ = start_;
    size_t onScreen_ = 0;  // characters of the progress line
    long long bytes_ = 0;
    long long totalBytes_ = 0;
    size_t steps_ = 0;
    size_t counted_ = 0;
    size_t totalObjects_ = 0;
    long long failures_ = 0;
    long long differences_ = 0;
    std::map<std::string, long long> counts_;
    std::map<std::string, long long> losses_;
    std::map<Change, long long> changes_;
};

// Does the work. A failure is reported under the subject; then the result is false. Interrupted and UsageError pass.
bool Attempt(Report& report, const std::string& subject, const std::function<void()>& work);
// The same for what is due also after a signal, which then ends no more than the work.
bool AttemptAnyway(Report& report, const std::string& subject, const std::function<void()>& work);

std::string HumanSize(double bytes);

}  // namespace tsmctl
