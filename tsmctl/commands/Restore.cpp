// restore: brings an object or a tree back into a local folder, or one object to standard output.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include "Chosen.h"
#include "Errors.h"
#include "RestoreTarget.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct RestoreOptions {
    Chosen chosen;
    std::optional<size_t> strip;
    std::string to = ".";  // "-" for standard output
    bool tar = false;
    std::string overwrite;  // empty: what is different here is a failure
    int jobs = usualReaders;
};

// Restores as it walks, a batch of files at a time. A directory is ended when everything in it is there.
class TreeRestore {
public:
    TreeRestore(const RestoreOptions& options, Context& context, Session& session)
        : options_(options),
          report_(context.report),
          batch_(
              context, session, options.tar ? 1 : options.jobs,
              [this](Session& own, Buffer& buffer, const ChosenObject& item) { target_->Write(own, buffer, item); }) {
        if (report_.IsDryRun()) return;
        const std::string& at = options.chosen.selection.at;
        target_ = options.tar ? ArchiveTarget(at, report_) : FolderTarget(options.to, options.overwrite, at, report_);
    }

    // Returns whether to go on below.
    bool Visit(std::vector<StoredObject>& versions, const Parts& plain, size_t above) {
        above = options_.strip.value_or(above);
        if (plain.size() <= above) return true;
        const auto head = plain.begin() + static_cast<std::ptrdiff_t>(above);
        const Parts local(head, plain.end());
        if (batch_.IsFull() || directories_.size() >= Batch::most) Run(local);
        const StoredObject* first = nullptr;
        const bool possible = Attempt(report_, versions[0].ObjectPath(), [&] {
            const auto leadsElsewhere = [](const std::string& part) {
                return part.empty() || part == "." || part == ".." || part.find('/') != std::string::npos;
            };
            if (std::any_of(local.begin(), local.end(), leadsElsewhere)) {
                throw Failure("its name cannot be that of a file here");
            }
            const Parts& owner = heads_.try_emplace(local[0], plain.begin(), head).first->second;
            if (!std::equal(owner.begin(), owner.end(), plain.begin(), head)) {
                throw Failure("has the same name here as what lies in another directory, which is restored");
            }
            first = &Choose(versions);
        });
        if (!possible) return false;
        ChosenObject item = {*first, local};
        const bool below = std::any_of(versions.begin(), versions.end(), [](const auto& v) { return v.directory; });
        if (!target_) {
            Tell(item);
        } else if (!first->directory) {
            batch_.Add(std::move(item));
        } else if (Attempt(report_, Join(local), [&] { target_->Begin(item); })) {
            directories_.push_back(std::move(item));
        }
        return first->directory || !below;
    }

    void Finish() {
        Run({});
        if (target_) target_->Finish();
    }

private:
    void Tell(const ChosenObject& item) {
        struct stat status = {};
        const std::string here = options_.to + "/" + Join(item.local);
        const bool taken = !item.object.directory && lstat(here.c_str(), &status) == 0;
        report_.Did("restored", item.object.ObjectPath(), taken ? "its name is taken here" : "");
        report_.Count(item.object.GetKind());
    }

    // Restores what was visited, but for the ends of the directories that hold the next path, of which there is none at
    // the end.
    void Run(const Parts& next) {
        batch_.Run(next.empty());
        const auto closed = std::stable_partition(directories_.begin(), directories_.end(),
                                                  [&](const auto& item) { return StartsWith(next, item.local); });
        std::for_each(directories_.rbegin(), std::make_reverse_iterator(closed), [&](const ChosenObject& item) {
            Attempt(report_, Join(item.local), [&] { target_->End(item); });
        });
        directories_.erase(closed, directories_.end());
    }

    // Which of several objects of one name is restored: ours, if another program wrote one in its own way, and the
    // newer of a file and a directory.
    const StoredObject& Choose(const std::vector<StoredObject>& versions) {
        const auto comesLast = [](const StoredObject& object, const StoredObject& rival) {
            const auto rank = [](const StoredObject& of) {
                return std::make_tuple(StoredPathOf(of.PlainParts()) == of.StoredPath(), of.date, of.directory);
            };
            return rank(object) < rank(rival);
        };
        const StoredObject& first = *std::max_element(versions.begin(), versions.end(), comesLast);
        for (const StoredObject& skipped : versions) {
            if (&skipped == &first) continue;
            report_.Failed(
                skipped.ObjectPath(),
                fmt::format("is stored in more than one way, of which only one is restored; the {} is skipped",
                            skipped.directory ? "directory, with all that it holds," : "file"));
        }
        return first;
    }

    const RestoreOptions& options_;
    Report& report_;
    std::unique_ptr<RestoreTarget> target_;  // none in a dry run
    Batch batch_;
    std::vector<ChosenObject> directories_;  // that have begun, upper ones first
    std::map<std::string, Parts> heads_;     // for each name at the top, what was left out in front of it
};

// One file or stream.
void RestoreToOutput(const RestoreOptions& options, Context& context, Session& session) {
    Report& report = context.report;
    const NamePattern pattern = options.chosen.Patterns()[0];
    Attempt(report, options.chosen.paths[0], [&] {
        std::vector<StoredObject> files = List(session, pattern, options.chosen.selection);
        if (files.empty()) throw NotFound();
        files.erase(std::remove_if(files.begin(), files.end(),
                                   [](const auto& object) { return object.directory || IsSpecial(object.GetKind()); }),
                    files.end());
        if (files.size() != 1) throw Failure("is not one file or stream");
        if (!report.IsDryRun()) {
            Buffer buffer(pieceSize);
            // What was written once cannot be taken back: only the beginning is tried again.
            std::optional<Download> download;
            session.Retry([&] { download.emplace(session, files[0], options.chosen.selection.at); });
            report.Expect(files[0].Size());
            Receive(*download, buffer, [&](const Piece& piece) {
                WriteAll(STDOUT_FILENO, piece.data, piece.size);
                report.Advance(piece.size);
            });
        }
        report.Did("restored", files[0].ObjectPath());
        report.Count(files[0].GetKind());
    });
}

void Restore(const RestoreOptions& options, Context& context) {
    const std::vector<NamePattern> patterns = options.chosen.Patterns();
    const bool toOutput = options.to == "-";
    if (options.to.empty()) throw UsageError("restore --to needs a folder, or - for standard output");
    if (options.tar && !toOutput) throw UsageError("--tar belongs to --to -");
    if (toOutput && !options.tar && (patterns.size() > 1 || patterns[0].IsRoot()))
        throw UsageError("one object path is needed");
    if (options.tar || (toOutput && !context.report.IsDryRun())) context.report.LeaveOutputAlone();
    Session session(context.connection);
    if (toOutput && !options.tar) {
        RestoreToOutput(options, context, session);
    } else {
        TreeRestore tree(options, context, session);
        Walk(context, session, options.chosen,
             [&](auto& versions, const Parts& plain, size_t above) { return tree.Visit(versions, plain, above); });
        tree.Finish();
    }
    context.report.Summary("restore");
}

}  // namespace

void AddRestore(CommandLine& line) {
    auto [command, options] =
        line.Add<RestoreOptions>("restore", "Bring back one object or a whole tree",
                                 {"tsmctl restore nightly/docs --to restored -j 4 --exclude '*.o'",
                                  "tsmctl restore nightly/docs/a.txt --to january --at '2024-01-31 23:59:59'",
                                  "tsmctl restore dumps/docs.tar --to - | tar -t", "tsmctl restore / --to everything"},
                                 Restore);
    options.chosen.required = true;
    AddChosen(command, options.chosen, "object path, may hold * and ?; / is everything");
    AddNumber(command, "--strip", "NUMBER", "parts to leave out of object paths (default: those above PATH)", 0, 1024,
              options.strip);
    command.add_option("--to", options.to, "where to (default: here); - is standard output")->type_name(folderType);
    command.add_flag("--tar", options.tar, "what goes to standard output as an archive for tar");
    AddChoice(command, "--overwrite", options.overwrite, "which files that exist are replaced (default: none)",
              {"never", "changed", "always"});
    command.add_flag_callback(
        "--force", [&overwrite = options.overwrite] { overwrite = "always"; }, "as --overwrite always");
    AddJobs(command, options.jobs);
    line.AddDryRun(command);
}

}  // namespace tsmctl
