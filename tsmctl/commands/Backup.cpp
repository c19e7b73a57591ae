// backup: stores local files and trees, each file, link and directory as an object of its own, or standard input.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>

#include "Arguments.h"
#include "Attributes.h"
#include "Errors.h"
#include "Inventory.h"
#include "LocalTree.h"
#include "RunRecord.h"
#include "Transfer.h"
#include "TreeBackup.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct BackupOptions {
    SourceOptions source;
    std::optional<long long> size;      // of standard input
    std::optional<long long> estimate;  // of the same
    TreeOptions tree;
    std::vector<std::string> exclusionFiles;
    std::vector<std::string> pathFiles;
};

// Announced for a stream of which nothing is known.
constexpr long long largeStream = 10LL << 30;
constexpr int tries = 4;

// The size of the last version and a tenth more, or a large value where that size is not known, or is one that would
// have fit into the buffer, as this stream does not.
long long EstimateFor(Session& session, const Parts& object) {
    Selection files;
    files.objectType = TSM_OBJECTS_FILES;
    long long estimate = largeStream;
    for (const StoredObject& last : List(session, NamePattern(object, false), files)) {
        const bool known = last.info && last.info->size.value_or(0) >= static_cast<long long>(pieceSize);
        estimate = known ? *last.info->size + std::min(*last.info->size / 10, LLONG_MAX - *last.info->size)
                         : std::max(largeStream, last.announced - static_cast<long long>(sealLength));
    }
    return estimate;
}

class Sender {
public:
    // text becomes the information text before anything is committed under it.
    Sender(const BackupOptions& options, Report& report, Session& session, Buffer& buffer, std::string& text)
        : options_(options), report_(report), session_(session), buffer_(buffer), text_(text) {}

    void Store(const LocalItem& item) {
        if (item.info.kind == Kind::Directory) return StoreDirectory(item);
        return item.info.kind == Kind::File ? StoreFile(item) : StoreWithoutFile(item);
    }

    // Without a size, what fits into the buffer is announced exactly, and anything longer by the estimate.
    void StoreStream(const Parts& object) {
        Info info;
        info.kind = Kind::Stream;
        info.mode = 0600;
        info.uid = geteuid();
        info.gid = getegid();
        clock_gettime(CLOCK_REALTIME, &info.mtime);
        info.ctime = info.mtime;
        info.size = options_.size;
        const size_t first = ReadFull(STDIN_FILENO, buffer_.data(), pieceSize);
        const auto length = static_cast<long long>(first);
        const bool whole = first < pieceSize;
        if (whole && !info.size) info.size = length;
        if (info.size && (whole ? length != *info.size : length > *info.size)) FailSize();
        const long long announced = info.size           ? *info.size
                                    : options_.estimate ? std::max(*options_.estimate, length)
                                                        : std::max(EstimateFor(session_, object), length);
        text_ = FormatInfo(info);
        long long sent = 0;
        bool readOn = false;
        std::string failed;
        session_.Retry([&] {
            if (!failed.empty() && IsStoredAs(ListOne(session_, object), false, text_)) return;
            if (readOn) throw Failure(failed + "; standard input cannot be read a second time");
            try {
                Upload upload(session_, ToStored(object), announced, info, "", options_.tree.mgmtClass);
                if (first > 0) upload.Send(buffer_.data(), first);
                report_.Advance(first);
                readOn = !whole;
                sent = length + (whole ? 0 : Send(upload, STDIN_FILENO, info.size.value_or(INT64_MAX) - length));
                if (info.size && (sent < *info.size || (!whole && MoreIn(STDIN_FILENO)))) FailSize();
                upload.Commit();
                RequireStored(session_, object, false, text_);
            } catch (const PassingFailure& failure) {
                failed = failure.what();
                throw;
            }
        });
        report_.Count(Kind::Stream);
        report_.Did("stored", Join(object));
        if (sent > announced) {
            report_.Warn(Join(object), fmt::format("has {} bytes, but {} were announced; --estimate announces more",
                                                   sent, announced));
        }
    }

private:
    static bool MoreIn(int fd) {
        char byte = 0;
        return ReadFull(fd, &byte, 1) == 1;
    }

    // Sends up to limit bytes; fewer when the input ends.
    long long Send(Upload& upload, int fd, long long limit) {
        long long sent = 0;
        while (sent < limit) {
            const auto wanted = static_cast<size_t>(std::min<long long>(limit - sent, pieceSize));
            const size_t got = ReadFull(fd, buffer_.data(), wanted);
            if (got > 0) upload.Send(buffer_.data(), got);
            sent += static_cast<long long>(got);
            report_.Advance(got);
            if (got < wanted) break;
        }
        return sent;
    }

    [[noreturn]] void FailSize() const {
        throw Failure(fmt::format("does not have the {} bytes of --size; not stored", *options_.size));
    }

    // Its attributes have to fit into its information text; what does not is left out, ACLs last.
    void StoreDirectory(const LocalItem& item) {
        Info info = item.info;
        bool complete = true;
        for (const std::string& field : AttributesIn(ReadAttributes(OpenItem(item, O_PATH).Get(), report_))) {
            const std::string before = info.fields;
            info.fields += (before.empty() ? "" : " ") + field;
            if (FormatInfo(info).size() + sumLength <= longestInfo) continue;
            info.fields = before;
            complete = false;
        }
        if (!complete) report_.CountLoss("extended attributes or ACL of a directory too long to keep");
        AddSum(info);
        Commit(Begin(item, info, "", 0));
    }

    // A link or a special file.
    void StoreWithoutFile(const LocalItem& item) {
        std::string target = item.info.kind == Kind::Link ? ReadLink(item) : "";
        Info info = item.info;
        info.size = static_cast<long long>(target.size());
        Upload upload = Begin(item, info, ReadAttributes(OpenItem(item, O_PATH).Get(), report_), *info.size);
        upload.Send(reinterpret_cast<unsigned char*>(target.data()), target.size());
        Commit(std::move(upload));
        report_.Advance(target.size());
    }

    void Commit(Upload&& upload) {
        text_ = upload.InfoText();
        upload.Commit();
    }

    Upload Begin(const LocalItem& item, Info info, const std::string& header, long long bytes) {
        if (!header.empty()) AddField(info.fields, "header", std::to_string(header.size()));
        const StoredName name = ToStored(SplitAtSlash(item.object));
        return Upload(session_, name, bytes, info, header, options_.tree.mgmtClass);
    }

    // The file counts as it is when it is opened. A link or a pipe that has taken its place is refused.
    void StoreFile(const LocalItem& item) {
        for (int attempt = 1;; ++attempt) {
            if (StoreUnchanged(item)) return;
            if (attempt == tries) {
                throw Failure(fmt::format("changed while it was read, {} times; not stored", tries));
            }
            poll(nullptr, 0, 100 << attempt);
            CheckInterrupt();
        }
    }

    // False when the file changed while it was read; nothing of it is stored then.
    bool StoreUnchanged(const LocalItem& item) {
        const UniqueFd file = OpenItem(item);
        const struct stat status = StatusOf(file);
        const Info info = InfoOf(status);
        if (info.kind != Kind::File) throw Failure("is no longer a regular file");
        std::vector<Extent> extents = FindData(file.Get(), status);
        const std::string ranges = FormatExtents(extents);
        ParseExtents(ranges, *info.size);  // what cannot be read back is refused
        if (extents.empty()) extents.push_back({0, *info.size});
        long long bytes = 0;
        for (const Extent& extent : extents) bytes += extent.length;
        Upload upload = Begin(item, info, ReadAttributes(file.Get(), report_) + ranges, bytes);
        const long long sent = SendExtents(upload, file.Get(), extents, *info.size);
        const bool more = MoreIn(file.Get());
        const Info after = InfoOf(StatusOf(file));
        const auto state = [](const Info& i) {
            return TimeText(i.mtime) + TimeText(i.ctime) + std::to_string(*i.size);
        };
        if (state(after) != state(info)) return false;
        if (sent != *info.size || more) {
            throw Failure(fmt::format("holds {} than its size of {} bytes; not stored (pipe it into backup - --as)",
                                      more ? "more" : "less", *info.size));
        }
        Commit(std::move(upload));
        return true;
    }

    // A write in the tick of the clock in which the file changed last would not show in its times.
    static struct stat StatusOf(const UniqueFd& file) {
        struct stat status = {};
        timespec now = {};
        do {
            if (fstat(file.Get(), &status) != 0) FailLocal("cannot open", errno);
            clock_gettime(CLOCK_REALTIME_COARSE, &now);
        } while (TimeText(now) == TimeText(status.st_ctim) && poll(nullptr, 0, 1) == 0);
        return status;
    }

    long long SendExtents(Upload& upload, int fd, const std::vector<Extent>& extents, long long size) {
        long long place = 0;
        for (const Extent& extent : extents) {
            upload.Skip(extent.offset - place);
            if (lseek(fd, extent.offset, SEEK_SET) < 0) FailLocal("cannot read", errno);
            place = extent.offset + Send(upload, fd, extent.length);
            if (place < extent.offset + extent.length) return place;
        }
        upload.Skip(size - place);
        lseek(fd, size, SEEK_SET);
        return size;
    }

    const BackupOptions& options_;
    Report& report_;
    Session& session_;
    Buffer& buffer_;
    std::string& text_;
};

// The run is recorded when it begins, too, so that one that was broken off shows as such. Of what cannot be looked at,
// that is done only where it has been a tree, and of what is no directory, only where that failed.
void StoreSource(const BackupOptions& options, Report& report, Session& session, TreeBackup& backup,
                 const Source& source) {
    struct stat status = {};
    const bool found = lstat(source.local.c_str(), &status) == 0;
    bool recorded = found && S_ISDIR(status.st_mode);
    const bool isFile = found && !recorded;
    if (report.IsDryRun()) return backup.Run(source);
    if (!isFile) backup.Finish();
    const long long before = report.Failures();
    RunRecord run;
    run.tree = source.object;
    run.begun = run.ended = std::time(nullptr);
    bool known = false;  // what is recorded until now
    const auto record = [&] {
        Attempt(report, "the record of " + Join(source.object), [&] {
            if (!known) {
                for (const RunRecord& last : FindRuns(session, source.object, Scope::Self)) {
                    run.complete = last.complete;
                    recorded = true;
                }
            }
            known = true;
            if (recorded) StoreRun(session, run, options.tree.mgmtClass);
        });
    };
    if (!isFile) record();
    backup.Run(source);
    if (isFile && report.Failures() == before) return;
    backup.Finish();
    run.failures = report.Failures() - before;
    run.ended = std::time(nullptr);
    if (run.failures == 0) run.complete = run.ended;
    record();
}

void StoreTrees(const BackupOptions& options, Context& context) {
    const std::vector<Source> sources = ResolveSources(options.source.paths, options.source.to);
    Session session(context.connection);
    session.Handle();
    const auto store = [&](Session& own, Buffer& buffer, const LocalItem& item, std::string& text) {
        Sender(options, context.report, own, buffer, text).Store(item);
    };
    TreeBackup backup(options.tree, context, session, store);
    for (const Source& source : sources) StoreSource(options, context.report, session, backup, source);
    backup.Finish();
}

void StoreInput(const BackupOptions& options, Context& context) {
    const Parts object = options.source.InputObject();
    Session session(context.connection);
    Buffer buffer(pieceSize);
    session.Handle();
    context.report.Expect(options.size);
    Attempt(context.report, "standard input", [&] {
        if (ListOne(session, object).directory) {
            context.report.Warn(Join(object), "a directory of this name is stored and stays; restore takes the newer");
        }
        if (context.report.IsDryRun()) {
            context.report.Count(Kind::Stream);
            return context.report.Did("stored", Join(object));
        }
        std::string text;
        Sender(options, context.report, session, buffer, text).StoreStream(object);
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
    AddLinesOf(options.exclusionFiles, "#", options.tree.exclusions.patterns);
    if (options.source.paths.empty() && options.pathFiles.empty()) throw UsageError("PATH is missing: what to store");
    CheckSource(options.source);
    const bool isInput = options.source.IsInput();
    if ((options.size || options.estimate) && !isInput) throw UsageError("--size and --estimate belong to -");
    isInput ? StoreInput(options, context) : StoreTrees(options, context);
    context.report.Summary("backup");
}

}  // namespace

void AddBackup(CommandLine& line) {
    const auto options = std::make_shared<BackupOptions>();
    CLI::App& command =
        line.Add("backup", "Store files, links and whole trees, or standard input",
                 {"tsmctl backup docs --to nightly -j 4 --exclude '*.o' --exclude-caches",
                  "tsmctl backup docs/a.txt docs/b.txt", "tar -c docs | tsmctl backup - --as dumps/docs.tar"},
                 [options](Context& context) { Backup(*options, context); });
    AddPaths(command, options->source.paths, fileType, "what to store, by its last part; - is standard input")
        ->required(false);
    const auto add = [&](const char* name, std::vector<std::string>& values, const char* type, const char* text) {
        command.add_option(name, values, text)->type_name(type)->allow_extra_args(false);
    };
    add("--files-from", options->pathFiles, fileType, "file with more PATHs, one in a line");
    AddExclude(command, options->tree.exclusions.patterns);
    add("--exclude-from", options->exclusionFiles, fileType, "file with more patterns, one in a line");
    command.add_flag("--exclude-caches", options->tree.withoutCaches, "leave out what is below a CACHEDIR.TAG");
    command.add_flag("--one-file-system", options->tree.oneFileSystem, "leave out what is mounted below");
    CLI::Option* const full = command.add_flag("--full", options->tree.full, "send what has not changed, too");
    command.add_flag("--checksum", options->tree.checksum, "read what is here and what is stored to see what changed")
        ->excludes(full);
    command.add_flag("--keep-vanished", options->tree.keepVanished, "leave active what is not here any more");
    command.add_flag("--force", options->tree.force, "even if nothing of a stored tree is left");
    command.add_option("--class", options->tree.mgmtClass, "management class (default: the server's choice)")
        ->type_name("NAME");
    CLI::Option* const size = AddNumber(command, "--size", "BYTES", "of standard input, if it is known", 0, LLONG_MAX,
                                        [options](long long number) { options->size = number; });
    AddNumber(command, "--estimate", "BYTES", "of standard input; too much rather than too little", 0, LLONG_MAX,
              [options](long long number) { options->estimate = number; })
        ->excludes(size);
    AddPlace(command, options->source);
    AddJobs(command, options->tree.jobs);
    line.AddDryRun(command);
}

}  // namespace tsmctl
