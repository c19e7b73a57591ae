// restore: brings an object or a tree back into a local folder, or one object to standard output.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <utility>

#include "Arguments.h"
#include "Attributes.h"
#include "Chosen.h"
#include "Errors.h"
#include "TarWriter.h"
#include "TargetFolder.h"
#include "Transfer.h"
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

using RestoreItem = ChosenObject;

class Restorer {
public:
    Restorer(const RestoreOptions& options, Report& report) : options_(options), report_(report), folder_(options.to) {
        const mode_t mask = umask(0);
        umask(mask);
        defaultMode_ = 0666 & ~mask;
    }

    void MakeDirectory(const RestoreItem& item) {
        const auto mode = folder_.Make(item.local, item.object.info ? 0700 : 0777);
        if (mode && (!item.object.info || options_.overwrite == "never")) kept_[item.local] = *mode;
    }

    // Comes after everything that the directory holds, since that changes its time and its mode may forbid it.
    void FinishDirectory(const RestoreItem& item) {
        report_.Count(Kind::Directory);
        report_.Did("restored", item.object.ObjectPath());
        if (const auto kept = kept_.find(item.local); kept != kept_.end()) {
            const bool opened = (kept->second & S_IRWXU) != S_IRWXU;
            if (opened && fchmod(folder_.Open(item.local).Get(), kept->second) != 0)
                FailLocal("cannot set the mode", errno);
            return;
        }
        RequireKnown(item.object);
        if (!item.object.info) return;
        const Info& info = *item.object.info;
        ApplyMetadata(folder_.Open(item.local).Get(), info, info.fields, report_);
        WarnOfSetIds(item, info.fields);
    }

    void RestoreOne(Session& session, Buffer& buffer, const RestoreItem& item) {
        Parts parent = item.local;
        parent.pop_back();
        const UniqueFd directory = folder_.Open(parent);
        const Kind kind = item.object.GetKind();
        struct stat there = {};
        const bool exists = fstatat(directory.Get(), item.local.back().c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
                            !S_ISDIR(there.st_mode);
        const bool same = exists && options_.overwrite != "always" && LooksTheSame(there, item);
        // Another name of the same file may come, and be linked with this one.
        const bool stays = same && LinkKey(item.object.info).empty();
        if (stays || (exists && options_.overwrite == "never")) {
            report_.Count(kind);
            return report_.CountChange(Change::Unchanged);
        }
        NewEntry entry(directory, item.local.back(), same || (exists && !options_.overwrite.empty()));
        Download download(session, item.object, options_.chosen.selection.at);
        std::unique_lock<std::mutex> linking(mutex_, std::defer_lock);
        std::string key;  // of a file with several names
        bool linked = false;
        if (kind == Kind::Link) {
            const std::string target = ReceiveLinkTarget(download, buffer);
            report_.Advance(target.size());
            entry.CreateLink(target);
        } else if (IsSpecial(kind)) {
            ReceiveLinkTarget(download, buffer);
            if (!entry.CreateSpecial(*item.object.info)) return report_.CountLoss("special file not restored");
        } else {
            ReceiveInto(entry.CreateFile(), download, buffer, report_);
            if (same && options_.overwrite.empty()) {
                const UniqueFd here(
                    openat(directory.Get(), item.local.back().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
                if (here.Get() < 0) FailLocal("cannot open", errno);
                if (DigestOf(here.Get(), buffer) != download.Digest()) throw Failure(NewEntry::differs);
            }
            // The names of a file were stored one after the other, each with the content of its own: only names that
            // agree in everything are linked again.
            key = LinkKey(item.object.info);
            if (!key.empty()) {
                key += " " + download.Digest() + " " + download.Header();
                linking.lock();
            }
            linked = LinkToTwin(entry, key);
        }
        if (!linked) WarnOfSetIds(item, download.Header());
        const struct stat status = entry.Status();
        entry.Publish(item.object.info, defaultMode_, download.Header(), report_);
        report_.Count(kind);
        report_.Did("restored", item.object.ObjectPath());
        if (!key.empty()) twins_.try_emplace(key, Twin{item.local, status});
    }

    // A hole is left out where fd is a file, and written as zeros elsewhere.
    static void ReceiveInto(int fd, Download& download, Buffer& buffer, Report& report) {
        long long place = 0;
        bool sparse = false;
        Receive(download, buffer, [&](const Piece& piece) {
            place += static_cast<long long>(piece.size);
            if (!piece.hole || fd == STDOUT_FILENO) {
                WriteAll(fd, piece.data, piece.size);
            } else if ((!std::exchange(sparse, true) && ftruncate(fd, download.Size()) != 0) ||
                       lseek(fd, place, SEEK_SET) < 0) {
                FailLocal("cannot write", errno);
            }
            report.Advance(piece.size);
        });
    }

private:
    // Whether what is here looks like the object.
    static bool LooksTheSame(const struct stat& status, const RestoreItem& item) {
        if (!item.object.info) return false;
        const Info here = InfoOf(status);
        const Info& stored = *item.object.info;
        return here.kind == (stored.kind == Kind::Stream ? Kind::File : stored.kind) && here.size == stored.size &&
               here.mode == (stored.mode & ~setIds) && TimeText(here.mtime) == TimeText(stored.mtime) &&
               FieldOf(here.fields, "device") == FieldOf(stored.fields, "device");
    }

    // Another name of a file that was restored before.
    struct Twin {
        Parts local;
        struct stat status;
    };

    bool LinkToTwin(NewEntry& entry, const std::string& key) {
        const auto found = twins_.find(key);
        if (found == twins_.end()) return false;
        Parts parent = found->second.local;
        parent.pop_back();
        const bool linked = entry.BecomeLinkTo(folder_.Open(parent), found->second.local.back(), found->second.status);
        if (!linked) report_.CountLoss("hard link restored as a file of its own");
        return linked;
    }

    void WarnOfSetIds(const RestoreItem& item, const std::string& attributes) {
        const bool setsIds = item.object.info && (item.object.info->mode & setIds) != 0;
        if (setsIds) report_.Warn(Join(item.local), "restored without its set-user-id and set-group-id bits");
        if (HasCapability(attributes)) report_.Warn(Join(item.local), "restored without its capabilities");
    }

    const RestoreOptions& options_;
    Report& report_;
    TargetFolder folder_;
    std::map<Parts, mode_t> kept_;  // the modes of directories that existed and stay as they are
    mode_t defaultMode_;
    std::mutex mutex_;                   // of the twins, until the first one has its name
    std::map<std::string, Twin> twins_;  // by what names of one file have in common
};

// Restores as it walks, a batch of files at a time. A directory is finished when everything in it is there.
class TreeRestore {
public:
    TreeRestore(const RestoreOptions& options, Context& context, Session& session)
        : options_(options),
          report_(context.report),
          batch_(context, session, options.tar ? 1 : options.jobs,
                 [this](Session& own, Buffer& buffer, const RestoreItem& item) {
                     tar_ ? tar_->Write(own, buffer, item) : restorer_->RestoreOne(own, buffer, item);
                 }) {
        if (report_.IsDryRun()) return;
        if (options.tar) {
            tar_.emplace(options.chosen.selection.at, report_);
        } else {
            restorer_.emplace(options, report_);
        }
    }

    // Returns whether to go on below.
    bool Visit(std::vector<StoredObject>& versions, const Parts& plain, size_t above) {
        above = options_.strip.value_or(above);
        if (plain.size() <= above) return true;
        const auto head = plain.begin() + static_cast<std::ptrdiff_t>(above);
        const Parts local(head, plain.end());
        while (!open_.empty() && !StartsWith(local, open_.back().local)) Close();
        if (batch_.IsFull() || closed_.size() >= Batch::most) Run(false);
        const StoredObject* first = nullptr;
        const bool possible = Attempt(report_, versions[0].ObjectPath(), [&] {
            RequireSafe(local);
            const Parts& owner = heads_.try_emplace(local[0], plain.begin(), head).first->second;
            if (!std::equal(owner.begin(), owner.end(), plain.begin(), head)) {
                throw Failure("has the same name here as what lies in another directory, which is restored");
            }
            first = &Choose(versions);
        });
        if (!possible) return false;
        RestoreItem item = {*first, local};
        if (!first->directory) {
            report_.IsDryRun() ? Tell(item) : batch_.Add(std::move(item));
            return !std::any_of(versions.begin(), versions.end(), [](const auto& object) { return object.directory; });
        }
        if (report_.IsDryRun()) {
            Tell(item);
        } else if (tar_ || Attempt(report_, Join(local), [&] { restorer_->MakeDirectory(item); })) {
            open_.push_back(std::move(item));
        }
        return true;
    }

    void Finish() {
        while (!open_.empty()) Close();
        Run(true);
        if (tar_) tar_->Finish();
    }

private:
    void Tell(const RestoreItem& item) {
        struct stat status = {};
        const std::string here = options_.to + "/" + Join(item.local);
        const bool taken = !item.object.directory && lstat(here.c_str(), &status) == 0;
        report_.Did("restored", item.object.ObjectPath(), taken ? "its name is taken here" : "");
        report_.Count(item.object.GetKind());
    }

    void Close() {
        closed_.push_back(std::move(open_.back()));
        open_.pop_back();
    }

    void Run(bool last) {
        batch_.Run(last);
        for (const RestoreItem& item : closed_) {
            Attempt(report_, Join(item.local),
                    [&] { tar_ ? tar_->WriteDirectory(item) : restorer_->FinishDirectory(item); });
        }
        closed_.clear();
    }

    // Which of several objects of one name is restored. If their stored names differ, because another program wrote one
    // of them in its own way, it is ours; if they are a file and a directory of one stored name, the newer.
    const StoredObject& Choose(const std::vector<StoredObject>& versions) {
        const auto ours = [](const StoredObject& object) {
            const Parts stored = object.StoredParts();
            return std::all_of(stored.begin(), stored.end(),
                               [](const auto& part) { return Escape(Unescape(part)) == part; });
        };
        const auto comesFirst = [&](const StoredObject& object, const StoredObject& rival) {
            if (object.StoredParts() != rival.StoredParts()) return ours(object);
            return std::tie(object.date, object.directory) > std::tie(rival.date, rival.directory);
        };
        const StoredObject* first = &versions[0];
        for (const StoredObject& object : versions) {
            if (comesFirst(object, *first)) first = &object;
        }
        for (const StoredObject& skipped : versions) {
            if (&skipped == first) continue;
            report_.Failed(skipped.ObjectPath(),
                           skipped.directory == first->directory
                               ? "another object has the same name here; only one of them is restored"
                               : fmt::format("is stored as a file and as a directory; the {} is skipped",
                                             skipped.directory ? "directory, with all that it holds," : "file"));
        }
        return *first;
    }

    const RestoreOptions& options_;
    Report& report_;
    std::optional<Restorer> restorer_;
    std::optional<TarWriter> tar_;
    Batch batch_;
    std::vector<RestoreItem> open_;       // the directories above what comes next
    std::vector<RestoreItem> closed_;     // lower ones first
    std::map<std::string, Parts> heads_;  // for each name at the top, what was left out in front of it
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
            Restorer::ReceiveInto(STDOUT_FILENO, *download, buffer, report);
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
    const auto options = std::make_shared<RestoreOptions>();
    CLI::App& command = line.Add("restore", "Bring back one object or a whole tree",
                                 {"tsmctl restore nightly/docs --to restored -j 4 --exclude '*.o'",
                                  "tsmctl restore nightly/docs/a.txt --to january --at '2024-01-31 23:59:59'",
                                  "tsmctl restore dumps/docs.tar --to - | tar -t", "tsmctl restore / --to everything"},
                                 [options](Context& context) { Restore(*options, context); });
    options->chosen.required = true;
    AddChosen(command, options->chosen, "object path, may hold * and ?; / is everything");
    AddNumber(command, "--strip", "NUMBER", "parts to leave out of object paths (default: those above PATH)", 0, 1024,
              [options](long long number) { options->strip = static_cast<size_t>(number); });
    command.add_option("--to", options->to, "where to (default: here); - is standard output")->type_name(folderType);
    command.add_flag("--tar", options->tar, "what goes to standard output as an archive for tar");
    AddChoice(command, "--overwrite", options->overwrite, "which files that exist are replaced (default: none)",
              {"never", "changed", "always"});
    command.add_flag_callback(
        "--force", [options] { options->overwrite = "always"; }, "as --overwrite always");
    AddJobs(command, options->jobs);
    line.AddDryRun(command);
}

}  // namespace tsmctl
