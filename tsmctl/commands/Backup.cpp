// backup: stores local files and trees, each file, link and directory as an object of its own, or standard input.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <ctime>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>
#include <utility>

#include "Errors.h"
#include "Inventory.h"
#include "LocalTree.h"
#include "Parallel.h"
#include "RunRecord.h"
#include "Sender.h"
#include "Transfer.h"
#include "Vanished.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct BackupOptions {
    SourceOptions source;
    StreamSize size;  // of standard input
    Exclusions exclusions;
    bool oneFileSystem = false;
    bool withoutCaches = false;
    bool full = false;
    bool checksum = false;
    bool keepVanished = false;
    bool force = false;
    std::string mgmtClass;
    int jobs = usualSessions;
    std::vector<std::string> exclusionFiles;
    std::vector<std::string> pathFiles;
};

// So many objects are sent before it is checked that they are stored, for which all sessions have to be idle.
constexpr size_t mostUnchecked = 1000;

// What shows whether something changed. Content and attributes do not without the ctime.
std::string StateOf(Info info, bool withCtime) {
    if (!withCtime) info.ctime = {};
    info.fields = FieldOf(info.fields, "link") + " " + FieldOf(info.fields, "device");
    return FormatInfo(info);
}

// Whether content and attributes are what is stored, by reading both. What cannot be read is not.
bool HoldsTheSame(Session& session, Buffer& buffer, const LocalItem& item, const StoredObject& stored,
                  Report& report) try {
    const Content there = ContentOf(session, buffer, stored, "", report);
    const Content here = ContentOf(item, buffer, there.size + 1, report);
    return here.digest == there.digest && here.attributes == there.attributes;
} catch (const Failure&) {
    return false;
}

// Stores local trees, directory by directory, and makes the stored trees equal to them.
class TreeBackup {
    // Whether something of a directory could not be stored. A new directory shares it with the one above, from which it
    // may have been moved away under another name.
    using Incomplete = std::shared_ptr<bool>;
    // What was sent, and no listing has shown yet that it is stored. A session fills in what became of it.
    struct Sent {
        LocalItem item;
        Change change;
        Incomplete incomplete;
        std::string before;     // date of the version until now
        std::string text = {};  // of the last try
        bool committed = false;
        bool checked = false;
    };
    // A directory while it is stored.
    struct Folder {
        Parts object;
        StoredFolder stored;              // in the end, what is not here
        std::vector<LocalItem> replaced;  // stored as the other kind too
        bool othersStay = false;          // something in it does
        Incomplete incomplete = std::make_shared<bool>(false);
    };

public:
    TreeBackup(const BackupOptions& options, Context& context, Session& session)
        : options_(options),
          report_(context.report),
          session_(session),
          workers_(context, session, options.jobs),
          vanished_(
              session, report_, [this](const Parts& object, bool directory) { return LeavesOut(object, directory); },
              options.mgmtClass) {
        for (const Change change : {Change::New, Change::Changed, Change::Unchanged, Change::Gone}) {
            report_.CountChange(change, 0);
        }
    }

    // Reports what fails, and goes on. The run is recorded when it begins, too, so that one that was broken off shows
    // as such.
    void StoreSource(const Source& source) {
        struct stat status = {};
        const bool found = lstat(source.local.c_str(), &status) == 0;
        const bool isDirectory = found && S_ISDIR(status.st_mode);
        if (report_.IsDryRun()) return Run(source);
        if (!found || isDirectory) Finish();
        const long long before = report_.Failures();
        RunRecord run;
        run.tree = source.object;
        run.begun = run.ended = std::time(nullptr);
        if (isDirectory) Record(run, true);
        Run(source);
        if (found && !isDirectory && report_.Failures() == before) return;
        Finish();
        run.failures = report_.Failures() - before;
        run.ended = std::time(nullptr);
        if (run.failures == 0) run.complete = run.ended;
        Record(run, isDirectory);
    }

    // Returns when everything is stored, or all that counts in some directories. A listing of each directory says
    // whether it is, since a commit answers 0 also where the API could not end the object. Throws Interrupted at a
    // signal.
    void Finish(const Incomplete& only = nullptr) {
        workers_.Finish();
        std::map<Parts, std::list<Sent>> folders;
        for (auto next = sent_.begin(); next != sent_.end();) {
            const auto sent = next++;
            if (only && sent->incomplete != only) continue;
            Parts folder = SplitAtSlash(sent->item.object);
            folder.pop_back();
            std::list<Sent>& inside = folders[folder];
            inside.splice(inside.end(), sent_, sent);
        }
        for (auto& [folder, all] : folders) {
            Attempt(report_, Join(folder), [&, &path = folder, &sent = all] {
                const StoredFolder now = ListFolder(session_, path);
                for (Sent& each : sent) Check(each, now);
            });
            for (const Sent& sent : all) *sent.incomplete = *sent.incomplete || !sent.checked;
        }
    }

private:
    // Of what is no directory now, a run is recorded only where it has been a tree.
    void Record(RunRecord run, bool isDirectory) {
        Attempt(report_, "the record of " + Join(run.tree), [&] {
            const std::vector<RunRecord> last = FindRuns(session_, run.tree, Scope::Self);
            if (!isDirectory && last.empty()) return;
            if (!run.complete && !last.empty()) run.complete = last[0].complete;
            StoreRun(session_, run, options_.mgmtClass);
        });
    }

    void Run(const Source& source) {
        Attempt(report_, source.local, [&] {
            top_ = Look(source);
            const bool isDirectory = top_.info.kind == Kind::Directory;
            head_ = source.object.size() - (source.isRoot ? 0 : 1);
            Folder folder;
            folder.object = {source.object.begin(), source.object.begin() + static_cast<std::ptrdiff_t>(head_)};
            if (source.isRoot) return Enter(top_, folder, [] {});
            if (LeavesOut(source.object, isDirectory)) return;
            const StoredPair stored = ListOne(session_, source.object);
            if (!isDirectory && stored.directory && !options_.force && !options_.keepVanished) {
                throw Failure("was a directory when it was stored; --force stores what it is now in its place");
            }
            folder.stored[Escape(source.object.back())] = stored;
            Visit(top_, folder);
            Settle(folder);
        });
    }

    bool LeavesOut(const Parts& object, bool directory) const {
        return options_.exclusions.LeaveOut({object.begin() + static_cast<std::ptrdiff_t>(head_), object.end()},
                                            directory);
    }

    void CheckTop(const Folder& folder, const LocalFolder& here) const {
        const auto counts = [](const auto& entry) {
            return entry.first != "lost+found" && (!entry.second.file || IsFromTree(*entry.second.file));
        };
        for (const LocalItem& item : here.entries) {
            const auto found = folder.stored.find(Escape(SplitAtSlash(item.object).back()));
            if (found != folder.stored.end() && counts(*found)) return;
        }
        const auto stored = std::count_if(folder.stored.begin(), folder.stored.end(), counts);
        if (stored > 1 || (stored == 1 && here.entries.empty())) {
            throw Failure(
                "holds nothing of what is stored of it, as if another file system were here; nothing is stored "
                "or removed (--force stores it as it is, --keep-vanished removes nothing)");
        }
    }

    // Stores the directory by the function given, and then what it holds.
    void Enter(const LocalItem& directory, Folder& folder, const std::function<void()>& store) {
        LocalFolder here;
        const char* closed = nullptr;
        const bool readable = Attempt(report_, directory.local, [&] {
            // What another run stores from now on is not taken for gone.
            StoredFolder stored = ListFolder(session_, folder.object);
            here = Read(directory, report_);
            closed = here.isStore                                                ? "is the store of a server"
                     : here.isCache && options_.withoutCaches                    ? "is a cache"
                     : directory.device != top_.device && options_.oneFileSystem ? "is another file system"
                                                                                 : nullptr;
            if (!closed) folder.stored = std::move(stored);
        });
        const bool isTop = directory.local == top_.local;
        if (isTop && readable && !options_.force && !options_.keepVanished) CheckTop(folder, here);
        store();
        if (closed) {
            report_.Note(directory.local + " " + closed + "; what it holds is left out");
        } else if (readable) {
            Walk(std::move(here), folder);
        } else {
            *folder.incomplete = true;
        }
    }

    void Walk(LocalFolder here, Folder& folder) {
        // Directories come last, when the memory of all else is free again.
        std::stable_partition(here.entries.begin(), here.entries.end(),
                              [](const LocalItem& item) { return item.info.kind != Kind::Directory; });
        for (; !here.entries.empty(); here.entries.pop_front()) {
            const LocalItem& item = here.entries.front();
            const Parts object = SplitAtSlash(item.object);
            if (item.unreadable || LeavesOut(object, item.info.kind == Kind::Directory)) {
                folder.stored.erase(Escape(object.back()));
            } else if (item.info.kind == Kind::Other) {
                report_.Warn(item.local, "socket, skipped");
            } else {
                Visit(item, folder);
            }
        }
        if (here.whole) Settle(folder);
    }

    void Visit(const LocalItem& item, Folder& folder) {
        const bool isDirectory = item.info.kind == Kind::Directory;
        const Parts object = SplitAtSlash(item.object);
        StoredPair stored;
        if (auto node = folder.stored.extract(Escape(object.back()))) stored = std::move(node.mapped());
        const auto& other = stored.Of(!isDirectory);
        const bool replaces = bool(other);
        if (replaces) folder.replaced.push_back(item);
        folder.othersStay = folder.othersStay || !replaces;
        const auto& before = stored.Of(isDirectory);
        // A restore takes the newer kind.
        const bool hidden =
            before && other && std::tie(other->date, other->directory) > std::tie(before->date, before->directory);
        const bool like = !options_.full && !hidden && before && before->info &&
                          StateOf(item.info, !options_.checksum) == StateOf(*before->info, !options_.checksum);
        const Change change = like ? Change::Unchanged : before || replaces ? Change::Changed : Change::New;
        if (!isDirectory) return Send(item, folder, change, before);
        Folder inside;
        inside.object = object;
        if (!before) inside.incomplete = folder.incomplete;
        Enter(item, inside, [&] { Send(item, folder, change, before); });
    }

    // A listing says what became of an earlier try, so that nothing is stored twice.
    void Store(Session& session, Buffer& buffer, Sent& sent) const {
        session.Retry([&] {
            const bool isThere =
                !sent.text.empty() && IsStoredAs(ListOne(session, SplitAtSlash(sent.item.object)),
                                                 sent.item.info.kind == Kind::Directory, sent.text, sent.before);
            if (!isThere) StoreItem(session, buffer, sent.item, options_.mgmtClass, sent.text, report_);
            sent.committed = true;
        });
    }

    // before is what is stored of it.
    void Send(const LocalItem& item, Folder& folder, Change change, const std::optional<StoredObject>& before) {
        const bool compare = change == Change::Unchanged && options_.checksum;
        if ((change == Change::Unchanged && !compare) || report_.IsDryRun()) {
            report_.Step();
            return Count(item, change);
        }
        Sent& sent = sent_.emplace_back(Sent{item, change, folder.incomplete, before ? before->date : ""});
        const auto work = [this, &sent, like = compare ? before : std::nullopt](Session& session, Buffer& buffer) {
            if (like && HoldsTheSame(session, buffer, sent.item, *like, report_)) {
                sent.before.clear();
                sent.text = like->text;
                sent.committed = true;
            } else {
                if (like) sent.change = Change::Changed;
                Store(session, buffer, sent);
            }
            report_.Step();
        };
        // Two sessions that miss the same directory would both create it. So this one stores the directories, and the
        // first file, which creates those that --to names.
        if (item.info.kind == Kind::Directory || !headStored_) {
            const bool done = Attempt(report_, item.local, [&] { work(session_, buffer_); });
            headStored_ = headStored_ || done;
        } else {
            workers_.Do(item.local, work);
        }
    }

    void Count(const LocalItem& item, Change change) {
        if (change != Change::Unchanged) {
            report_.Did("stored", item.object, change == Change::New ? "new" : "changed");
        }
        report_.Count(item.info.kind);
        report_.CountChange(change);
    }

    void Check(Sent& sent, const StoredFolder& now) {
        if (!sent.committed) return;  // has failed already
        const bool isDirectory = sent.item.info.kind == Kind::Directory;
        const Parts object = SplitAtSlash(sent.item.object);
        const auto found = now.find(Escape(object.back()));
        const bool isThere = found != now.end() && IsStoredAs(found->second, isDirectory, sent.text, sent.before);
        // A version of the same second as the one before, as after two runs with --full, cannot be told from it.
        bool again = !isThere && found != now.end() && IsStoredAs(found->second, isDirectory, sent.text);
        if (again && !std::exchange(secondPassed_, true)) std::this_thread::sleep_for(std::chrono::seconds(1));
        const auto storeAgain = [&] {
            session_.Retry([&] {
                if (std::exchange(again, true)) Store(session_, buffer_, sent);
                RequireStored(session_, object, isDirectory, sent.text, sent.before);
            });
        };
        sent.checked = isThere || Attempt(report_, sent.item.local, storeAgain);
        if (sent.checked) Count(sent.item, sent.change);
    }

    void Settle(Folder& folder) {
        StoredFolder gone;
        for (const auto& [name, stored] : folder.stored) {
            const bool mayGo = (!stored.file || IsFromTree(*stored.file)) && !folder.object.empty();
            const bool isTold = stored.file && IsDamaged(*stored.file) && !folder.object.empty();
            if ((mayGo || isTold) && !options_.keepVanished) gone.emplace(name, stored);
            folder.othersStay = folder.othersStay || !mayGo;
        }
        if (sent_.size() >= mostUnchecked) Finish();
        if (gone.empty() && folder.replaced.empty()) return;
        Finish(folder.incomplete);
        if (*folder.incomplete) {
            return report_.Note(Join(folder.object) +
                                ": what is gone stays stored, since not everything here could be");
        }
        if (options_.keepVanished) {
            for (const LocalItem& item : folder.replaced) WarnOfOtherKind(report_, item);
            return;
        }
        Attempt(report_, Join(folder.object), [&] {
            report_.CountChange(Change::Gone,
                                vanished_.Remove(folder.object, gone, folder.replaced, folder.othersStay, head_));
        });
    }

    const BackupOptions& options_;
    Report& report_;
    Session& session_;
    Buffer buffer_ = Buffer(pieceSize);
    std::list<Sent> sent_;
    Workers workers_;  // ends before what it works on
    Vanished vanished_;
    bool secondPassed_ = false;  // since the backup began
    bool headStored_ = false;    // whether the directories above the trees are there
    size_t head_ = 0;            // how many there are
    LocalItem top_;
};

void StoreTrees(const BackupOptions& options, Context& context) {
    const std::vector<Source> sources = ResolveSources(options.source.paths, options.source.to);
    Session session(context.connection);
    session.Handle();
    TreeBackup backup(options, context, session);
    for (const Source& source : sources) backup.StoreSource(source);
    backup.Finish();
}

void StoreInput(const BackupOptions& options, Context& context) {
    const Parts object = options.source.InputObject();
    Session session(context.connection);
    session.Handle();
    context.report.Expect(options.size.exact);
    Attempt(context.report, "standard input", [&] {
        const StoredPair stored = ListOne(session, object);
        if (stored.directory) {
            context.report.Warn(Join(object), "a directory of this name is stored and stays; restore takes the newer");
        }
        if (!context.report.IsDryRun()) {
            StoreStream(session, object, options.size, options.mgmtClass, stored.file, context.report);
        }
        context.report.Count(Kind::Stream);
        context.report.Did("stored", Join(object));
    });
}

// One in each line; empty lines count for nothing, nor do those that begin with comment.
void AddLinesOf(const std::vector<std::string>& files, const char* comment, std::vector<std::string>& lines) {
    for (const std::string& name : files) {
        std::ifstream file(name);
        for (std::string line; std::getline(file, line);) {
            if (comment && !line.empty() && line.back() == '\r') line.pop_back();
            if (!line.empty() && (!comment || line[0] != *comment)) lines.push_back(line);
        }
        if (!file.eof()) throw Failure(name + ": cannot be read");
    }
}

void Backup(BackupOptions options, Context& context) {
    AddLinesOf(options.pathFiles, nullptr, options.source.paths);
    AddLinesOf(options.exclusionFiles, "#", options.exclusions.patterns);
    if (options.source.paths.empty() && options.pathFiles.empty()) throw UsageError("PATH is missing: what to store");
    CheckSource(options.source);
    const bool isInput = options.source.IsInput();
    if ((options.size.exact || options.size.estimate) && !isInput)
        throw UsageError("--size and --estimate belong to -");
    isInput ? StoreInput(options, context) : StoreTrees(options, context);
    context.report.Summary("backup");
}

}  // namespace

void AddBackup(CommandLine& line) {
    auto [command, options] = line.Add<BackupOptions>(
        "backup", "Store files, links and whole trees, or standard input",
        {"tsmctl backup docs --to nightly -j 4 --exclude '*.o' --exclude-caches", "tsmctl backup docs/a.txt docs/b.txt",
         "tar -c docs | tsmctl backup - --as dumps/docs.tar"},
        Backup);
    AddArguments(command, "PATH", options.source.paths, fileType,
                 "what to store, by its last part; - is standard input")
        ->required(false);
    AddRepeatable(command, "--files-from", options.pathFiles, fileType, "file with more PATHs, one in a line");
    AddExclude(command, options.exclusions.patterns);
    AddRepeatable(command, "--exclude-from", options.exclusionFiles, fileType,
                  "file with more patterns, one in a line");
    command.add_flag("--exclude-caches", options.withoutCaches, "leave out what is below a CACHEDIR.TAG");
    command.add_flag("--one-file-system", options.oneFileSystem, "leave out what is mounted below");
    CLI::Option* const full = command.add_flag("--full", options.full, "send what has not changed, too");
    command.add_flag("--checksum", options.checksum, "read what is here and what is stored to see what changed")
        ->excludes(full);
    command.add_flag("--keep-vanished", options.keepVanished, "leave active what is not here any more");
    command.add_flag("--force", options.force, "even if nothing of a stored tree is left");
    command.add_option("--class", options.mgmtClass, "management class (default: the server's choice)")
        ->type_name("NAME");
    CLI::Option* const size =
        AddNumber(command, "--size", "BYTES", "of standard input, if it is known", 0, LLONG_MAX, options.size.exact);
    AddNumber(command, "--estimate", "BYTES", "of standard input; too much rather than too little", 0, LLONG_MAX,
              options.size.estimate)
        ->excludes(size);
    AddPlace(command, options.source);
    AddJobs(command, options.jobs);
    line.AddDryRun(command);
}

}  // namespace tsmctl
