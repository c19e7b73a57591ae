// restore: brings an object or a tree back into a local folder, or one object to standard output.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <tuple>

#include "Arguments.h"
#include "Attributes.h"
#include "Errors.h"
#include "HelpFormatter.h"
#include "Inventory.h"
#include "Parallel.h"
#include "TargetFolder.h"
#include "Transfer.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct RestoreOptions {
    std::string path;
    std::string to = ".";  // "-" for standard output
    std::string at;
    bool force = false;
    int jobs = usualReaders;
};

struct RestoreItem {
    StoredObject object;
    Parts local;  // below the target folder
};

class Restorer {
public:
    Restorer(const RestoreOptions& options, Report& report) : options_(options), report_(report), folder_(options.to) {
        const mode_t mask = umask(0);
        umask(mask);
        defaultMode_ = 0666 & ~mask;
    }

    void MakeDirectory(const RestoreItem& item) {
        const bool made = folder_.Make(item.local, item.object.info ? 0700 : 0777);
        if (!made && !options_.force) untouched_.insert(item.local);
    }

    // Comes after everything that the directory holds, since that changes its time and its mode may forbid it.
    void FinishDirectory(const RestoreItem& item) {
        report_.Count(Kind::Directory);
        RequireKnown(item.object);
        if (!item.object.info || untouched_.count(item.local) > 0) return;
        const Info& info = *item.object.info;
        ApplyMetadata(folder_.Open(item.local).Get(), info, info.fields, report_);
        WarnOfSetIds(item, info.fields);
    }

    void RestoreOne(Session& session, Buffer& buffer, const RestoreItem& item) {
        Parts parent = item.local;
        parent.pop_back();
        const UniqueFd directory = folder_.Open(parent);
        NewEntry entry(directory, item.local.back(), options_.force);
        Download download(session, item.object, options_.at);
        const Kind kind = item.object.GetKind();
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
            key = TwinKey(item, download);
            if (!key.empty()) linking.lock();
            linked = LinkToTwin(entry, key);
        }
        if (!linked) WarnOfSetIds(item, download.Header());
        const struct stat status = entry.Status();
        entry.Publish(item.object.info, defaultMode_, download.Header(), report_);
        report_.Count(kind);
        if (!key.empty()) twins_.try_emplace(key, Twin{item.local, status});
    }

    // A hole is left out where fd is a file, and written as zeros elsewhere.
    static void ReceiveInto(int fd, Download& download, Buffer& buffer, Report& report) {
        long long place = 0;
        bool atHole = false;
        Receive(download, buffer, [&](const Piece& piece) {
            place += static_cast<long long>(piece.size);
            atHole = piece.hole && fd != STDOUT_FILENO;
            if (!atHole) {
                WriteAll(fd, piece.data, piece.size);
            } else if (lseek(fd, place, SEEK_SET) < 0) {
                FailLocal("cannot write", errno);
            }
            report.Advance(piece.size);
        });
        if (atHole && ftruncate(fd, place) != 0) FailLocal("cannot write", errno);
    }

private:
    // Another name of a file that was restored before.
    struct Twin {
        Parts local;
        struct stat status;
    };

    // The names of a file were stored one after the other, each with the content of its own: only names that agree in
    // everything are linked again. Empty for a file with one name.
    static std::string TwinKey(const RestoreItem& item, const Download& download) {
        if (!item.object.info || FieldOf(item.object.info->fields, "link").empty()) return "";
        Info info = *item.object.info;
        info.ctime = {};
        return FormatInfo(info) + " " + download.Digest() + " " + download.Header();
    }

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
    std::set<Parts> untouched_;  // directories that existed keep their mode and time
    mode_t defaultMode_;
    std::mutex mutex_;                   // of the twins, until the first one has its name
    std::map<std::string, Twin> twins_;  // by what names of one file have in common
};

// Decides what is restored where, in the order of the local names; above is the number of parts that are left out. Two
// objects can have the same local name. If their stored names differ, because another program wrote one of them in its
// own way, ours is restored. If they are a file and a directory of one stored name, the newer is restored.
std::vector<RestoreItem> Plan(Report& report, const std::vector<StoredObject>& objects, size_t above) {
    const auto ours = [](const StoredObject& object) {
        const Parts stored = object.StoredParts();
        return std::all_of(stored.begin(), stored.end(),
                           [](const auto& part) { return Escape(Unescape(part)) == part; });
    };
    const auto comesFirst = [&](const StoredObject& object, const StoredObject& rival) {
        if (object.StoredParts() != rival.StoredParts()) return ours(object);
        return std::tie(object.date, object.directory) > std::tie(rival.date, rival.directory);
    };
    std::map<Parts, const StoredObject*> byName;
    std::set<Parts> filesFirst;  // restored instead of a directory with everything below it
    for (const StoredObject& object : objects) {
        Attempt(report, object.ObjectPath(), [&] {
            const Parts plain = object.PlainParts();
            const Parts local(plain.begin() + static_cast<std::ptrdiff_t>(above), plain.end());
            RequireSafe(local);
            const StoredObject*& place = byName[local];
            const StoredObject* skipped = place;
            if (!place || comesFirst(object, *place)) {
                place = &object;
            } else {
                skipped = &object;
            }
            if (!skipped) return;
            if (skipped->directory && !place->directory) filesFirst.insert(local);
            throw Failure(skipped->directory == place->directory
                              ? "another object has the same name here; only one of them is restored"
                              : fmt::format("is stored as a file and as a directory; the {} is skipped",
                                            skipped->directory ? "directory, with all that it holds," : "file"));
        });
    }
    std::vector<RestoreItem> plan;
    for (const auto& entry : byName) {
        const Parts& name = entry.first;
        const bool skipped = std::any_of(filesFirst.begin(), filesFirst.end(), [&](const Parts& file) {
            return name.size() > file.size() && StartsWith(name, file);
        });
        if (!skipped) plan.push_back({*entry.second, name});
    }
    return plan;
}

void RestoreTree(const RestoreOptions& options, Context& context, Session& session,
                 const std::vector<RestoreItem>& plan) {
    Restorer restorer(options, context.report);
    std::vector<const RestoreItem*> directories;
    std::vector<const RestoreItem*> others;
    long long bytes = 0;
    // In the order of the names a directory comes before what it holds.
    for (const RestoreItem& item : plan) {
        bytes += item.object.Size().value_or(0);
        if (!item.object.directory) {
            others.push_back(&item);
        } else if (Attempt(context.report, Join(item.local), [&] { restorer.MakeDirectory(item); })) {
            directories.push_back(&item);
        }
    }
    context.report.ExpectBytes(bytes);
    const Job job = {[&](size_t i) { return others[i]->object.ObjectPath(); },
                     [&](Session& own, Buffer& buffer, size_t i) { restorer.RestoreOne(own, buffer, *others[i]); }};
    RunParallel(context, session, options.jobs, others.size(), job);
    std::for_each(directories.rbegin(), directories.rend(), [&](const RestoreItem* item) {
        Attempt(context.report, Join(item->local), [&] { restorer.FinishDirectory(*item); });
    });
}

// The objects are what is stored at the path, and below it.
void RestoreToOutput(const RestoreOptions& options, Report& report, Session& session,
                     const std::vector<StoredObject>& objects, size_t depth) {
    std::vector<StoredObject> files;
    std::copy_if(objects.begin(), objects.end(), std::back_inserter(files), [&](const auto& object) {
        return object.PlainParts().size() == depth && !object.directory && !IsSpecial(object.GetKind());
    });
    if (files.size() != 1) throw Failure("is not one file or stream");
    Buffer buffer(pieceSize);
    Download download(session, files[0], options.at);
    report.ExpectBytes(files[0].Size().value_or(0));
    Restorer::ReceiveInto(STDOUT_FILENO, download, buffer, report);
    report.Count(files[0].GetKind());
}

void Restore(const RestoreOptions& options, Context& context) {
    const NamePattern pattern(ParsePath(options.path), false);
    const bool toOutput = options.to == "-";
    if (options.to.empty()) throw UsageError("restore --to needs a folder, or - for standard output");
    if (options.path.empty() || (toOutput && pattern.IsRoot())) throw UsageError("an object path is needed");
    Session session(context.connection);
    Selection selection;
    selection.at = options.at;
    Attempt(context.report, options.path, [&] {
        const auto objects = List(session, pattern, Scope::Tree, selection);
        if (objects.empty()) throw NotFound();
        if (toOutput) {
            RestoreToOutput(options, context.report, session, objects, pattern.Depth());
        } else {
            const size_t above = pattern.IsRoot() ? 0 : pattern.Depth() - 1;
            RestoreTree(options, context, session, Plan(context.report, objects, above));
        }
    });
    context.report.Summary("restore");
}

}  // namespace

void AddRestore(CommandLine& line) {
    const auto options = std::make_shared<RestoreOptions>();
    CLI::App& command = line.Add("restore", "Bring back one object or a whole tree",
                                 {"tsmctl restore nightly/docs --to restored -j 4",
                                  "tsmctl restore nightly/docs/a.txt --to january --at '2024-01-31 23:59:59'",
                                  "tsmctl restore dumps/docs.tar --to - | tar -t", "tsmctl restore / --to everything"},
                                 [options](Context& context) { Restore(*options, context); });
    command.add_option("PATH", options->path, "object path; / is everything")->type_name("OBJECT")->required();
    command.add_option("--to", options->to, "where to (default: here); - is standard output")->type_name(folderType);
    command.add_flag("--force", options->force, "replace files that exist");
    AddMoment(command, options->at, "what was active at 'YYYY-MM-DD HH:MM:SS', server time");
    AddJobs(command, options->jobs);
}

}  // namespace tsmctl
