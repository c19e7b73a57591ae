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
    int jobs = 1;
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

// Other ones each time, so that repeated checks come to all. Directories, which need not be read, all stay.
void KeepSubset(std::vector<StoredObject>& objects, long long percent) {
    const auto files =
        std::partition(objects.begin(), objects.end(), [](const StoredObject& object) { return object.directory; });
    std::shuffle(files, objects.end(), std::mt19937_64(std::random_device()()));
    const auto count = objects.end() - files;
    objects.erase(files + (count / 100 * percent + (count % 100 * percent + 99) / 100), objects.end());
}

constexpr const char* noSum = "read, but stored without a SHA-256 to compare with";

void CheckOne(const CheckOptions& options, Report& report, Session& session, Buffer& buffer, const StoredObject& object,
              size_t above) {
    const Kind kind = object.GetKind();
    if (object.directory) {
        RequireKnown(object);
        report.Count(kind);
        if (object.info && FieldOf(object.info->fields, "sum").empty()) report.CountLoss(noSum);
        return;
    }
    Download download(session, object, options.at);
    Receive(download, buffer, [&](const Piece& piece) { report.Advance(piece.size); });
    report.Count(kind);
    if (!download.Sealed()) report.CountLoss(noSum);
    const bool isFile = kind == Kind::File || kind == Kind::Stream;
    if (options.sums && isFile) report.Entry(SumLine(download.Digest(), object.PlainParts(), above));
}

void Check(const CheckOptions& options, Context& context) {
    if (options.path.empty()) throw UsageError("an empty path");
    const NamePattern pattern(ParsePath(options.path), false);
    Session session(context.connection);
    std::vector<StoredObject> objects = List(session, pattern, Scope::Tree, {false, options.at, TSM_OBJECTS_ANY});
    if (objects.empty() && !pattern.IsRoot()) throw NotFound();
    if (options.subset < 100) KeepSubset(objects, options.subset);
    for (const StoredObject& object : objects) context.report.ExpectBytes(object.Size());
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
