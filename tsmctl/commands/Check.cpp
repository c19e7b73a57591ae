// check: reads objects back and compares them with the SHA-256 that was stored with them.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Chosen.h"
#include "Transfer.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct CheckOptions {
    Chosen chosen;
    long long subset = 100;
    bool sums = false;
    int jobs = usualReaders;
};

// A line as sha256sum writes it, with the path at which a restore puts the file.
std::string SumLine(const std::string& digest, const Parts& local) {
    std::string name;
    for (const char c : Join(local)) {
        name += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : c == '\r' ? "\\r" : std::string(1, c);
    }
    const bool escaped = name.find('\\') != std::string::npos;
    return fmt::format("{}{}  {}", escaped ? "\\" : "", digest, name);
}

void CheckOne(const CheckOptions& options, Report& report, Session& session, Buffer& buffer,
              const ChosenObject& chosen) {
    const Content content = ContentOf(session, buffer, chosen.object, options.chosen.selection.at, report);
    const Kind kind = chosen.object.GetKind();
    report.Count(kind);
    if (!content.sealed) report.CountLoss("read, but stored without a SHA-256 to compare with");
    const bool isFile = kind == Kind::File || kind == Kind::Stream;
    if (!options.sums || !isFile) return report.Did("checked", chosen.object.ObjectPath());
    if (report.IsJson()) return report.Json({{"path", chosen.object.ObjectPath()}, {"sha256", content.digest}});
    report.Entry(SumLine(content.digest, chosen.local));
}

void Check(CheckOptions options, Context& context) {
    options.chosen.Patterns();
    Session session(context.connection);
    const auto work = [&](Session& own, Buffer& buffer, const ChosenObject& chosen) {
        CheckOne(options, context.report, own, buffer, chosen);
    };
    Batch batch(context, session, options.jobs, work, options.subset);
    Buffer none;
    const auto visit = [&](std::vector<StoredObject>& versions, const Parts& plain, size_t above) {
        const Parts local(plain.begin() + static_cast<std::ptrdiff_t>(above), plain.end());
        for (StoredObject& object : versions) {
            const ChosenObject chosen = {std::move(object), local};
            if (!chosen.object.directory) {
                batch.Add(chosen);
            } else {  // costs no reading, whatever the part of the objects
                Attempt(context.report, chosen.object.ObjectPath(),
                        [&] { CheckOne(options, context.report, session, none, chosen); });
            }
        }
        if (batch.IsFull()) batch.Run(false);
        return true;
    };
    Walk(context, session, options.chosen, visit);
    batch.Run(true);
    context.report.Summary("check");
}

}  // namespace

void AddCheck(CommandLine& line) {
    auto [command, options] = line.Add<CheckOptions>(
        "check", "Read back what is stored and compare it with its SHA-256",
        {"tsmctl check", "tsmctl check nightly --subset 5 -j 4", "tsmctl check nightly/docs --sums > docs.sha256"},
        Check);
    AddChosen(command, options.chosen, "object path, may hold * and ? (default: everything)");
    AddNumber(command, "--subset", "PERCENT", "of the objects, chosen at random, 1 to 100", 1, 100, options.subset);
    command.add_flag("--sums", options.sums, "print each file's SHA-256, as sha256sum -c reads it");
    AddJobs(command, options.jobs);
}

}  // namespace tsmctl
