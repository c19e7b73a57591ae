// check: reads objects back and compares them with the SHA-256 that was stored with them.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Arguments.h"
#include "Errors.h"
#include "Inventory.h"
#include "Parallel.h"
#include "Transfer.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct CheckOptions {
    std::string path = "/";
    std::string at;
    long long subset = 100;
    bool sums = false;
    int jobs = usualReaders;
};

// A line as sha256sum writes it, with the path at which a restore puts the file.
std::string SumLine(const std::string& digest, const Parts& plain, size_t above) {
    std::string name;
    for (const char c : Join(Parts(plain.begin() + static_cast<std::ptrdiff_t>(above), plain.end()))) {
        name += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : c == '\r' ? "\\r" : std::string(1, c);
    }
    const bool escaped = name.find('\\') != std::string::npos;
    return fmt::format("{}{}  {}", escaped ? "\\" : "", digest, name);
}

// Other ones each time, so that repeated checks come to all.
void KeepSubset(std::vector<StoredObject>& objects, long long percent) {
    std::shuffle(objects.begin(), objects.end(), std::mt19937_64(std::random_device()()));
    const size_t count = objects.size();
    objects.resize(count / 100 * static_cast<size_t>(percent) +
                   (count % 100 * static_cast<size_t>(percent) + 99) / 100);
}

void CheckOne(const CheckOptions& options, Report& report, Session& session, Buffer& buffer, const StoredObject& object,
              size_t above) {
    Download download(session, object, options.at);
    Receive(download, buffer, [&](const Piece& piece) { report.Advance(piece.size); });
    const Kind kind = object.GetKind();
    report.Count(kind);
    if (!download.Sealed()) report.CountLoss("read, but stored without a SHA-256 to compare with");
    const bool isFile = kind == Kind::File || kind == Kind::Stream;
    if (options.sums && isFile) report.Entry(SumLine(download.Digest(), object.PlainParts(), above));
}

void Check(const CheckOptions& options, Context& context) {
    if (options.path.empty()) throw UsageError("an empty path");
    const NamePattern pattern(ParsePath(options.path), false);
    Session session(context.connection);
    Selection selection;
    selection.at = options.at;
    selection.objectType = TSM_OBJECTS_FILES;
    std::vector<StoredObject> objects = List(session, pattern, Scope::Tree, selection);
    if (objects.empty() && !pattern.IsRoot()) throw NotFound();
    if (options.subset < 100) KeepSubset(objects, options.subset);
    long long bytes = 0;
    for (const StoredObject& object : objects) bytes += object.Size().value_or(0);
    context.report.ExpectBytes(bytes);
    const size_t above = pattern.IsRoot() ? 0 : pattern.Depth() - 1;
    const Job job = {[&](size_t i) { return objects[i].ObjectPath(); },
                     [&](Session& own, Buffer& buffer, size_t i) {
                         CheckOne(options, context.report, own, buffer, objects[i], above);
                     }};
    RunParallel(context, session, options.jobs, objects.size(), job);
    context.report.Summary("check");
}

}  // namespace

void AddCheck(CommandLine& line) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App& command = line.Add(
        "check", "Read back what is stored and compare it with its SHA-256",
        {"tsmctl check", "tsmctl check nightly --subset 5 -j 4", "tsmctl check nightly/docs --sums > docs.sha256"},
        [options](Context& context) { Check(*options, context); });
    command.add_option("PATH", options->path, "object path (default: everything)")->type_name("OBJECT");
    AddMoment(command, options->at, "what was active at 'YYYY-MM-DD HH:MM:SS', server time");
    AddNumber(command, "--subset", "PERCENT", "of the objects, chosen at random, 1 to 100", 1, 100,
              [options](long long number) { options->subset = number; });
    command.add_flag("--sums", options->sums, "print each file's SHA-256, as sha256sum -c reads it");
    AddJobs(command, options->jobs);
}

}  // namespace tsmctl
