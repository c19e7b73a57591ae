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
long long EstimateAfter(const std::optional<StoredObject>& last) {
    if (!last) return largeStream;
    const long long size = last->info ? last->info->size.value_or(0) : 0;
    if (size >= static_cast<long long>(pieceSize)) return size + std::min(size / 10, LLONG_MAX - size);
    return std::max(largeStream, last->announced - static_cast<long long>(sealLength));
}

class Sender {
public:
    // text becomes the information text before anything is committed under it.
    Sender(const BackupOptions& options, Report& report, Session& session, Buffer& buffer, std::string& text)
        : options_(options), report_(report), session_(session), buffer_(buffer), text_(text) {}

    void Store(const LocalItem& item) {
        for (int attempt = 1; !StoreUnchanged(item); ++attempt) {
            if (attempt == tries) {
                throw Failure(fmt::format("changed while it was read, {} times; not stored", tries));
            }
            poll(nullptr, 0, 100 << attempt);
            CheckInterrupt();
        }
    }

    // Without a size, what fits into the buffer is announced exactly, and anything longer by the estimate.
    void StoreStream(const Parts& object, const std::optional<StoredObject>& last) {
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
        const long long announced =
            info.size.value_or(std::max(length, options_.estimate.value_or(EstimateAfter(last))));
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
        return ReadPieces(fd, buffer_, limit, [&](size_t length) {
            upload.Send(buffer_.data(), length);
            report_.Advance(length);
        });
    }

    [[noreturn]] void FailSize() const {
        throw Failure(fmt::format("does not have the {} bytes of --size; not stored", *options_.size));
    }

    // The item counts as it is when it is opened. False when a file changed while it was read; nothing of it is stored
    // then.
    bool StoreUnchanged(const LocalItem& item) {
        const bool isFile = item.info.kind == Kind::File;
        const UniqueFd here = OpenItem(item, isFile ? 0 : O_PATH);
        const struct stat status = StatusOf(here);
        Info info = InfoOf(status);
        if (info.kind != item.info.kind) throw Failure(fmt::format("is no longer a {}", KindName(item.info.kind)));
        std::string target = info.kind == Kind::Link ? ReadLink(here) : "";
        if (!isFile) info.size = static_cast<long long>(target.size());
        std::vector<Extent> extents;
        if (isFile) extents = FindData(here.Get(), status);
        const std::string ranges = FormatExtents(extents);
        ParseExtents(ranges, *info.size);  // what cannot be read back is refused
        if (extents.empty()) extents.push_back({0, *info.size});
        long long bytes = 0;
        for (const Extent& extent : extents) bytes += extent.length;
        std::string header = ReadAttributes(here.Get(), report_) + ranges;
        if (info.kind == Kind::Directory) PutInto(info, std::exchange(header, ""));
        if (!header.empty()) AddField(info.fields, "header", std::to_string(header.size()));
        Upload upload(session_, ToStored(SplitAtSlash(item.object)), bytes, info, header, options_.tree.mgmtClass);
        upload.Send(reinterpret_cast<unsigned char*>(target.data()), target.size());
        report_.Advance(target.size());
        if (isFile && !SendFile(upload, here, extents, status)) return false;
        text_ = upload.InfoText();
        upload.Commit();
        return true;
    }

    // A directory's attributes have to fit into its information text; what does not is left out, ACLs last.
    void PutInto(Info& info, const std::string& attributes) {
        bool complete = true;
        for (const std::string& field : AttributesIn(attributes)) {
            const std::string before = info.fields;
            info.fields += (before.empty() ? "" : " ") + field;
            if (FormatInfo(info).size() + sumLength <= longestInfo) continue;
            info.fields = before;
            complete = false;
        }
        if (!complete) report_.CountLoss("extended attributes or ACL of a directory too long to keep");
        AddSum(info);
    }

    // False when it changed meanwhile.
    bool SendFile(Upload& upload, const UniqueFd& file, const std::vector<Extent>& extents, const struct stat& status) {
        long long place = 0;
        bool less = false;
        for (auto extent = extents.begin(); extent != extents.end() && !less; ++extent) {
            upload.Skip(extent->offset - place);
            if (lseek(file.Get(), extent->offset, SEEK_SET) < 0) FailLocal("cannot read", errno);
            less = Send(upload, file.Get(), extent->length) < extent->length;
            place = extent->offset + extent->length;
        }
        if (!less) upload.Skip(status.st_size - place);
        lseek(file.Get(), status.st_size, SEEK_SET);
        const bool more = MoreIn(file.Get());
        if (FormatInfo(InfoOf(StatusOf(file))) != FormatInfo(InfoOf(status))) return false;
        if (!less && !more) return true;
        throw Failure(fmt::format("holds {} than its size of {} bytes; not stored (pipe it into backup - --as)",
                                  more ? "more" : "less", status.st_size));
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

    const BackupOptions& options_;
    Report& report_;
    Session& session_;
    Buffer& buffer_;
    std::string& text_;
};

// Of what is no directory now, a run is recorded only where it has been a tree.
void Record(Report& report, Session& session, RunRecord run, bool isDirectory, const std::string& mgmtClass) {
    Attempt(report, "the record of " + Join(run.tree), [&] {
        const std::vector<RunRecord> last = FindRuns(session, run.tree, Scope::Self);
        if (!isDirectory && last.empty()) return;
        if (!run.complete && !last.empty()) run.complete = last[0].complete;
        StoreRun(session, run, mgmtClass);
    });
}

// The run is recorded when it begins, too, so that one that was broken off shows as such.
void StoreSource(const BackupOptions& options, Report& report, Session& session, TreeBackup& backup,
                 const Source& source) {
    struct stat status = {};
    const bool found = lstat(source.local.c_str(), &status) == 0;
    const bool isDirectory = found && S_ISDIR(status.st_mode);
    if (report.IsDryRun()) return backup.Run(source);
    if (!found || isDirectory) backup.Finish();
    const long long before = report.Failures();
    RunRecord run;
    run.tree = source.object;
    run.begun = run.ended = std::time(nullptr);
    if (isDirectory) Record(report, session, run, true, options.tree.mgmtClass);
    backup.Run(source);
    if (found && !isDirectory && report.Failures() == before) return;
    backup.Finish();
    run.failures = report.Failures() - before;
    run.ended = std::time(nullptr);
    if (run.failures == 0) run.complete = run.ended;
    Record(report, session, run, isDirectory, options.tree.mgmtClass);
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
        const StoredPair stored = ListOne(session, object);
        if (stored.directory) {
            context.report.Warn(Join(object), "a directory of this name is stored and stays; restore takes the newer");
        }
        if (context.report.IsDryRun()) {
            context.report.Count(Kind::Stream);
            return context.report.Did("stored", Join(object));
        }
        std::string text;
        Sender(options, context.report, session, buffer, text).StoreStream(object, stored.file);
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
